// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <string>

#include "Commands.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "ReadFile.h"
#include "Scenario.h"
#include "Stage.h"

/** The tour, compiled in from scenarios/tour.txt. */
extern "C" const char kavrel_tour_scenario[];

namespace tv {

namespace {

int Play(const std::string& directory, const Scenario& scenario, bool isFast) {
    OpenTv(directory);
    tools::MainLoop loop;
    Stage(loop, directory, isFast ? Pace::FAST : Pace::AS_WRITTEN).Play(scenario);
    return tools::EXIT_DONE;
}

struct PlayCommand {
    std::string file;
    bool isFast = false;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE", file, "The scenario")->required();
        command.add_flag("--fast", isFast, "Leave out times and pauses");
    }
    int Run(const std::string& directory) const {
        return Play(directory, ParseScenario(file, ReadFile(file)), isFast);
    }
};

struct TourCommand {
    bool isFast = false;

    void AddOptions(CLI::App& command) { command.add_flag("--fast", isFast, "Leave out pauses"); }
    int Run(const std::string& directory) const {
        return Play(directory, ParseScenario("tour", kavrel_tour_scenario), isFast);
    }
};

}  // namespace

void AddPlayAndTour(tools::CommandLine& line, const Options& options) {
    AddCommand<PlayCommand>(line, options,
                            {"play",
                             "Play a scenario and check what it expects\n\n"
                             "Lines are played in order; a number in front is the earliest time in seconds:\n"
                             "  0.5 route hdmi                       any verb of this tool\n"
                             "  call SetSpeakerVolume 30 -> 0        a method and its expected answer:\n"
                             "  call GetSpeakerVolume -> 30 0        a status, or a value and a status\n"
                             "  emit BudsDisconnected 0              a signal for kavreld\n"
                             "  expect signal SpeakerVolumeChanged 3 40 within 1\n"
                             "  expect no signal SpeakerMuteChanged * * within 0.5, or the name alone\n"
                             "  expect value audio/master_volume 30  a file of the TV directory\n"
                             "  expect output hdmi                   waits until kavreld follows the output\n"
                             "  expect gain main 20, expect fade main\n"
                             "  say TEXT, pause SECONDS, settle SECONDS, # comment\n"
                             "The first step that fails ends the scenario with exit status 1.",
                             "kavrel-tv play scenarios/volume.txt"});
    AddCommand<TourCommand>(line, options,
                            {"tour",
                             "Show all that kavreld does, in about a minute\n\n"
                             "Every step is checked. The tour needs kavreld and the external outputs'\n"
                             "components (kavrel-tv devices); ./run starts both.",
                             "kavrel-tv tour\n./run kavrel-tv tour"});
}

}  // namespace tv
