// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <chrono>
#include <optional>
#include <string>

#include "Commands.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Recorder.h"

namespace tv {

namespace {

struct RecordCommand {
    std::string file;
    std::optional<double> seconds;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE", file, "The recording, an old one is replaced;\n- for standard output")
            ->required();
        command.add_option("--seconds", seconds, "End after 0.001 to 86400 seconds (default: at Ctrl-C)")
            ->type_name("S")
            ->transform(tools::DecimalNumber(0.001, 86400));
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        Recorder recorder(loop, file, Recorder::Content::CHANGES);
        tools::GLibPtr<GSource> end;
        if (seconds) {
            const std::chrono::duration<double> time(*seconds);
            end = loop.After(std::chrono::ceil<std::chrono::milliseconds>(time),
                             [&loop] { loop.Quit(tools::EXIT_DONE); });
        } else {
            tools::Complain("recording until Ctrl-C");
        }
        const int status = loop.RunUntilInterrupted();
        recorder.End();
        return status;
    }
};

}  // namespace

void AddRecord(tools::CommandLine& line, const std::string& directory) {
    AddCommand<RecordCommand>(
        line, directory,
        {"record",
         "Record gains, volume, mute and the output over time\n\n"
         "The recording has comma-separated values, a line for each change and event:\n"
         "  seconds                     since the recording began\n"
         "  main_gain, sub_gain         of the outputs of the audio hardware, in percent\n"
         "  volume, mute                the TV's master volume, and mute: 1 on, 0 off\n"
         "  output                      the output in use, by the name of its route\n"
         "  output_level, output_mute   its own volume and mute; those of the TV for an\n"
         "                              output that is not external\n"
         "  event                       what else changed; start, end\n"
         "A cell is empty if its value cannot be read, or the output has no volume.",
         "kavrel-tv record --seconds 5 fade.csv"});
}

}  // namespace tv
