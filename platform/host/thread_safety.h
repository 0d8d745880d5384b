// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Mutexes whose use clang checks at compile time (-Wthread-safety). Each derives from the standard mutex that
 * it names. Other compilers ignore the annotations.
 */
#ifndef KAVREL_HOST_THREAD_SAFETY_H
#define KAVREL_HOST_THREAD_SAFETY_H

#include <mutex>

#ifdef __clang__
#define LOCK_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define LOCK_ATTRIBUTE(attribute)
#endif
#define CAPABILITY(name) LOCK_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY LOCK_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) LOCK_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) LOCK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) LOCK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) LOCK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) LOCK_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))

namespace host {

template <class Base>
class CAPABILITY("mutex") AnnotatedMutex : public Base {
public:
    void lock() ACQUIRE() { Base::lock(); }
    void unlock() RELEASE() { Base::unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return Base::try_lock(); }
};

using Mutex = AnnotatedMutex<std::mutex>;
using RecursiveMutex = AnnotatedMutex<std::recursive_mutex>;

/** Holds a mutex until the end of its scope. */
template <class Kind>
class SCOPED_CAPABILITY Guard {
public:
    explicit Guard(Kind& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~Guard() RELEASE() { m_mutex.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    Kind& m_mutex;
};

}  // namespace host

#endif
