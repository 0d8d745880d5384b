// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Layout.h"

#include <gtest/gtest.h>

#include "Snapshots.h"

namespace sound {
namespace {

using Indexes = std::vector<Index>;

Stream Named(const std::string& name, Index owner) {
    return {STAGE, name, SPEAKER, owner, false, {}};
}

Snapshot WithModules(const std::vector<Module>& modules) {
    Snapshot snapshot = EmptyServer();
    snapshot.modules = modules;
    return snapshot;
}

TEST(LayoutTest, AStageTakesTheSoundOfKavrelToItsSinkAndItsVolumeIsRememberedByNobody) {
    EXPECT_EQ(StageArguments("kavrel-main", "speaker", 80),
              "source=kavrel.monitor sink=speaker source_dont_move=true latency_msec=80 "
              "sink_input_properties=\"media.name=kavrel-main media.role=kavrel state.restore-props=false "
              "state.restore-target=false\"");
}

TEST(LayoutTest, KavrelHasARateAndAFormatThatLoseNothing) {
    EXPECT_EQ(KavrelArguments(),
              "sink_name=kavrel rate=48000 format=float32le sink_properties=device.description=kavrel");
}

TEST(LayoutTest, AProgramWithTheNameOfAStageIsNotAStage) {
    EXPECT_TRUE(IsOfStage(Named("kavrel-main", 7), MAIN_STAGE));
    EXPECT_FALSE(IsOfStage(Named("kavrel-sub", 7), MAIN_STAGE));
    EXPECT_FALSE(IsOfStage(Named("kavrel-main", NO_INDEX), MAIN_STAGE));
}

TEST(LayoutTest, TheDefaultSinkIsThatOfTheServer) {
    EXPECT_EQ(DefaultSink(EmptyServer(), "receiver"), "speaker");
}

TEST(LayoutTest, WhileKavrelIsTheDefaultSinkTheDefaultSinkIsTheOneBefore) {
    Snapshot snapshot = WithKavrel();
    snapshot.defaultSink = "kavrel";
    EXPECT_EQ(DefaultSink(snapshot, "receiver"), "receiver");
    EXPECT_EQ(DefaultSink(snapshot, "gone"), "speaker") << "the first one that there is";
    EXPECT_EQ(DefaultSink(snapshot, ""), "speaker");
    snapshot.sinks = {MakeSink(KAVREL, "kavrel"), MakeSink(RECEIVER, "receiver")};
    EXPECT_EQ(DefaultSink(snapshot, ""), "receiver") << "kavrel itself would be a circle";
    snapshot.sinks.pop_back();
    EXPECT_EQ(DefaultSink(snapshot, ""), "");
}

TEST(LayoutTest, AStageIsFoundByItsStreamsAndItsModulesTheModuleWithAStreamComesFirst) {
    Snapshot snapshot = WithModules({{8, STAGE_MODULE, StageArguments(MAIN_STAGE, "speaker", 60)},
                                     {9, STAGE_MODULE, StageArguments(MAIN_STAGE, "speaker", 60)},
                                     {10, STAGE_MODULE, StageArguments(SUB_STAGE, "speaker", 60)}});
    snapshot.streams = {Named(MAIN_STAGE, 9), Named(MAIN_STAGE, 9), Named(MAIN_STAGE, NO_INDEX),
                        Named("song", 5)};
    EXPECT_EQ(FindStage(snapshot, MAIN_STAGE), (Indexes{9, 8}));
    EXPECT_EQ(FindStage(snapshot, SUB_STAGE), Indexes{10});
}

TEST(LayoutTest, AModuleIsOfAStageOnlyByItsWholeName) {
    EXPECT_EQ(FindStage(WithModules({{8, STAGE_MODULE, "a=b media.name=kavrel-main"}}), MAIN_STAGE),
              Indexes{8});
    EXPECT_EQ(FindStage(WithModules({{8, STAGE_MODULE, "media.name=kavrel-main2"},
                                     {9, KAVREL_MODULE, "media.name=kavrel-main"},
                                     {10, STAGE_MODULE, "sink=kavrel-main"}}),
                        MAIN_STAGE),
              Indexes{});
}

TEST(LayoutTest, KavrelIsFoundByItsSinkAndItsModulesTheModuleWithASinkComesFirst) {
    Snapshot snapshot = WithModules({{8, KAVREL_MODULE, KavrelArguments()},
                                     {KAVREL_OWNER, KAVREL_MODULE, KavrelArguments()},
                                     {9, KAVREL_MODULE, "sink_name=kavrel2"},
                                     {10, "module-remap-sink", "sink_name=kavrel"},
                                     {11, KAVREL_MODULE, "rate=44100 sink_name=kavrel"}});
    EXPECT_EQ(FindKavrel(snapshot), (Indexes{8, KAVREL_OWNER, 11}));
    EXPECT_EQ(FindKavrel(WithKavrel(snapshot)), (Indexes{KAVREL_OWNER, 8, 11}));
}

TEST(LayoutTest, AKavrelThatNoModuleHasMadeCannotBeUnloaded) {
    Snapshot snapshot = EmptyServer();
    snapshot.sinks.push_back(MakeSink(KAVREL, "kavrel"));
    snapshot.sinks.push_back({4, "other", "", {}, false, 12});
    EXPECT_EQ(FindKavrel(snapshot), Indexes{});
}

// --- What a snapshot holds

TEST(LayoutSnapshotTest, ASinkIsFoundByItsNameOrItsIndex) {
    Snapshot snapshot = EmptyServer();
    EXPECT_EQ(std::as_const(snapshot).FindSink("receiver"), &snapshot.sinks[1]);
    EXPECT_EQ(std::as_const(snapshot).FindSink(RECEIVER), &snapshot.sinks[1]);
    EXPECT_EQ(snapshot.FindSink(RECEIVER), &snapshot.sinks[1]);
    EXPECT_EQ(snapshot.FindSink("gone"), nullptr);
    EXPECT_EQ(snapshot.FindSink(Index{99}), nullptr);
    EXPECT_EQ(std::as_const(snapshot).FindSink(Index{99}), nullptr);
}

TEST(LayoutSnapshotTest, AnEmptyNameFindsNoSink) {
    Snapshot snapshot = EmptyServer();
    snapshot.sinks.push_back(MakeSink(4, ""));
    EXPECT_EQ(snapshot.FindSink(""), nullptr);
}

TEST(LayoutSnapshotTest, OnlyPipeWireLosesMovedSound) {
    Snapshot snapshot;
    snapshot.server = "PulseAudio (on PipeWire 0.3.65) 15.0.0";
    EXPECT_TRUE(snapshot.MayLoseMovedSound());
    snapshot.server = "pulseaudio 16.1";
    EXPECT_FALSE(snapshot.MayLoseMovedSound());
}

}  // namespace
}  // namespace sound
