// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_WATCHEDBODY_H
#define KAVREL_TESTS_WATCHEDBODY_H

#include <gio/gio.h>

#include <condition_variable>
#include <mutex>

#include "FakeSeam.h"

namespace fake {

/** Makes a message body "(7,)" and counts how often GLib frees it, on any thread. */
class WatchedBody {
public:
    GVariant* Floating() {
        const std::lock_guard lock(s_mutex);
        m_number = 7;
        return g_variant_new_from_data(G_VARIANT_TYPE("(i)"), &m_number, sizeof m_number, TRUE, OnFreed,
                                       this);
    }
    int TimesFreed() const {
        const std::lock_guard lock(s_mutex);
        return m_freed;
    }
    /**
     * Waits until the body is freed. Returns false if that takes too long or if it was freed more than once.
     */
    bool WaitUntilFreed() {
        std::unique_lock lock(s_mutex);
        return s_changed.wait_for(lock, PATIENCE, [this] { return m_freed > 0; }) && m_freed == 1;
    }

private:
    static void OnFreed(void* self) {
        const std::lock_guard lock(s_mutex);
        ++static_cast<WatchedBody*>(self)->m_freed;
        s_changed.notify_all();
    }

    // Shared by all bodies, so that they outlive GLib's thread, which frees a body after it has sent it. The
    // mutex also shows ThreadSanitizer the order of these accesses, since it does not see GLib's own
    // synchronization.
    static inline std::mutex s_mutex;
    static inline std::condition_variable s_changed;

    int m_number = 7;
    int m_freed = 0;
};

}  // namespace fake

#endif
