// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A library that `./test shake` preloads: it now and then holds a thread where threads meet, before and after a
 * lock, an unlock, a wait, a notification, and at the start of a thread. So a test or a program that relies on
 * which thread comes first fails soon.
 *
 * KAVREL_SHAKE is the seed. Which calls are held depends on it, on the arguments of the program, on the test
 * that started it, and on the number of the thread; the system still decides which thread runs when.
 */
#include <dlfcn.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto LONGEST = 60ms;
constexpr std::uint64_t ONE_IN = 100;  // calls, of which one is held
constexpr int REST = 2;  // how many times as long as a hold the thread then runs undisturbed, at least

/** How the names of our programs begin: threads of the bus, Python, the shell and the compiler are not held. */
constexpr std::array<std::string_view, 5> PROGRAMS = {"kavrel", "unit", "component", "fuzz", "host-"};

std::uint64_t seed = 0;  // 0 means that this program runs undisturbed
std::atomic<std::uint64_t> threads = 0;
thread_local std::uint64_t state = 0;
thread_local Clock::time_point next;  // the earliest time of this thread's next hold

/** The n-th number of the sequence that begins with any number: a well mixed one. */
std::uint64_t Mixed(std::uint64_t number) {
    number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
    number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
    return number ^ (number >> 31U);
}

std::uint64_t Mixed(std::uint64_t number, std::string_view text) {
    for (const char letter : text) {
        number = Mixed(number + static_cast<unsigned char>(letter) + 1);
    }
    return number;
}

std::uint64_t Random() {
    if (state == 0) {
        state = Mixed(seed + ++threads) | 1U;
    }
    state += 0x9E3779B97F4A7C15U;
    return Mixed(state);
}

/** Short holds are the most: the cube of an even random part. */
Clock::duration RandomTime() {
    constexpr std::uint64_t PARTS = 1000;
    const std::uint64_t part = Random() % PARTS + 1;
    return std::chrono::nanoseconds(LONGEST) * (part * part * part) / (PARTS * PARTS * PARTS);
}

/**
 * Holds the calling thread now and then, for a third of its time at most. The thread stays runnable, like one
 * that gets no processor: the tests take a thread that sleeps in the kernel for one that has nothing to do.
 */
void Shake() {
    if (seed == 0 || Random() % ONE_IN != 0) {
        return;
    }
    const auto begin = Clock::now();
    if (begin < next) {
        return;
    }
    const int error = errno;
    const auto time = RandomTime();
    while (Clock::now() < begin + time) {
        sched_yield();
    }
    next = begin + time + REST * time;
    errno = error;
}

/** Calls a function with a hold before and after it. */
template <typename Function, typename... Arguments>
auto Shaken(Function* function, Arguments... arguments) {
    Shake();
    const auto result = function(arguments...);
    Shake();
    return result;
}

/** A name as a template argument. */
template <std::size_t SIZE>
struct Name {
    constexpr Name(const char (&literal)[SIZE])  // not explicit: a literal becomes an argument
    {
        std::ranges::copy(literal, text);
    }
    char text[SIZE] = {};
};

/** The function that this library's function NAME replaces. */
template <Name NAME, typename Function>
Function* Next(Function* /*ours*/) {
    static auto* const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, NAME.text));
    return next;
}

struct Start {
    void* (*body)(void*);
    void* argument;
};

void* Run(void* data) {
    const std::unique_ptr<Start> start(static_cast<Start*>(data));
    Shake();
    return start->body(start->argument);
}

__attribute__((constructor)) void ReadSeed(int count, char** arguments, char** /*environment*/) {
    const char* const given = std::getenv("KAVREL_SHAKE");
    const auto isThisOne = [](std::string_view program) {
        return std::string_view(program_invocation_short_name).starts_with(program);
    };
    if (given == nullptr || std::ranges::none_of(PROGRAMS, isThisOne)) {
        return;
    }
    const char* const test = std::getenv("PYTEST_CURRENT_TEST");
    std::uint64_t mixed = Mixed(Mixed(1, given), test == nullptr ? "" : test);
    for (int i = 0; i < count; ++i) {
        mixed = Mixed(mixed, arguments[i]);
    }
    seed = mixed | 1U;
}

}  // namespace

// The library's functions, with holds.
extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    return Shaken(Next<"pthread_mutex_lock">(pthread_mutex_lock), mutex);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    return Shaken(Next<"pthread_mutex_trylock">(pthread_mutex_trylock), mutex);
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline) noexcept {
    return Shaken(Next<"pthread_mutex_timedlock">(pthread_mutex_timedlock), mutex, deadline);
}

int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) noexcept {
    return Shaken(Next<"pthread_mutex_clocklock">(pthread_mutex_clocklock), mutex, clock, deadline);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    return Shaken(Next<"pthread_mutex_unlock">(pthread_mutex_unlock), mutex);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    return Shaken(Next<"pthread_cond_signal">(pthread_cond_signal), condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    return Shaken(Next<"pthread_cond_broadcast">(pthread_cond_broadcast), condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return Shaken(Next<"pthread_cond_wait">(pthread_cond_wait), condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    return Shaken(Next<"pthread_cond_timedwait">(pthread_cond_timedwait), condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    return Shaken(Next<"pthread_cond_clockwait">(pthread_cond_clockwait), condition, mutex, clock, deadline);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
    auto start = std::make_unique<Start>(Start{body, argument});
    const int result = Next<"pthread_create">(pthread_create)(thread, attributes, Run, start.get());
    if (result == 0) {
        static_cast<void>(start.release());  // the thread owns it
    }
    Shake();
    return result;
}

/** GLib's locks and std::atomic's waits call this one for their futexes. */
long syscall(long number, ...) noexcept {
    va_list list;
    va_start(list, number);
    std::array<long, 6> arguments = {};  // every system call takes at most six; the kernel ignores the rest
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    const auto call = [&] {
        return Next<"syscall">(syscall)(number, arguments[0], arguments[1], arguments[2], arguments[3],
                                        arguments[4], arguments[5]);
    };
    if (number != SYS_futex) {
        return call();
    }
    Shake();
    const long result = call();
    Shake();
    return result;
}

}  // extern "C"
