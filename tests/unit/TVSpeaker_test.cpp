// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "TVSpeaker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>
#include <thread>

#include "FakeSeam.h"

using fake::FakeSeam;
using NKavrel::TVSpeaker;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* REGISTER_VOLUME = "audio_register_master_volume_changed_cb()";
constexpr const char* REGISTER_MUTE = "audio_register_master_mute_changed_cb()";
constexpr const char* UNREGISTER_VOLUME = "audio_unregister_master_volume_changed_cb()";
constexpr const char* UNREGISTER_MUTE = "audio_unregister_master_mute_changed_cb()";

class TVSpeakerTest : public testing::Test {
protected:
    void SetHandlers() {
        speaker->SetEventHandler([this](int volume) { heard.push_back("volume " + std::to_string(volume)); },
                                 [this](int mute) { heard.push_back("mute " + std::to_string(mute)); });
    }

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::vector<std::string> heard;
    std::optional<TVSpeaker> speaker = std::optional<TVSpeaker>(std::in_place);
};

TEST_F(TVSpeakerTest, SetVolumePassesTheVolumeAndTheConstantOne) {
    EXPECT_EQ(speaker->SetVolume(15), 0);
    EXPECT_EQ(speaker->SetVolume(-5), 0);
    EXPECT_THAT(journal.Calls().Texts(),
                ElementsAre("audio_set_master_volume(15, 1)", "audio_set_master_volume(-5, 1)"));
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_F(TVSpeakerTest, AFailedSetVolumePassesTheCodeThroughAndLogsItInHexadecimal) {
    seam.Fail("audio_set_master_volume", -3);
    EXPECT_EQ(speaker->SetVolume(15), -3);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E set master volume error fffffffd"));
    EXPECT_EQ(journal.With("E set master volume error fffffffd").Function(), "SetVolume");
    EXPECT_EQ(journal.Calls().Texts().size(), 1U) << "nothing is tried again";
}

TEST_F(TVSpeakerTest, GetVolumeReadsTheMasterVolume) {
    seam.SetVolume(17);
    int volume = -1;
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(volume, 17);
    EXPECT_THAT(journal.Texts(), ElementsAre("audio_get_master_volume()", "I current tv volume [17]"));
}

TEST_F(TVSpeakerTest, AFailedGetVolumeLeavesTheCallersValue) {
    seam.Fail("audio_get_master_volume", 0x1234);
    int volume = 42;
    EXPECT_EQ(speaker->GetVolume(volume), 0x1234);
    EXPECT_EQ(volume, 42);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E get master volume error 1234"));
    EXPECT_EQ(journal.With("E get master volume error 1234").Function(), "GetVolume");
}

TEST_F(TVSpeakerTest, SetVolumeMuteSetsTheMasterMute) {
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_TRUE(seam.Mute());
    EXPECT_EQ(speaker->SetVolumeMute(false), 0);
    EXPECT_FALSE(seam.Mute());
    EXPECT_THAT(journal.Texts(), ElementsAre("audio_set_master_mute(true)", "audio_set_master_mute(false)"));
}

TEST_F(TVSpeakerTest, AFailedSetVolumeMutePassesTheCodeThrough) {
    seam.Fail("audio_set_master_mute", -2);
    EXPECT_EQ(speaker->SetVolumeMute(true), -2);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E set master mute error fffffffe"));
    EXPECT_EQ(journal.With("E set master mute error fffffffe").Function(), "SetVolumeMute");
}

TEST_F(TVSpeakerTest, GetVolumeMuteReadsTheMasterMute) {
    seam.SetMute(true);
    bool mute = false;
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_TRUE(mute);
    seam.SetMute(false);
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_FALSE(mute);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("I current tv mute [1]", "I current tv mute [0]"));
}

TEST_F(TVSpeakerTest, AFailedGetVolumeMuteLeavesTheCallersValue) {
    seam.Fail("audio_get_master_mute", -9);
    bool mute = true;
    EXPECT_EQ(speaker->GetVolumeMute(mute), -9);
    EXPECT_TRUE(mute);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E get master mute error fffffff7"));
    EXPECT_EQ(journal.With("E get master mute error fffffff7").Function(), "GetVolumeMute");
}

TEST_F(TVSpeakerTest, SupportsEverythingWithoutAskingTheHal) {
    int support = 0;
    EXPECT_EQ(speaker->GetVolumeSupportType(support), 0);
    EXPECT_EQ(support, 0xFFFF);
    EXPECT_THAT(journal.Texts(), IsEmpty());
}

TEST_F(TVSpeakerTest, RegistersVolumeThenMuteOnceHoweverOftenItIsAsked) {
    speaker->SetChangedCB();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(REGISTER_VOLUME, REGISTER_MUTE));
    EXPECT_EQ(seam.VolumeRegistration().data, &*speaker);
    EXPECT_EQ(seam.MuteRegistration().data, &*speaker);
}

TEST_F(TVSpeakerTest, AFailedVolumeRegistrationStopsThere) {
    seam.Fail("audio_register_master_volume_changed_cb", -1, 1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(REGISTER_VOLUME, "E set volume_changed_cb failed ffffffff"));
    EXPECT_EQ(journal.With("E set volume_changed_cb failed ffffffff").Function(), "SetChangedCB");
    seam.Clear();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty());
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(REGISTER_VOLUME, REGISTER_MUTE));
}

TEST_F(TVSpeakerTest, AFailedMuteRegistrationLeavesTheVolumeOneAndTheNextTryMakesBothAgain) {
    seam.Fail("audio_register_master_mute_changed_cb", 0xab, 1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(),
                ElementsAre(REGISTER_VOLUME, REGISTER_MUTE, "E set mute changed_cb failed ab"));
    EXPECT_EQ(seam.VolumeRegistration().data, &*speaker) << "it is not rolled back";
    seam.Clear();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty()) << "nothing to undo after a failed registration";
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(REGISTER_VOLUME, REGISTER_MUTE));
}

TEST_F(TVSpeakerTest, UnregistersMuteThenVolumeOnce) {
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty());
    speaker->SetChangedCB();
    seam.Clear();
    speaker->UnsetChangedCB();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(UNREGISTER_MUTE, UNREGISTER_VOLUME));
}

TEST_F(TVSpeakerTest, AFailedMuteRemovalStopsThereAndCanBeTriedAgain) {
    speaker->SetChangedCB();
    seam.Clear();
    seam.Fail("audio_unregister_master_mute_changed_cb", -1, 1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(UNREGISTER_MUTE, "E unset mute changed_cb failed ffffffff"));
    EXPECT_EQ(journal.With("E unset mute changed_cb failed ffffffff").Function(), "UnsetChangedCB");
    seam.Clear();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty()) << "still registered";
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(UNREGISTER_MUTE, UNREGISTER_VOLUME));
}

TEST_F(TVSpeakerTest, AFailedVolumeRemovalLeavesItRegistered) {
    speaker->SetChangedCB();
    seam.Clear();
    seam.Fail("audio_unregister_master_volume_changed_cb", -6, 1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(),
                ElementsAre(UNREGISTER_MUTE, UNREGISTER_VOLUME, "E unset volume changed_cb failed fffffffa"));
    seam.Clear();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty());
}

TEST_F(TVSpeakerTest, ReportsReachTheHandlersOnTheReportingThread) {
    std::thread::id thread;
    speaker->SetEventHandler(
        [&](int volume) {
            heard.push_back("volume " + std::to_string(volume));
            thread = std::this_thread::get_id();
        },
        [&](int mute) { heard.push_back("mute " + std::to_string(mute)); });
    speaker->SetChangedCB();
    fake::OnPlatformThread([&] { seam.FireVolume(33); });
    EXPECT_NE(thread, std::this_thread::get_id());
    seam.FireMute(2);
    seam.FireVolume(std::numeric_limits<unsigned int>::max());
    EXPECT_THAT(heard, ElementsAre("volume 33", "mute 2", "volume -1"));
}

TEST_F(TVSpeakerTest, AReportWithoutUserDataIsLoggedAndCallsNothing) {
    SetHandlers();
    speaker->SetChangedCB();
    seam.Clear();
    seam.VolumeRegistration().callback(5, nullptr);
    seam.MuteRegistration().callback(1, nullptr);
    EXPECT_THAT(journal.Texts(), ElementsAre("E data is NULL", "E data is NULL"));
    EXPECT_EQ(journal.All().Entries()[1].site.function, "VolumeChangedCallback");
    EXPECT_EQ(journal.All().Entries()[4].site.function, "MuteChangedCallback");
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(TVSpeakerTest, AReportWithoutHandlersRaisesTheEmptyCallableException) {
    speaker->SetChangedCB();
    EXPECT_THROW(seam.FireVolume(1), std::bad_function_call);
    EXPECT_THROW(seam.FireMute(1), std::bad_function_call);
}

TEST_F(TVSpeakerTest, ASecondSetEventHandlerIsRefusedAndChangesNeitherHandler) {
    SetHandlers();
    speaker->SetEventHandler([this](int) { heard.push_back("other volume"); },
                             [this](int) { heard.push_back("other mute"); });
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already set event handler"));
    EXPECT_EQ(journal.With("E Already set event handler").Function(), "SetEventHandler");
    speaker->SetChangedCB();
    seam.FireVolume(1);
    seam.FireMute(1);
    EXPECT_THAT(heard, ElementsAre("volume 1", "mute 1"));
}

TEST_F(TVSpeakerTest, OnlyTheVolumeHandlerDecidesWhetherHandlersAreSet) {
    speaker->SetEventHandler(nullptr, [this](int) { heard.push_back("first mute"); });
    speaker->SetChangedCB();
    seam.FireMute(1);
    SetHandlers();
    seam.FireMute(0);
    EXPECT_THAT(heard, ElementsAre("first mute", "mute 0"));
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_F(TVSpeakerTest, UnsettingWithoutAVolumeHandlerIsRefusedAndKeepsTheMuteHandler) {
    speaker->SetEventHandler(nullptr, [this](int) { heard.push_back("mute"); });
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already unset event handler"));
    EXPECT_EQ(journal.With("E Already unset event handler").Function(), "UnsetEventHandler");
    speaker->SetChangedCB();
    seam.FireMute(1);
    EXPECT_THAT(heard, ElementsAre("mute"));
}

TEST_F(TVSpeakerTest, UnsetEventHandlerEmptiesBoth) {
    SetHandlers();
    speaker->SetChangedCB();
    speaker->UnsetEventHandler();
    EXPECT_THROW(seam.FireVolume(1), std::bad_function_call);
    EXPECT_THROW(seam.FireMute(1), std::bad_function_call);
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already unset event handler"));
}

TEST_F(TVSpeakerTest, DestructionFindsTheHandlersGoneAndLeavesTheRegistrationsAlone) {
    SetHandlers();
    speaker->SetChangedCB();
    speaker->UnsetEventHandler();
    seam.Clear();
    speaker.reset();
    EXPECT_THAT(journal.Texts(), ElementsAre("E Already unset event handler"));
    EXPECT_THAT(journal.Traces().Names(),
                ElementsAre("[IN]TVSpeaker::~TVSpeaker", "[IN]TVSpeaker::UnsetEventHandler",
                            "[OUT]TVSpeaker::UnsetEventHandler", "[OUT]TVSpeaker::~TVSpeaker"));
}

TEST_F(TVSpeakerTest, DestructionDropsHandlersThatAreStillSet) {
    SetHandlers();
    speaker.reset();
    EXPECT_THAT(journal.Texts(), IsEmpty());
}

TEST_F(TVSpeakerTest, EveryOperationIsTraced) {
    seam.Clear();
    int number = 0;
    bool flag = false;
    speaker.emplace();
    speaker->SetVolume(1);
    speaker->GetVolume(number);
    speaker->SetVolumeMute(true);
    speaker->GetVolumeMute(flag);
    speaker->GetVolumeSupportType(number);
    SetHandlers();
    speaker->SetChangedCB();
    seam.FireVolume(1);
    seam.FireMute(1);
    speaker->UnsetEventHandler();
    speaker->UnsetChangedCB();
    std::vector<std::string> entered;
    for (const std::string& name : journal.Traces().Names()) {
        if (name.starts_with("[IN]")) {
            entered.push_back(name.substr(4));
        }
    }
    EXPECT_EQ(entered.size() * 2, journal.Traces().Names().size());
    EXPECT_THAT(entered,
                ElementsAre("TVSpeaker::~TVSpeaker", "TVSpeaker::UnsetEventHandler", "TVSpeaker::TVSpeaker",
                            "TVSpeaker::SetVolume", "TVSpeaker::GetVolume", "TVSpeaker::SetVolumeMute",
                            "TVSpeaker::GetVolumeMute", "TVSpeaker::GetVolumeSupportType",
                            "TVSpeaker::SetEventHandler", "TVSpeaker::SetChangedCB",
                            "TVSpeaker::VolumeChangedCallback", "TVSpeaker::MuteChangedCallback",
                            "TVSpeaker::UnsetEventHandler", "TVSpeaker::UnsetChangedCB"));
}

}  // namespace
