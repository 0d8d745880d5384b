// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Mutexes whose use clang checks at compile time (-Wthread-safety). Each derives from the standard mutex that
 * it names, so every standard lock and condition variable takes it. Other compilers ignore the annotations.
 */
#ifndef KVMUTEX_H
#define KVMUTEX_H

#include <mutex>

#ifdef __clang__
#define KV_LOCK_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define KV_LOCK_ATTRIBUTE(attribute)
#endif
#define KV_CAPABILITY(name) KV_LOCK_ATTRIBUTE(capability(name))
#define KV_SCOPED_CAPABILITY KV_LOCK_ATTRIBUTE(scoped_lockable)
#define KV_GUARDED_BY(mutex) KV_LOCK_ATTRIBUTE(guarded_by(mutex))
#define KV_REQUIRES(...) KV_LOCK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KV_ACQUIRE(...) KV_LOCK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KV_TRY_ACQUIRE(...) KV_LOCK_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define KV_RELEASE(...) KV_LOCK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KV_NO_LOCK_ANALYSIS KV_LOCK_ATTRIBUTE(no_thread_safety_analysis)

namespace NKavrel {

template <class Base>
class KV_CAPABILITY("mutex") KVAnnotated : public Base {
public:
    void lock() KV_ACQUIRE() { Base::lock(); }
    void unlock() KV_RELEASE() { Base::unlock(); }
    bool try_lock() KV_TRY_ACQUIRE(true) { return Base::try_lock(); }
};

using KVMutex = KVAnnotated<std::mutex>;
using KVTimedMutex = KVAnnotated<std::timed_mutex>;
using KVRecursiveMutex = KVAnnotated<std::recursive_mutex>;

/** Holds a mutex until the end of its scope. */
template <class Mutex>
class KV_SCOPED_CAPABILITY KVLockGuard {
public:
    explicit KVLockGuard(Mutex& mutex) KV_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    /** Takes over a mutex that the caller has locked already. */
    KVLockGuard(Mutex& mutex, std::adopt_lock_t /*locked*/) KV_REQUIRES(mutex) : m_mutex(mutex) {}
    ~KVLockGuard() KV_RELEASE() { m_mutex.unlock(); }
    KVLockGuard(const KVLockGuard&) = delete;
    KVLockGuard& operator=(const KVLockGuard&) = delete;

private:
    Mutex& m_mutex;
};

}  // namespace NKavrel

#endif
