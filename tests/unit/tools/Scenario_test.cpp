// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Scenario.h"

#include <gtest/gtest.h>

#include <string>
#include <variant>

#include "Errors.h"
#include "Print.h"

namespace tv {
namespace {

/** The one step of a scenario, which has to hold such an action. */
template <typename Kind>
Kind Parsed(const std::string& line) {
    const Scenario scenario = ParseScenario("some.txt", line + "\n");
    EXPECT_EQ(scenario.size(), 1U) << line;
    return std::get<Kind>(scenario.at(0).action);
}

std::string Refusal(const std::string& text) {
    try {
        static_cast<void>(ParseScenario("some.txt", text));
        return "";
    } catch (const tools::UsageError& error) {
        return error.what();
    }
}

TEST(ScenarioTest, ACallHasItsArgumentsAnswerAndTime) {
    const Call call = Parsed<Call>("call SetSpeakerVolume 30 -> 0 within 2");
    EXPECT_EQ(call.method, "SetSpeakerVolume");
    EXPECT_EQ(tools::Printed(call.arguments.get()), "(30,)");
    EXPECT_EQ(call.answer, Words{"0"});
    EXPECT_EQ(call.within, Seconds(2));
    EXPECT_EQ(Parsed<Call>("call GetSpeakerVolume -> * 0").answer, (Words{"*", "0"}));
    EXPECT_EQ(Parsed<Call>("call GetSpeakerVolume").answer, Words{});
    EXPECT_EQ(Parsed<Call>("call GetSpeakerVolume").within, Seconds(0));
    EXPECT_EQ(tools::Printed(Parsed<Call>("call SetSpeakerMute true").arguments.get()), "(true,)");
    EXPECT_EQ(tools::Printed(Parsed<Call>("call SetSpeakerMute FALSE").arguments.get()), "(false,)");
}

TEST(ScenarioTest, ASignalForTheDaemonHasItsArguments) {
    const Emit emit = Parsed<Emit>("emit SpkDisconnected 4 'Living room'");
    EXPECT_EQ(emit.signal, "SpkDisconnected");
    EXPECT_EQ(tools::Printed(emit.arguments.get()), "(4, 'Living room')");
    EXPECT_EQ(tools::Printed(Parsed<Emit>("emit ApplyPulseAudioGain 20 1000").arguments.get()), "(20, 1000)");
    EXPECT_EQ(tools::Printed(Parsed<Emit>("emit BudsConnected -7").arguments.get()), "(-7,)");
}

TEST(ScenarioTest, ASignalIsExpectedForFiveSecondsAndNoneForHalfASecond) {
    const ExpectSignal some = Parsed<ExpectSignal>("expect signal SpkVolumeChanged 3 15 *");
    EXPECT_EQ(some.signal, (Words{"SpkVolumeChanged", "3", "15", "*"}));
    EXPECT_TRUE(some.isExpected);
    EXPECT_EQ(some.within, Seconds(5));
    const ExpectSignal none = Parsed<ExpectSignal>("expect no signal SpeakerMuteChanged 3 true");
    EXPECT_EQ(none.signal, (Words{"SpeakerMuteChanged", "3", "true"}));
    EXPECT_FALSE(none.isExpected);
    EXPECT_EQ(none.within, Seconds(0.5));
    EXPECT_EQ(Parsed<ExpectSignal>("expect no signal SpeakerChangeRequest within 86400").within,
              Seconds(86400));
}

TEST(ScenarioTest, EachOtherExpectationHasItsValuesAndFiveSeconds) {
    const ExpectValue value = Parsed<ExpectValue>("expect value audio/master_volume '3 0'");
    EXPECT_EQ(value.path, "audio/master_volume");
    EXPECT_EQ(value.text, "3 0");
    EXPECT_EQ(value.within, Seconds(5));
    EXPECT_EQ(Parsed<ExpectOutput>("expect output HDMI").route, FindRoute(2));
    EXPECT_EQ(Parsed<ExpectOutput>("expect output 0").within, Seconds(5));
    const ExpectGain gain = Parsed<ExpectGain>("expect gain sub 100 within 0");
    EXPECT_EQ(gain.output, GainOutput::SUB);
    EXPECT_EQ(gain.gain, 100);
    EXPECT_EQ(gain.within, Seconds(0));
    EXPECT_EQ(Parsed<ExpectGain>("expect gain main 0").output, GainOutput::MAIN);
    EXPECT_EQ(Parsed<ExpectGain>("expect gain main 0").within, Seconds(5));
    EXPECT_EQ(Parsed<ExpectFade>("expect fade sub").output, GainOutput::SUB);
    EXPECT_EQ(Parsed<ExpectFade>("expect fade main").within, Seconds(5));
}

TEST(ScenarioTest, OnlySettleIsKeptInAFastScenario) {
    EXPECT_FALSE(Parsed<Pause>("pause 0.25").isKeptIfFast);
    EXPECT_EQ(Parsed<Pause>("pause 0.25").time, Seconds(0.25));
    EXPECT_TRUE(Parsed<Pause>("settle 3").isKeptIfFast);
    EXPECT_EQ(Parsed<Pause>("settle 3").time, Seconds(3));
}

TEST(ScenarioTest, ALineKeepsNothingOfTheLinesBeforeIt) {
    const Scenario scenario = ParseScenario("some.txt", "expect gain sub 50 within 1\nexpect gain sub 50\n");
    EXPECT_EQ(std::get<ExpectGain>(scenario.at(0).action).within, Seconds(1));
    EXPECT_EQ(std::get<ExpectGain>(scenario.at(1).action).within, Seconds(5));
}

TEST(ScenarioTest, AStepHasItsLineItsTextAndItsTime) {
    const Scenario scenario =
        ParseScenario("some.txt", "# comment\n\n  86400   say a 'b  c' # comment\nvolume 30");
    ASSERT_EQ(scenario.size(), 2U);
    EXPECT_EQ(scenario[0].place, "some.txt:3");
    EXPECT_EQ(scenario[0].text, "say a b  c");
    EXPECT_EQ(scenario[0].at, Seconds(86400));
    EXPECT_EQ(std::get<Say>(scenario[0].action).text, "a b  c");
    EXPECT_EQ(scenario[1].place, "some.txt:4");
    EXPECT_EQ(scenario[1].text, "volume 30");
    EXPECT_EQ(scenario[1].at, std::nullopt);
    EXPECT_TRUE(std::holds_alternative<Change>(scenario[1].action));
}

TEST(ScenarioTest, WordsBehindTheVerbAreNeverOptions) {
    EXPECT_EQ(Parsed<Say>("say --help -> [a,b] {} within 5").text, "--help -> [a,b] {} within 5");
    EXPECT_EQ(Parsed<ExpectValue>("expect value db --within").text, "--within");
}

struct WrongLine {
    std::string line;
    std::string complaint;
};

TEST(ScenarioTest, ALineThatIsWrongIsNamedWithTheReason) {
    const std::string verbs = "expect is followed by signal, no signal, value, output, gain or fade";
    const WrongLine lines[] = {
        {"jump", "there is no such verb: \"jump\""},
        {"86401 say x", "there is no such verb: \"86401\""},
        {"-1 say x", "there is no such verb: \"-1\""},
        {"1.5", "a time must be followed by a verb"},
        {"route", "ROUTE is required"},
        {"volume 30 40", "unexpected word \"40\""},
        {"volume 101", "VOLUME: \"101\" is not a whole number from 0 to 100"},
        {"key ../x y", "KEY: \"../x\" is not a key"},
        {"call", "the name of the method is missing"},
        {"call Nothing", "there is no such method: \"Nothing\""},
        {"call SetSpeakerVolume", "SetSpeakerVolume takes 1 argument"},
        {"call SetSpeakerVolume 1 2", "SetSpeakerVolume takes 1 argument"},
        {"call SetSpeakerVolume loud -> 0", "\"loud\" is not a whole number of 32 bits"},
        {"call SetSpeakerMute 1 -> 0", "\"1\" is not one of false, true"},
        {"call SetSpeakerVolume 30 ->", "SetSpeakerVolume answers 1 number, its status"},
        {"call SetSpeakerVolume 30 -> 0 0", "SetSpeakerVolume answers 1 number, its status"},
        {"call GetSpeakerVolume -> 0", "GetSpeakerVolume answers 2 numbers, a value and a status"},
        {"emit SpeakerVolumeChanged 1 2", "kavreld does not listen to the signal SpeakerVolumeChanged"},
        {"emit Spelling 1", "there is no such signal: \"Spelling\""},
        {"emit SpkDisconnected 4", "SpkDisconnected takes 2 arguments"},
        {"emit SpkDisconnected 4 \"a\xFF\"", "\"a?\" is not UTF-8 text"},
        {"expect", verbs},
        {"expect nothing", verbs},
        {"expect signal", "the name of the signal is missing"},
        {"expect signal Spelling", "there is no such signal: \"Spelling\""},
        {"expect no signal SpeakerVolumeChanged 30", "SpeakerVolumeChanged takes 2 arguments"},
        {"expect signal SpeakerVolumeChanged 1 2 3", "SpeakerVolumeChanged takes 2 arguments"},
        {"expect signal X within soon", "--within: \"soon\" is not a number from 0 to 86400"},
        {"expect signal X within -1", "--within: \"-1\" is not a number from 0 to 86400"},
        {"expect signal X within 86401", "--within: \"86401\" is not a number from 0 to 86400"},
        {"expect output tv within", "unexpected word \"within\""},
        {"expect gain main 101", "PERCENT: \"101\" is not a whole number from 0 to 100"},
        {"expect gain sub -1", "PERCENT: \"-1\" is not a whole number from 0 to 100"},
        {"expect gain left 3", "OUTPUT: \"left\" is not one of main, sub"},
        {"expect value ../x 3", "PATH: \"../x\" is not a path below the TV directory"},
        {"expect value x", "TEXT is required"},
        {"pause 86401", "SECONDS: \"86401\" is not a number from 0 to 86400"},
        {"say 'half",
         "Text ended before matching quote was found for '. (The text was \u201Csay 'half\u201D)"},
    };
    for (const auto& [line, complaint] : lines) {
        EXPECT_EQ(Refusal("volume 66\n" + line + "\n"), "some.txt:2: " + complaint) << line;
    }
    for (const std::string name : {"other-7", "other-16", "other-17", "other-18"}) {
        EXPECT_EQ(Refusal("expect output " + name),
                  "some.txt:1: the output " + name +
                      " has no volume, whose changes would show that kavreld follows it");
    }
    for (const char* line : {"route nowhere", "expect output nowhere", "expect output 99"}) {
        EXPECT_NE(Refusal(line).find(" is neither the code nor the name of a route: 0 tv, 1 optical, "),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace tv
