// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_DEADLINE_H
#define KAVREL_TOOLS_DEADLINE_H

#include <gio/gio.h>

#include <chrono>
#include <optional>
#include <string>

#include "GLibPtr.h"

namespace tools {

/** The longest wait for an answer; nothing: no limit. */
using Timeout = std::optional<std::chrono::milliseconds>;

/** "0.2 s". */
std::string InSeconds(std::chrono::milliseconds time);

/** Cancels an operation of GIO when its time is over. The default main context must run meanwhile. */
class Deadline {
public:
    explicit Deadline(Timeout timeout);

    GCancellable* Cancellable() const { return m_cancellable.get(); }
    bool IsOver() const { return g_cancellable_is_cancelled(m_cancellable.get()) == TRUE; }

private:
    GLibPtr<GCancellable> m_cancellable;
    GLibPtr<GSource> m_timer;
};

}  // namespace tools

#endif
