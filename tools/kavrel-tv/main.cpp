// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <clocale>

#include "CommandLine.h"
#include "Commands.h"

namespace {

constexpr const char* FOOTER = R"(Example:
  kavrel-tv route hdmi

Exit status: 0 done, 1 refused or failed, 2 no TV directory, no bus or no
daemon, 64 wrong usage; 130 when Ctrl-C has ended what was not done.
Colours are for a terminal alone, and only without NO_COLOR.)";

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    tools::CommandLine line("kavrel-tv", "Plays the rest of the TV on the TV directory.", FOOTER);
    tv::Options options{"/run/kavrel"};
    line.App()
        .add_option("--dir", options.directory, "the TV directory (default: /run/kavrel)")
        ->type_name("DIR")
        ->envname("KAVREL_TV_DIR");
    line.App().fallthrough();
    tv::AddShow(line, options);
    tv::AddWatch(line, options);
    tv::AddVerbs(line, options);
    tv::AddDevices(line, options);
    tv::AddEmulator(line);
    tv::AddPlay(line, options);
    tv::AddTour(line, options);
    tv::AddRecord(line, options);
    tv::AddPlot(line);
    return line.Run(argc, argv);
}
