// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <string>

#include "Commands.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Recorder.h"

namespace tv {

namespace {

struct RecordCommand {
    RecordingOptions options;

    void AddOptions(CLI::App& command) {
        options.AddFile(command, "FILE");
        tools::AddSeconds(command, options.seconds);
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        return Recorder(loop, options.file, Recorder::Content::CHANGES).RunFor(options.seconds);
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
