// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * ThreadSanitizer of g++ 12 does not know pthread_mutex_clocklock, which a timed mutex with a steady-clock
 * deadline uses: it would miss every such lock and report races that are none. It knows
 * pthread_mutex_timedlock, which is the same on the wall clock.
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
