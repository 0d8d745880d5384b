// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Tool.h"

#include <chrono>
#include <cmath>
#include <utility>

#include "Errors.h"

namespace ctl {

namespace {

constexpr const char* FOOTER = R"(Examples:
  kavrelctl status
  kavrelctl volume +5
  kavrelctl monitor --calls

Exit status: 0 done; 1 the daemon refused or failed; 2 no daemon, no bus or no
answer in time; 64 wrong usage; 130 when Ctrl-C has ended a wait. kavrelctl
never starts the daemon.

Environment: DBUS_SYSTEM_BUS_ADDRESS names another bus than the system's;
NO_COLOR, if not empty, keeps the terminal plain.)";

constexpr double MOST_SECONDS = 1e6;

}  // namespace

Tool::Tool() : m_line("kavrelctl", "Reads, sets and watches the TV's volume, mute and gains.", FOOTER) {
    OfferTimeout(m_line.App());
}

CLI::App& Tool::AddCommand(const std::string& name, const std::string& description,
                           const std::string& example, tools::CommandLine::Action action) {
    return AddCommand(m_line.App(), name, description, example, std::move(action));
}

CLI::App& Tool::AddCommand(CLI::App& group, const std::string& name, const std::string& description,
                           const std::string& example, tools::CommandLine::Action action) {
    CLI::App& command = m_line.AddCommand(group, name, description, example, std::move(action));
    OfferTimeout(command);
    return command;
}

CLI::App& Tool::AddGroup(const std::string& name, const std::string& description,
                         const std::string& example) {
    return m_line.AddGroup(name, description, example);
}

void Tool::OfferJson(CLI::App& command) {
    command.add_flag("--json", m_json, "one JSON object on one line");
}

void Tool::OfferTimeout(CLI::App& command) {
    command.add_option("--timeout", m_timeout, "at most so long for an answer, 0: no limit; else 5")
        ->type_name("SECONDS");
}

tools::KavrelClient::Timeout Tool::Timeout() const {
    const double seconds = tools::Decimal("SECONDS", m_timeout, 0, MOST_SECONDS);
    if (seconds == 0) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(static_cast<long>(std::ceil(seconds * 1000)));
}

void Require(int status, const std::string& what) {
    if (status < 0) {
        throw tools::ToolError(tools::EXIT_REFUSED, what + ": " + tools::StatusInWords(status));
    }
}

AudioPath PathOf(const std::string& output) {
    constexpr AudioPath PATHS[] = {MAIN_OUT, SUB_OUT, BOTH_OUT};
    return PATHS[tools::Choice("OUTPUT", output, {"main", "sub", "both"})];
}

}  // namespace ctl
