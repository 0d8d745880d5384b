// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Tool.h"

#include <chrono>
#include <cmath>

#include "Errors.h"

namespace ctl {

namespace {

constexpr const char* FOOTER = R"(Examples:
  kavrelctl status
  kavrelctl volume +5
  kavrelctl monitor --calls

Exit status: 0 done; 1 the daemon refused or failed; 2 no daemon, no bus or no
answer in time; 64 wrong usage; 75 bus or daemon too busy, try again; 77 the bus
does not allow it: it needs root or the group audio; 130 Ctrl-C ended a wait.
kavrelctl tries a busy daemon again for a moment, and never starts it.

Environment: DBUS_SYSTEM_BUS_ADDRESS names another bus than the system's;
KAVREL_TV_DIR, another TV directory than /run/kavrel; NO_COLOR, if not empty,
turns colours off.)";

constexpr double MOST_SECONDS = 1e6;

}  // namespace

Tool::Tool() : CommandLine("kavrelctl", "Read, set and watch the TV's volume, mute and gains.", FOOTER) {
    AddTimeout(App());
}

tools::Timeout Tool::Timeout() const {
    if (m_seconds == 0) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(static_cast<long>(std::ceil(m_seconds * 1000)));
}

void Tool::AddTimeout(CLI::App& command) {
    command.add_option("--timeout", m_seconds, "Wait so long for an answer; 0: no limit (default: 5)")
        ->type_name("SECONDS")
        ->transform(tools::DecimalNumber(0, MOST_SECONDS));
}

void AddJson(CLI::App& command, bool& asJson) {
    command.add_flag("--json", asJson, "Print one JSON object on one line");
}

void ThrowIfFailed(int status, const std::string& complaint) {
    if (status < 0) {
        throw tools::ToolError(tools::EXIT_REFUSED, complaint + ": " + tools::StatusInWords(status));
    }
}

}  // namespace ctl
