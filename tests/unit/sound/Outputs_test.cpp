// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Outputs.h"

#include <gtest/gtest.h>

#include <string>

namespace sound {
namespace {

constexpr int TV = 0;
constexpr int HDMI = 2;
constexpr int BT = 3;
constexpr int MULTI_OUTPUT = 6;
constexpr int WITHOUT_VOLUME = 7;
constexpr int HDMI_2 = 8;
constexpr int TV_2 = 12;

const tv::DeviceKind* KindOf(int route) {
    return tv::FindRoute(route)->device;
}

/** @return the option as the validator makes it, or "" if it refuses it */
std::string Accepted(std::string option) {
    return OutputOption()(option).empty() ? option : "";
}

std::string Refusal(std::string option) {
    return OutputOption()(option);
}

TEST(OutputsTest, AnOptionTakesTheNameOrTheCodeOfARoute) {
    EXPECT_EQ(Accepted("hdmi=alsa.hdmi"), "2=alsa.hdmi");
    EXPECT_EQ(Accepted("HDMI=alsa.hdmi"), "2=alsa.hdmi");
    EXPECT_EQ(Accepted("19=x"), "19=x");
    EXPECT_EQ(Accepted("bt=a=b"), "3=a=b");
}

TEST(OutputsTest, AnOptionNeedsARouteAndASink) {
    EXPECT_EQ(Refusal("hdmi"), "\"hdmi\" is not ROUTE=SINK, such as hdmi=NAME");
    EXPECT_EQ(Refusal("hdmi="), "the name of a sink is missing");
    EXPECT_EQ(Accepted("=x"), "");
    EXPECT_EQ(Accepted("20=x"), "");
    EXPECT_EQ(Accepted("-1=x"), "");
    EXPECT_EQ(Accepted("radio=x"), "");
    EXPECT_EQ(Accepted(""), "");
}

TEST(OutputsTest, TheSinkOfTheProgramsIsNoOutput) {
    EXPECT_EQ(Refusal("tv=kavrel"), "\"kavrel\" is the sink that programs play to, not an output");
    std::string sub = "kavrel";
    EXPECT_NE(SinkOption()(sub), "");
    sub = "";
    EXPECT_NE(SinkOption()(sub), "");
    sub = "woofer";
    EXPECT_EQ(SinkOption()(sub), "");
}

TEST(OutputsTest, WithoutOptionsTheDefaultSinkPlaysTheTvsOwnOutputs) {
    const Outputs outputs;
    EXPECT_EQ(outputs.ChoiceOf(TV, "card").sink, "card");
    EXPECT_EQ(outputs.ChoiceOf(TV, "card").reason, "the default sink");
    EXPECT_EQ(outputs.ChoiceOf(MULTI_OUTPUT, "card").sink, "card");
    for (const int route : {HDMI, WITHOUT_VOLUME}) {
        EXPECT_EQ(outputs.ChoiceOf(route, "card").sink, "");
        EXPECT_EQ(outputs.ChoiceOf(route, "card").reason, "no sink is named for it");
    }
    EXPECT_EQ(outputs.ChoiceOf(42, "card").sink, "");
    EXPECT_EQ(outputs.ChoiceOf(42, "card").reason, "unknown route");
}

TEST(OutputsTest, AnOptionNamesTheSinkOfItsRouteAndTheLastOneHolds) {
    const Outputs outputs({"0=first", "0=speaker", "7=line"});
    EXPECT_EQ(outputs.ChoiceOf(TV, "card").sink, "speaker");
    EXPECT_EQ(outputs.ChoiceOf(TV, "card").reason, "--output");
    EXPECT_EQ(outputs.ChoiceOf(TV_2, "card").sink, "speaker");
    EXPECT_EQ(outputs.ChoiceOf(TV_2, "card").reason, "as the TV speaker");
    EXPECT_EQ(outputs.ChoiceOf(WITHOUT_VOLUME, "card").sink, "line");
}

TEST(OutputsTest, ARouteWithoutASinkPlaysWhereAnotherOneOfItsKindPlays) {
    const Outputs outputs({"8=receiver"});
    EXPECT_EQ(outputs.ChoiceOf(HDMI, "card").sink, "receiver");
    EXPECT_EQ(outputs.ChoiceOf(HDMI, "card").reason, "as hdmi-2");
    EXPECT_EQ(outputs.ChoiceOf(BT, "card").sink, "");
}

TEST(OutputsTest, TheValuesOfAKindAreThoseOfItsRouteInUse) {
    const Outputs outputs({"2=first", "8=second"});
    EXPECT_EQ(outputs.ChoiceOfKind(KindOf(HDMI), HDMI_2, "card").sink, "second");
    EXPECT_EQ(outputs.ChoiceOfKind(KindOf(HDMI), HDMI, "card").sink, "first");
    EXPECT_EQ(outputs.ChoiceOfKind(KindOf(HDMI), TV, "card").sink, "first");
    EXPECT_EQ(outputs.ChoiceOfKind(KindOf(HDMI), std::nullopt, "card").sink, "first");
    EXPECT_EQ(outputs.ChoiceOfKind(KindOf(BT), HDMI, "card").sink, "");
}

TEST(OutputsTest, TheMasterVolumeIsThatOfTheTvsOwnOutputInUse) {
    const Outputs outputs({"12=other"});
    EXPECT_EQ(outputs.ChoiceOfKind(nullptr, TV_2, "card").sink, "other");
    EXPECT_EQ(outputs.ChoiceOfKind(nullptr, TV, "card").sink, "card");
    EXPECT_EQ(outputs.ChoiceOfKind(nullptr, HDMI, "card").sink, "card");
    EXPECT_EQ(outputs.ChoiceOfKind(nullptr, WITHOUT_VOLUME, "card").sink, "card");
}

}  // namespace
}  // namespace sound
