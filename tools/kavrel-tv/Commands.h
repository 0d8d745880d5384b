// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The commands: each function adds its own to the command line. */
#ifndef KAVREL_TV_COMMANDS_H
#define KAVREL_TV_COMMANDS_H

#include <functional>
#include <memory>
#include <string>

#include "CommandLine.h"

namespace tv {

/** The help page of a command; the examples are whole command lines. */
struct About {
    std::string name;
    std::string description;
    std::string examples;
};

/** Adds a command: a struct whose AddOptions() binds its members to arguments, and whose Run() gives the exit code. */
template <typename Command>
void AddCommand(tools::CommandLine& line, const std::string& directory, const About& about) {
    const auto command = std::make_shared<Command>();
    const auto run = [command, &directory] { return command->Run(directory); };
    command->AddOptions(line.AddCommand(about.name, about.description, about.examples, run));
}

/** Changes the open TV. @throws tools::ToolError */
using Change = std::function<void()>;

/** Adds a verb's subcommand. @param parsed returns the change that the last words ask for
 *  @return the subcommand, to add arguments to */
using AddVerb = std::function<CLI::App&(const About& about, std::function<Change()> parsed)>;

/** Adds the verbs, one for each thing that can change on a TV; lines of scenarios are verbs, too. */
void AddVerbs(const AddVerb& add);

void AddShowAndWatch(tools::CommandLine& line, const std::string& directory);
void AddVerbs(tools::CommandLine& line, const std::string& directory);
void AddDevices(tools::CommandLine& line, const std::string& directory);
void AddEmulator(tools::CommandLine& line, const std::string& directory);
void AddPlayAndTour(tools::CommandLine& line, const std::string& directory);
void AddRecord(tools::CommandLine& line, const std::string& directory);
void AddPlot(tools::CommandLine& line, const std::string& directory);

}  // namespace tv

#endif
