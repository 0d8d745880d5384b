// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Replaces pthread_mutex_clocklock by pthread_mutex_timedlock, which waits by the wall clock.
 *
 * A timed mutex calls pthread_mutex_clocklock for a deadline of the steady clock. ThreadSanitizer of g++ 12
 * does not intercept it, so it would miss these locks and report false races. It does intercept
 * pthread_mutex_timedlock.
 */
#include <pthread.h>

#include <chrono>
#include <ctime>

namespace {

std::chrono::nanoseconds Nanoseconds(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::chrono::nanoseconds Now(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return Nanoseconds(time);
}

}  // namespace

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
    const auto wall = Now(CLOCK_REALTIME) + (Nanoseconds(*deadline) - Now(clock));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(wall);
    timespec wallDeadline = {};
    wallDeadline.tv_sec = seconds.count();
    wallDeadline.tv_nsec = (wall - seconds).count();
    return pthread_mutex_timedlock(mutex, &wallDeadline);
}
