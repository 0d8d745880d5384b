// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ISpeaker.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <typeindex>

#include "BTSpeakerEmul.h"
#include "ExternalSpeaker.h"
#include "FakeSeam.h"
#include "TVSpeaker.h"
#include "TVSpeakerEmul.h"

using fake::FakeSeam;
using NKavrel::ISpeaker;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::string_view TV_SWITCH = "/opt/etc/.enable_tv_spk";
constexpr std::string_view BT_SWITCH = "/opt/etc/.enable_bt_spk";

/** The results of access() for the two switch files, and the modes with which it was called. */
struct SwitchFiles {
    int tv = -1;
    int bt = -1;
    std::vector<int> modes;
};
SwitchFiles switchFiles;

int AskedFor(int answer, int mode) {
    switchFiles.modes.push_back(mode);
    errno = answer == 0 ? 0 : EACCES;
    return answer;
}

}  // namespace

/** Replaces the C library's function, because the switch files have absolute paths that no test may touch. */
extern "C" int access(const char* path, int mode) noexcept {
    if (path == TV_SWITCH) {
        return AskedFor(switchFiles.tv, mode);
    }
    if (path == BT_SWITCH) {
        return AskedFor(switchFiles.bt, mode);
    }
    return faccessat(AT_FDCWD, path, mode, 0);
}

namespace {

struct Row {
    int route;
    std::type_index type;
    std::string log;
};

const std::type_index TV = typeid(NKavrel::TVSpeaker);
const std::type_index TV_EMULATOR = typeid(NKavrel::TVSpeakerEmul);
const std::type_index OPTICAL = typeid(NKavrel::OpticalSpeaker);
const std::type_index HDMI = typeid(NKavrel::HDMISpeaker);
const std::type_index BT = typeid(NKavrel::BTSpeaker);
const std::type_index BT_EMULATOR = typeid(NKavrel::BTSpeakerEmul);
const std::type_index WIFI = typeid(NKavrel::WifiSpeaker);
const std::type_index USB = typeid(NKavrel::USBSpeaker);
const std::type_index AURACAST = typeid(NKavrel::AuracastSpeaker);
const std::type_index UNKNOWN = typeid(NKavrel::UnknownSpeaker);

std::vector<Row> RealSpeakers() {
    return {
        {0, TV, "I Create TV Speaker"},           {1, OPTICAL, "I Create Optical Speaker"},
        {2, HDMI, "I Create HDMI Speaker"},       {3, BT, "I Create BT Speaker"},
        {4, WIFI, "I Create WIFI Speaker"},       {5, BT, "I Create BT Speaker"},
        {6, TV, "I Create TV Speaker"},           {8, HDMI, "I Create HDMI Speaker"},
        {9, OPTICAL, "I Create Optical Speaker"}, {10, WIFI, "I Create WIFI Speaker"},
        {11, TV, "I Create TV Speaker"},          {12, TV, "I Create TV Speaker"},
        {13, TV, "I Create TV Speaker"},          {14, TV, "I Create TV Speaker"},
        {15, USB, "I Create USB Speaker"},        {19, AURACAST, "I Create Auracast Speaker"},
    };
}

class ISpeakerTest : public testing::Test {
protected:
    ISpeakerTest() { switchFiles = SwitchFiles(); }

    static std::unique_ptr<ISpeaker> Create(int route) {
        return std::unique_ptr<ISpeaker>(ISpeaker::CreateSpeaker(route));
    }

    void ExpectCreates(const Row& row) {
        SCOPED_TRACE("route " + std::to_string(row.route));
        seam.Clear();
        const auto speaker = Create(row.route);
        const ISpeaker& made = *speaker;
        EXPECT_EQ(std::type_index(typeid(made)), row.type);
        EXPECT_THAT(journal.Texts(), ElementsAre(row.log));
        EXPECT_EQ(journal.With(row.log).Function(), "CreateSpeaker");
    }

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
};

TEST_F(ISpeakerTest, EachKnownRouteGivesItsClass) {
    for (const Row& row : RealSpeakers()) {
        ExpectCreates(row);
    }
}

TEST_F(ISpeakerTest, EveryOtherRouteGivesTheUnknownSpeakerAndALineWithItsCode) {
    constexpr int lowest = std::numeric_limits<int>::min();
    constexpr int highest = std::numeric_limits<int>::max();
    for (const int route : {7, 16, 17, 18, 20, 21, 255, -1, -2, lowest, highest}) {
        ExpectCreates(
            {route, UNKNOWN, "I Type(" + std::to_string(route) + ") is invalid, Create Unknown Speaker"});
    }
}

TEST_F(ISpeakerTest, RouteElevenIsATvSpeakerAlthoughItUsesTheOpticalOutput) {
    ExpectCreates({11, TV, "I Create TV Speaker"});
}

TEST_F(ISpeakerTest, TheTvSwitchFileTurnsAllSixTvRoutesAndNothingElseIntoTheEmulator) {
    switchFiles.tv = 0;
    for (Row row : RealSpeakers()) {
        if (row.type == TV) {
            row = {row.route, TV_EMULATOR, "I Create TV Speaker Emulator"};
        }
        ExpectCreates(row);
    }
    EXPECT_EQ(std::ranges::count(switchFiles.modes, F_OK), std::ssize(switchFiles.modes));
}

TEST_F(ISpeakerTest, TheBluetoothSwitchFileTurnsBothBluetoothRoutesAndNothingElseIntoTheEmulator) {
    switchFiles.bt = 0;
    for (Row row : RealSpeakers()) {
        if (row.type == BT) {
            row = {row.route, BT_EMULATOR, "I Create BT Speaker Emulator"};
        }
        ExpectCreates(row);
    }
}

TEST_F(ISpeakerTest, TheSwitchFilesAreLookedAtOnEveryCall) {
    ExpectCreates({0, TV, "I Create TV Speaker"});
    switchFiles.tv = 0;
    ExpectCreates({0, TV_EMULATOR, "I Create TV Speaker Emulator"});
    switchFiles.tv = -1;
    ExpectCreates({0, TV, "I Create TV Speaker"});
    EXPECT_EQ(switchFiles.modes.size(), 3U);
}

TEST_F(ISpeakerTest, OnlyAZeroResultOfTheExistenceTestSelectsTheEmulator) {
    for (const int answer : {-1, 1, -13}) {
        switchFiles.tv = answer;
        switchFiles.bt = answer;
        ExpectCreates({0, TV, "I Create TV Speaker"});
        ExpectCreates({3, BT, "I Create BT Speaker"});
    }
}

TEST_F(ISpeakerTest, OtherRoutesLookAtNoSwitchFile) {
    for (const int route : {1, 2, 4, 7, 8, 9, 10, 15, 19, 20}) {
        Create(route);
    }
    EXPECT_THAT(switchFiles.modes, IsEmpty());
}

TEST_F(ISpeakerTest, DestroyingThroughTheInterfaceRunsTheConcreteDestructors) {
    auto speaker = Create(2);
    seam.Clear();
    speaker.reset();
    EXPECT_THAT(
        journal.Traces().Names(),
        ElementsAre("[IN]HDMISpeaker::~HDMISpeaker", "[OUT]HDMISpeaker::~HDMISpeaker",
                    "[IN]ExternalSpeaker::~ExternalSpeaker", "[IN]ExternalSpeaker::UnsetEventHandler",
                    "[OUT]ExternalSpeaker::UnsetEventHandler", "[OUT]ExternalSpeaker::~ExternalSpeaker"));
}

TEST_F(ISpeakerTest, TheUnknownSpeakerSucceedsAtEverythingAndSupportsNothing) {
    const auto speaker = Create(7);
    seam.Clear();
    int volume = 55;
    bool mute = true;
    int support = 0xF;
    EXPECT_EQ(speaker->SetVolume(20), 0);
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(volume, 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_FALSE(mute);
    EXPECT_EQ(speaker->GetVolumeSupportType(support), 0);
    EXPECT_EQ(support, 0);
    EXPECT_THAT(journal.Texts(), IsEmpty()) << "it speaks to nobody and says nothing";
}

TEST_F(ISpeakerTest, TheUnknownSpeakerKeepsNoHandlers) {
    const auto held = std::make_shared<int>(0);
    const auto speaker = Create(18);
    seam.Clear();
    speaker->SetEventHandler([held](int) { ++*held; }, [held](int) { ++*held; });
    speaker->SetChangedCB();
    EXPECT_EQ(held.use_count(), 1) << "neither handler was copied";
    speaker->SetEventHandler(nullptr, nullptr);
    speaker->UnsetEventHandler();
    speaker->UnsetEventHandler();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty());
}

TEST_F(ISpeakerTest, TheFactoryAndEveryOperationOfTheUnknownSpeakerAreTraced) {
    int number = 0;
    bool flag = false;
    auto speaker = Create(7);
    speaker->SetVolume(1);
    speaker->GetVolume(number);
    speaker->SetVolumeMute(true);
    speaker->GetVolumeMute(flag);
    speaker->GetVolumeSupportType(number);
    speaker->SetEventHandler(nullptr, nullptr);
    speaker->UnsetEventHandler();
    speaker->SetChangedCB();
    speaker->UnsetChangedCB();
    speaker.reset();
    const auto pair = [](std::vector<std::string>& names, const std::string& name) {
        names.push_back("[IN]UnknownSpeaker::" + name);
        names.push_back("[OUT]UnknownSpeaker::" + name);
    };
    std::vector<std::string> expected = {"[IN]ISpeaker::CreateSpeaker"};
    pair(expected, "UnknownSpeaker");
    expected.emplace_back("[OUT]ISpeaker::CreateSpeaker");
    for (const char* name :
         {"SetVolume", "GetVolume", "SetVolumeMute", "GetVolumeMute", "GetVolumeSupportType",
          "SetEventHandler", "UnsetEventHandler", "SetChangedCB", "UnsetChangedCB", "~UnknownSpeaker"}) {
        pair(expected, name);
    }
    EXPECT_EQ(journal.Traces().Names(), expected);
}

}  // namespace
