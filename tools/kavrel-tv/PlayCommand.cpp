// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <memory>
#include <string>

#include "Commands.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "ReadFile.h"
#include "Scenario.h"
#include "Stage.h"

/** The tour, compiled in from the scenario that is installed, too. */
extern "C" const char kavrel_tour_scenario[];

namespace tv {

namespace {

int Play(const std::string& name, std::string_view text, const std::string& directory, bool isFast) {
    const Scenario scenario = ParseScenario(name, text);
    OpenTv(directory);
    tools::MainLoop loop;
    Stage stage(loop, directory, isFast ? Pace::FAST : Pace::AS_WRITTEN);
    stage.Play(scenario);
    return tools::EXIT_DONE;
}

}  // namespace

void AddPlay(tools::CommandLine& line, const Options& options) {
    auto file = std::make_shared<std::string>();
    auto isFast = std::make_shared<bool>(false);
    CLI::App& play = line.AddCommand(
        "play",
        "play a scenario, and check what it expects\n\n"
        "One line an event, done in order, not before the number of seconds in front:\n"
        "  0.5 route hdmi                       any verb of this tool\n"
        "  call SetSpeakerVolume 30 -> 0        a method, and what it is to answer:\n"
        "  call GetSpeakerVolume -> 30 0        a status, or a value and a status\n"
        "  emit BudsDisconnected 0              a signal for kavreld\n"
        "  expect signal SpeakerVolumeChanged 3 40 within 1\n"
        "  expect no signal SpeakerMuteChanged * * within 0.5, or the name alone\n"
        "  expect value audio/master_volume 30  a file of the TV directory\n"
        "  expect output hdmi                   until kavreld follows it\n"
        "  expect gain main 20, expect fade main\n"
        "  say TEXT, pause SECONDS, settle SECONDS, # comment\n"
        "Ends at the first step that fails, with exit status 1.",
        "kavrel-tv play scenarios/volume.txt",
        [&options, file, isFast] { return Play(*file, ReadFile(*file), options.directory, *isFast); });
    play.add_option("FILE", *file, "the scenario")->required();
    play.add_flag("--fast", *isFast, "without times and pauses");
}

void AddTour(tools::CommandLine& line, const Options& options) {
    auto isFast = std::make_shared<bool>(false);
    line.AddCommand(
            "tour",
            "be shown all that kavreld does, in about a minute\n\n"
            "Every step is checked. Needs kavreld and the external outputs' components\n"
            "(kavrel-tv devices); ./run starts both.",
            "kavrel-tv tour\n./run kavrel-tv tour",
            [&options, isFast] { return Play("tour", kavrel_tour_scenario, options.directory, *isFast); })
        .add_flag("--fast", *isFast, "without pauses");
}

}  // namespace tv
