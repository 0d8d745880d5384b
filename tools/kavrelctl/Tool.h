// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_TOOL_H
#define KAVRELCTL_TOOL_H

#include <initializer_list>
#include <string>
#include <string_view>

#include "CommandLine.h"
#include "KavrelClient.h"

namespace ctl {

/**
 * What all commands of kavrelctl share: the command line with
 * its common options, and the way to the daemon.
 */
class Tool {
public:
    Tool();

    /** As those of CommandLine, with the option --timeout. */
    CLI::App& AddCommand(const std::string& name, const std::string& description, const std::string& example,
                         tools::CommandLine::Action action);
    CLI::App& AddCommand(CLI::App& group, const std::string& name, const std::string& description,
                         const std::string& example, tools::CommandLine::Action action);
    CLI::App& AddGroup(const std::string& name, const std::string& description, const std::string& example);
    /** Adds the option --json. */
    void OfferJson(CLI::App& command);

    int Run(int argc, char** argv) { return m_line.Run(argc, argv); }

    bool Json() const { return m_json; }
    /** Of each call; nothing: no limit. @throws tools::UsageError */
    tools::KavrelClient::Timeout Timeout() const;

private:
    void OfferTimeout(CLI::App& command);

    tools::CommandLine m_line;
    std::string m_timeout = "5";
    bool m_json = false;
};

/** A status below 0 ends the tool. @param what was tried: "the volume was not set"
 *  @throws tools::ToolError that tells both */
void Require(int status, const std::string& what);

/** The output that a gain belongs to, as the daemon's bit mask. */
enum AudioPath : int { MAIN_OUT = 1, SUB_OUT = 2, BOTH_OUT = 3 };
/** @throws tools::UsageError */
AudioPath PathOf(const std::string& output);

// One file for each group of commands; each adds its own. What they read their arguments into lives as long
// as the command line.
void AddStatusCommands(Tool& tool);
void AddVolumeCommands(Tool& tool);
void AddGainCommands(Tool& tool);
void AddConnectionCommands(Tool& tool);
void AddMonitorCommand(Tool& tool);

}  // namespace ctl

#endif
