// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The commands, a file for each group of them: each adds its own to the command line. */
#ifndef KAVREL_TV_COMMANDS_H
#define KAVREL_TV_COMMANDS_H

#include <string>

#include "CommandLine.h"

namespace tv {

/** What stands before the command. */
struct Options {
    std::string directory;
};

void AddShow(tools::CommandLine& line, const Options& options);
void AddWatch(tools::CommandLine& line, const Options& options);
/** One verb for each thing that can happen to a TV. */
void AddVerbs(tools::CommandLine& line, const Options& options);
void AddDevices(tools::CommandLine& line, const Options& options);
void AddEmulator(tools::CommandLine& line);
void AddPlay(tools::CommandLine& line, const Options& options);
void AddTour(tools::CommandLine& line, const Options& options);
void AddRecord(tools::CommandLine& line, const Options& options);
void AddPlot(tools::CommandLine& line);

}  // namespace tv

#endif
