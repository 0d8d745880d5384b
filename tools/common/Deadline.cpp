// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Deadline.h"

#include "Print.h"

namespace tools {

std::string InSeconds(std::chrono::milliseconds time) {
    return Formatted("%g s", static_cast<double>(time.count()) / 1000.0);
}

Deadline::Deadline(Timeout timeout) : m_cancellable(g_cancellable_new()) {
    if (!timeout) {
        return;
    }
    const auto cancel = [](void* cancellable) -> gboolean {
        g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
        return G_SOURCE_REMOVE;
    };
    m_timer.reset(g_timeout_source_new(static_cast<guint>(timeout->count())));
    g_source_set_callback(m_timer.get(), cancel, m_cancellable.get(), nullptr);
    g_source_attach(m_timer.get(), nullptr);
}

}  // namespace tools
