// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_TOOL_H
#define KAVRELCTL_TOOL_H

#include <memory>
#include <string>

#include "CommandLine.h"
#include "KavrelClient.h"

namespace ctl {

/** The command line of kavrelctl, with the option that all commands share. */
class Tool : public tools::CommandLine {
public:
    Tool();

    /**
     * Adds a command, whose struct holds its arguments and has two functions: AddArguments(CLI::App&) declares
     * them, and Run(const Tool&) acts on them and returns the exit code.
     * @param group of AddGroup(); null for a command without a group
     */
    template <typename Command>
    void Add(const char* name, const char* description, const char* example, CLI::App* group = nullptr) {
        const auto command = std::make_shared<Command>();
        const auto run = [this, command] { return command->Run(*this); };
        CLI::App& app = AddCommand(name, description, example, run, group);
        AddTimeout(app);
        command->AddArguments(app);
    }

    /** The time limit of each call that the user asked for. */
    tools::Timeout Timeout() const;
    /** @throws tools::ToolError if there is no bus, or it does not answer in time */
    tools::KavrelClient Connect() const { return tools::KavrelClient(Timeout(), tools::WhenBusy::TRY_AGAIN); }

private:
    void AddTimeout(CLI::App& command);

    double m_seconds = 5;
};

/** Adds the option --json. */
void AddJson(CLI::App& command, bool& asJson);

/** @param complaint what a status below 0 means: "the volume was not set"
 *  @throws tools::ToolError with the complaint and the status in words, if it is below 0 */
void ThrowIfFailed(int status, const std::string& complaint);

void AddPropertyCommands(Tool& tool);
void AddGainCommands(Tool& tool);
void AddConnectionCommands(Tool& tool);
void AddMonitorCommand(Tool& tool);
void AddReportCommand(Tool& tool);

}  // namespace ctl

#endif
