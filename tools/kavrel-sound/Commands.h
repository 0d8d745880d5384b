// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The commands: each function adds its own to the command line. */
#ifndef KAVREL_SOUND_COMMANDS_H
#define KAVREL_SOUND_COMMANDS_H

#include <string>

#include "CommandLine.h"
#include "Server.h"
#include "Settings.h"

namespace sound {

/** The arguments that come before every command. */
struct Scene {
    std::string directory = "/run/kavrel";
    Settings settings;
};

/** The settings of the bridge that runs on the open TV, unless the command line names outputs of its own. */
Settings SettingsInForce(const Settings& given);

/** Looks at the server once. @throws tools::ToolError if there is none */
Snapshot AskServer(const std::string& server);

void AddOutputs(tools::CommandLine& line, const Scene& scene);
void AddStatus(tools::CommandLine& line, const Scene& scene);
void AddTone(tools::CommandLine& line, const Scene& scene);
void AddHear(tools::CommandLine& line, const Scene& scene);

}  // namespace sound

#endif
