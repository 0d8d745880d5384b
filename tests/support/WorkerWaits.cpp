// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "WorkerWaits.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <utility>
#include <vector>

#include "FakeSeam.h"

using NKavrel::eKVGainHandlerType;
using NKavrel::GAIN_HANDLER_COUNT;
using NKavrel::GAIN_HANDLER_NONE;
using NKavrel::GAIN_HANDLER_PULSE_RAMP;
using NKavrel::GainHandlerName;

namespace fake {
namespace {

using Bits = std::uint32_t;

/**
 * The waits of all workers in one word, so that a test sees all of them at one moment. Bit t: worker t waits for a
 * request. Bit 8 + t: it waits for a time. A notification clears the bit before the worker wakes up. The upper
 * half counts the waits, so that no wait goes unseen.
 *
 * The kernel puts the workers and the waiting test to sleep on this word. A wait releases what the worker did
 * before, and the test acquires that. Nothing else is ordered by this word, as nothing is by a condition
 * variable: ThreadSanitizer still sees each race between the workers and those who notify them.
 */
std::atomic<Bits> state = 0;

constexpr Bits ONE_WAIT = 1U << 16;
constexpr Bits ALL_WAIT_FOR_REQUESTS = 0b111'1110;

constexpr Bits RequestBit(int worker) {
    return 1U << worker;
}
constexpr Bits TimeBit(int worker) {
    return 1U << (worker + 8);
}
constexpr Bits WaitBits(int worker) {
    return RequestBit(worker) | TimeBit(worker);
}

/** The condition variable that each worker waited for last. */
std::array<std::atomic<pthread_cond_t*>, GAIN_HANDLER_COUNT> conditions = {};
/** In nanoseconds. */
std::array<std::atomic<long>, GAIN_HANDLER_COUNT> longestSteps = {};
/** In nanoseconds. */
std::array<std::atomic<long>, GAIN_HANDLER_COUNT> latestSteps = {};
std::atomic<bool> recordsNotifications = false;
std::atomic<bool> skipsStepTimes = false;
/** The action with which the next pause begins. Only the thread of the test uses it. */
std::function<void()> pauseAction;
/** The worker whose steps have no end in time. */
std::atomic<int> endlessWorker = GAIN_HANDLER_NONE;

/** The worker that the calling thread is; it learns that when it names itself. */
thread_local int thisWorker = GAIN_HANDLER_NONE;

/** How many of this thread's next sleeps a signal interrupts. */
thread_local int interruptions = 0;

/** The library's function that a function of this program replaces. */
template <typename Function>
Function* Library(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/** @return false if the deadline has passed */
bool SleepUntilChange(Bits seen, clockid_t clock, const timespec* deadline) {
    const int operation = FUTEX_WAIT_BITSET_PRIVATE | (clock == CLOCK_REALTIME ? FUTEX_CLOCK_REALTIME : 0);
    return syscall(SYS_futex, &state, operation, seen, deadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno != ETIMEDOUT;
}

void ReportChange() {
    syscall(SYS_futex, &state, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

/** Whether the calling thread is a worker that waits for its own condition variable, and not inside a hook. */
bool IsWorkerWait() {
    return thisWorker != GAIN_HANDLER_NONE && !FakeSeam::IsInsideHook() &&
           (state.load(std::memory_order_relaxed) & WaitBits(thisWorker)) == 0;
}

long NanosecondsUntil(clockid_t clock, const timespec& deadline) {
    constexpr long SECOND = 1'000'000'000;
    timespec now = {};
    clock_gettime(clock, &now);
    return (deadline.tv_sec - now.tv_sec) * SECOND + deadline.tv_nsec - now.tv_nsec;
}

/** Whether a wait for this time is to end at once. */
bool IsSkipped(long nanoseconds) {
    constexpr long LONGEST_STEP = 100'000'000;
    return skipsStepTimes && nanoseconds <= LONGEST_STEP;
}

/** Waits as pthread_cond_clockwait does. */
int WaitAsWorker(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                 const timespec* deadline) {
    static constexpr timespec PAST = {};
    if (deadline != nullptr) {
        const long step = NanosecondsUntil(clock, *deadline);
        std::atomic<long>& longest = longestSteps[static_cast<std::size_t>(thisWorker)];
        longest = std::max(longest.load(), step);  // no other thread is this worker
        latestSteps[static_cast<std::size_t>(thisWorker)] = step;
        deadline = IsSkipped(step) ? &PAST : deadline;
    }
    const Bits bit = deadline == nullptr ? RequestBit(thisWorker) : TimeBit(thisWorker);
    conditions[static_cast<std::size_t>(thisWorker)].store(condition, std::memory_order_relaxed);
    state.fetch_add(ONE_WAIT | bit, std::memory_order_release);
    ReportChange();
    pthread_mutex_unlock(mutex);
    int result = 0;
    for (Bits seen = state.load(std::memory_order_relaxed); (seen & bit) != 0;
         seen = state.load(std::memory_order_relaxed)) {
        if (!SleepUntilChange(seen, clock, endlessWorker == thisWorker ? nullptr : deadline)) {
            const bool notified = (state.fetch_and(~bit, std::memory_order_relaxed) & bit) == 0;
            result = notified ? 0 : ETIMEDOUT;
            break;
        }
    }
    pthread_mutex_lock(mutex);
    return result;
}

void WakeWorkersOf(pthread_cond_t* condition) {
    for (int worker = GAIN_HANDLER_PULSE_RAMP; worker < GAIN_HANDLER_COUNT; ++worker) {
        if (conditions[static_cast<std::size_t>(worker)].load(std::memory_order_relaxed) != condition) {
            continue;
        }
        if (recordsNotifications) {
            FakeSeam::Get().Enter("notify", std::to_string(worker));
        }
        state.fetch_and(~WaitBits(worker), std::memory_order_relaxed);
        ReportChange();
    }
}

/** Waits until the state meets a condition, which is checked at each change of it. */
template <typename Condition>
bool WaitForState(Condition met, std::chrono::nanoseconds longest = PATIENCE) {
    const auto nanoseconds = (Clock::now() + longest).time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(nanoseconds);
    timespec deadline = {};
    deadline.tv_sec = seconds.count();
    deadline.tv_nsec = (nanoseconds - seconds).count();
    for (;;) {
        const Bits seen = state.load(std::memory_order_acquire);
        if (met(seen)) {
            return true;
        }
        if (!SleepUntilChange(seen, CLOCK_MONOTONIC, &deadline)) {
            return false;
        }
    }
}

/** Sleeps until all workers wait, for a request or for a time, but no longer than this. */
void PauseUntilAllWait(std::chrono::nanoseconds longest) {
    constexpr int TIMES = 8;  // the bits of waits for a time begin there
    if (const auto action = std::exchange(pauseAction, nullptr)) {
        action();
    }
    (void)WaitForState(
        [](Bits seen) { return ((seen | seen >> TIMES) & ALL_WAIT_FOR_REQUESTS) == ALL_WAIT_FOR_REQUESTS; },
        longest);
}

/** Sleeps for half of the time. */
int InterruptedSleep(const timespec* time, timespec* left) {
    --interruptions;
    timespec half = {};
    half.tv_nsec = time->tv_nsec / 2;
    clock_nanosleep(CLOCK_MONOTONIC, 0, &half, nullptr);
    *left = half;
    errno = EINTR;
    return -1;
}

}  // namespace

bool WorkersRest() {
    return WaitForState([](Bits seen) { return (seen & ALL_WAIT_FOR_REQUESTS) == ALL_WAIT_FOR_REQUESTS; });
}

bool WorkerWaits(eKVGainHandlerType worker, const std::string& lastEntry) {
    const Query entries = FakeSeam::Get().journal.All().Of(GainHandlerName[worker]);
    return WaitForState([&](Bits seen) {
        const std::vector<Entry> all = entries.Entries();
        return (seen & WaitBits(worker)) != 0 && !all.empty() && all.back().text == lastEntry;
    });
}

std::chrono::nanoseconds LongestStep(eKVGainHandlerType worker) {
    return std::chrono::nanoseconds(longestSteps[static_cast<std::size_t>(worker)]);
}

std::chrono::nanoseconds LatestStep(eKVGainHandlerType worker) {
    return std::chrono::nanoseconds(latestSteps[static_cast<std::size_t>(worker)]);
}

void NotifyWorker(eKVGainHandlerType worker) {
    pthread_cond_broadcast(conditions[static_cast<std::size_t>(worker)]);
}

void SkipStepTimes(bool skip) {
    skipsStepTimes = skip;
}

EndlessSteps::EndlessSteps(eKVGainHandlerType worker) {
    endlessWorker = worker;
}

EndlessSteps::~EndlessSteps() {
    endlessWorker = GAIN_HANDLER_NONE;
    state.fetch_add(ONE_WAIT);  // so that a worker in such a wait looks at its deadline again
    ReportChange();
}

void RecordNotifications(bool record) {
    recordsNotifications = record;
}

void AtPause(std::function<void()> action) {
    pauseAction = std::move(action);
}

void InterruptSleeps(int count) {
    interruptions = count;
}

int InterruptionsToCome() {
    return interruptions;
}

}  // namespace fake

using fake::IsWorkerWait;
using fake::Library;
using fake::WaitAsWorker;
using fake::WakeWorkersOf;

extern "C" {

int pthread_setname_np(pthread_t thread, const char* name) noexcept {
    static auto* const setName = Library<decltype(pthread_setname_np)>("pthread_setname_np");
    const auto found = std::ranges::find(GainHandlerName, name);
    if (pthread_equal(thread, pthread_self()) != 0 && found != GainHandlerName.end()) {
        fake::thisWorker = static_cast<int>(found - GainHandlerName.begin());
        fake::longestSteps[static_cast<std::size_t>(fake::thisWorker)] = 0;
    }
    return setName(thread, name);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    static auto* const wait = Library<decltype(pthread_cond_wait)>("pthread_cond_wait");
    return IsWorkerWait() ? WaitAsWorker(condition, mutex, CLOCK_MONOTONIC, nullptr) : wait(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    static auto* const wait = Library<decltype(pthread_cond_timedwait)>("pthread_cond_timedwait");
    return IsWorkerWait() ? WaitAsWorker(condition, mutex, CLOCK_REALTIME, deadline)
                          : wait(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    static auto* const wait = Library<decltype(pthread_cond_clockwait)>("pthread_cond_clockwait");
    return IsWorkerWait() ? WaitAsWorker(condition, mutex, clock, deadline)
                          : wait(condition, mutex, clock, deadline);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    static auto* const broadcast = Library<decltype(pthread_cond_broadcast)>("pthread_cond_broadcast");
    WakeWorkersOf(condition);
    return broadcast(condition);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    static auto* const signal = Library<decltype(pthread_cond_signal)>("pthread_cond_signal");
    WakeWorkersOf(condition);
    return signal(condition);
}

int nanosleep(const timespec* time, timespec* left) {
    constexpr long PAUSE = 200'000'000;  // of the end of a gain controller
    if (fake::interruptions > 0) {
        return fake::InterruptedSleep(time, left);
    }
    if (time->tv_sec == 0 && time->tv_nsec == PAUSE) {
        fake::PauseUntilAllWait(std::chrono::nanoseconds(PAUSE));
        return 0;
    }
    static auto* const sleep = Library<decltype(nanosleep)>("nanosleep");
    return sleep(time, left);
}

}  // extern "C"
