// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Tool.h"

int main(int argc, char** argv) {
    ctl::Tool tool;
    ctl::AddPropertyCommands(tool);
    ctl::AddGainCommands(tool);
    ctl::AddConnectionCommands(tool);
    ctl::AddMonitorCommand(tool);
    ctl::AddReportCommand(tool);
    return tool.Run(argc, argv);
}
