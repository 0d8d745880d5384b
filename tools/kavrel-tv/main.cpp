// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <clocale>

#include "CommandLine.h"
#include "Commands.h"

namespace {

constexpr const char* FOOTER = R"(Example:
  kavrel-tv route hdmi

Exit status: 0 done, 1 refused or failed, 2 no TV directory, no bus or no
daemon, 64 wrong usage, 75 bus or daemon too busy, 77 the bus or the TV
directory does not allow it; 130 if Ctrl-C ended a command before it was done.
Colours appear only on a terminal and only without NO_COLOR.)";

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    tools::CommandLine line("kavrel-tv", "Play the rest of the TV on the TV directory.", FOOTER);
    std::string directory = "/run/kavrel";
    line.App()
        .add_option("--dir", directory, "Name the TV directory (default: /run/kavrel)")
        ->type_name("DIR")
        ->envname("KAVREL_TV_DIR");
    line.App().fallthrough();
    tv::AddShowAndWatch(line, directory);
    tv::AddVerbs(line, directory);
    tv::AddDevices(line, directory);
    tv::AddEmulator(line, directory);
    tv::AddPlayAndTour(line, directory);
    tv::AddRecord(line, directory);
    tv::AddPlot(line, directory);
    return line.Run(argc, argv);
}
