// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <Platform.h>

#include <clocale>
#include <exception>

#include "Bridge.h"
#include "Cleaner.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Errors.h"
#include "PulseServer.h"
#include "Settings.h"

namespace {

constexpr const char* FOOTER = R"(Examples:
  kavrel-sound
  kavrel-sound --output bt=SINK --sub SINK

Exit status: 0 done, 1 refused or failed, 2 no TV directory or no sound server,
64 wrong usage, 77 the TV directory does not allow it; 130 if Ctrl-C ended a
command before it was done. Ctrl-C is the usual end without a command: then the
exit status is 0.)";

/** Plays until Ctrl-C or an error, and leaves the server as it was. */
int Play(const std::string& directory, const sound::Settings& settings) {
    tv::OpenTv(directory);
    sound::Claim claim(settings);
    int status = tools::EXIT_DONE;
    std::exception_ptr error;
    try {
        tools::MainLoop loop;
        sound::PulseServer server(loop, settings.server);
        const sound::Bridge bridge(server, directory, settings, claim);
        status = loop.RunUntilInterrupted();
    } catch (...) {
        error = std::current_exception();
    }
    tools::MainLoop loop;
    sound::PulseServer server(loop, settings.server);
    sound::RemoveFromServer(server, claim.DefaultSink());
    if (error) {
        std::rethrow_exception(error);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there is no other thread yet
    tools::CommandLine line("kavrel-sound", "Play the TV's sound on a sound server, until Ctrl-C.", FOOTER);
    sound::Scene scene;
    line.App()
        .add_option("--dir", scene.directory, "Name the TV directory (default: /run/kavrel)")
        ->type_name("DIR")
        ->envname("KAVREL_TV_DIR");
    scene.settings.AddOptions(line.App());
    line.App().fallthrough();
    sound::AddOutputs(line, scene);
    sound::AddStatus(line, scene);
    sound::AddTone(line, scene);
    sound::AddHear(line, scene);
    line.SetDefault([&] { return Play(scene.directory, scene.settings); });
    return line.Run(argc, argv);
}
