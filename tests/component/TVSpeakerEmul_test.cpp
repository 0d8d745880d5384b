// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "TVSpeakerEmul.h"

#include <functional>
#include <optional>

#include "EmulatorPeer.h"

using NKavrel::TVSpeakerEmul;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* REGISTER_MUTE = "sound_manager_set_tv_master_mute_changed_cb()";
constexpr const char* UNREGISTER_MUTE = "sound_manager_unset_tv_master_mute_changed_cb()";
constexpr const char* GET_CALL =
    "g_dbus_connection_call_sync(org.olvane.kavrel, /Org/Olvane/Kavrel, org.olvane.kavrel.tv.GetSpkVolume, "
    "(), *, "
    "0, -1)";
constexpr const char* SET_CALL =
    "g_dbus_connection_call_sync(org.olvane.kavrel, /Org/Olvane/Kavrel, org.olvane.kavrel.tv.SetSpkVolume, "
    "(30,), "
    "*, 0, -1)";

constexpr const char* FILE_NAME = "TVSpeakerEmul.cpp";

class TVSpeakerEmulTest : public fake::EmulatorTest {
protected:
    TVSpeakerEmulTest() : EmulatorTest("org.olvane.kavrel", "/Org/Olvane/Kavrel", "org.olvane.kavrel.tv") {
        seam.Clear();
    }

    void Watch() {
        speaker->SetEventHandler(VolumeHandler(), MuteHandler());
        speaker->SetChangedCB();
        seam.Clear();
    }

    std::optional<TVSpeakerEmul> speaker = std::optional<TVSpeakerEmul>(std::in_place);
};

TEST_F(TVSpeakerEmulTest, GetVolumeIsThePeersSecondValueAndItsThirdTheResult) {
    int volume = -1;
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(volume, 17);
    EXPECT_THAT(By(FILE_NAME).Lines(),
                ElementsAre(GET_CALL, "GetVolume: I current TV Speaker volume [3 17 0]"));
    EXPECT_THAT(peer.Calls(), ElementsAre("GetSpkVolume()"));
}

TEST_F(TVSpeakerEmulTest, AResultOtherThanZeroComesWithTheVolume) {
    for (const int code : {5, -7}) {
        result = code;
        int volume = -1;
        EXPECT_EQ(speaker->GetVolume(volume), code);
        EXPECT_EQ(volume, 17);
    }
}

TEST_F(TVSpeakerEmulTest, AFailedGetVolumeLeavesTheCallersValue) {
    refuses = true;
    int volume = 42;
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(volume, 42);
    EXPECT_THAT(Errors(), ElementsAre("KVUtils.cpp DbusCallSync"));
}

TEST_F(TVSpeakerEmulTest, AReplyOfAnotherTypeIsTreatedAsAFailure) {
    int volume = 42;
    gio::ReplyToNextCall(g_variant_new("(ii)", 3, 17));
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(volume, 42);
    gio::ReplyToNextCall(g_variant_new("(iii)", 1, 2, 3));
    EXPECT_EQ(speaker->SetVolume(30), -1);
    EXPECT_THAT(By(FILE_NAME).Logs().Lines(),
                ElementsAre("GetVolume: E Invalid reply to GetSpkVolume: expected (iii), got (ii)",
                            "SetVolume: E Invalid reply to SetSpkVolume: expected (ii), got (iii)"));
}

TEST_F(TVSpeakerEmulTest, SetVolumeSucceedsWhateverThePeerAnswers) {
    first = 9;
    result = -8;
    EXPECT_EQ(speaker->SetVolume(30), 0);
    EXPECT_THAT(By(FILE_NAME).Lines(),
                ElementsAre(SET_CALL, "SetVolume: I current TV Speaker volume [9 -8]"));
    EXPECT_THAT(peer.Calls(), ElementsAre("SetSpkVolume(30,)"));
}

TEST_F(TVSpeakerEmulTest, SetVolumeFailsWhenTheCallFails) {
    refuses = true;
    EXPECT_EQ(speaker->SetVolume(30), -1);
    EXPECT_THAT(Errors(), ElementsAre("KVUtils.cpp DbusCallSync"));
}

TEST_F(TVSpeakerEmulTest, MuteAndSupportAreThoseOfTheRealTvSpeaker) {
    bool mute = false;
    int support = 0;
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_TRUE(mute);
    EXPECT_EQ(speaker->GetVolumeSupportType(support), 0);
    EXPECT_EQ(support, 0xFFFF);
    EXPECT_THAT(journal.Calls().Texts(),
                ElementsAre("audio_set_master_mute(true)", "audio_get_master_mute()"));
    EXPECT_THAT(peer.Calls(), IsEmpty());
}

TEST_F(TVSpeakerEmulTest, WatchesTheMuteThenTheSignalOnceHoweverOftenItIsAsked) {
    speaker->SetChangedCB();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(REGISTER_MUTE, fake::SUBSCRIBE_CALL));
    EXPECT_EQ(seam.TvMasterMuteRegistration().data, &*speaker);
    EXPECT_EQ(seam.VolumeRegistration().callback, nullptr) << "the audio HAL's callbacks are not used";
    EXPECT_EQ(seam.MuteRegistration().callback, nullptr);
}

TEST_F(TVSpeakerEmulTest, AFailedMuteRegistrationStopsThereAndTheNextTryMakesBoth) {
    seam.Fail("sound_manager_set_tv_master_mute_changed_cb", -5, 1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(REGISTER_MUTE, "E set mute changed_cb failed fffffffb"));
    EXPECT_EQ(journal.With("E set mute changed_cb failed fffffffb").Function(), "SetChangedCB");
    seam.Clear();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(REGISTER_MUTE, fake::SUBSCRIBE_CALL));
}

TEST_F(TVSpeakerEmulTest, AVolumeSignalReachesTheHandlerWithItsThirdValue) {
    Watch();
    Announce(g_variant_new("(iii)", 0, 65535, 12));
    const std::string line =
        "I Start sender:" + client.Name() + " signal_name:SpkVolumeChanged route:0, suppType:65535 vol:12";
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(line));
    EXPECT_EQ(journal.With(line).Function(), "VolumeChangedCB");
    EXPECT_THAT(heard, ElementsAre("volume 12"));
}

TEST_F(TVSpeakerEmulTest, OnlyTheSignalOfThatNamePathAndInterfaceIsHandled) {
    Watch();
    Announce(g_variant_new("(iii)", 0, 1, 2), "Other");
    Announce(g_variant_new("(iii)", 0, 1, 2), "SpkVolumeChanged", "/Org/Olvane/KavrelInternal");
    Announce(g_variant_new("(iii)", 0, 1, 2), "SpkVolumeChanged", fake::DAEMON_PATH, "org.olvane.kavrel.tv");
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(TVSpeakerEmulTest, ASignalOfAnotherTypeIsDropped) {
    Watch();
    Announce(g_variant_new("(ii)", 0, 1));
    Announce(nullptr);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E Invalid parameters of signal SpkVolumeChanged: expected (iii), got (ii)",
                            "E Invalid parameters of signal SpkVolumeChanged: expected (iii), got ()"));
    EXPECT_EQ(
        journal.With("E Invalid parameters of signal SpkVolumeChanged: expected (iii), got (ii)").Function(),
        "VolumeChangedCB");
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(TVSpeakerEmulTest, ASignalWithoutConnectionUserDataOrNameIsDroppedInThisOrder) {
    Watch();
    GDBusConnection* connection = NKavrel::KVUtils::GetConnection();
    const tools::Variant body(g_variant_ref_sink(g_variant_new("(iii)", 0, 1, 2)));
    TVSpeakerEmul::VolumeChangedCB(nullptr, nullptr, nullptr, nullptr, nullptr, body.get(), nullptr);
    TVSpeakerEmul::VolumeChangedCB(connection, nullptr, nullptr, nullptr, nullptr, body.get(), nullptr);
    TVSpeakerEmul::VolumeChangedCB(connection, nullptr, nullptr, nullptr, nullptr, body.get(), &*speaker);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E Conneciton is NULL", "E userdata is NULL", "E signal_name is NULL"));
    for (const std::string& line : journal.Here().Texts()) {
        EXPECT_EQ(journal.With(line).Function(), "VolumeChangedCB");
    }
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(TVSpeakerEmulTest, AMuteReportReachesTheEmulatorsOwnHandlerAsItIs) {
    Watch();
    seam.FireTvMasterMute(2);
    EXPECT_THAT(heard, ElementsAre("mute 2"));
    seam.TvMasterMuteRegistration().callback(1, nullptr);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E data is NULL"));
    EXPECT_EQ(journal.With("E data is NULL").Function(), "MuteChangedCB");
    EXPECT_EQ(heard.size(), 1U);
}

TEST_F(TVSpeakerEmulTest, AReportWithoutHandlersRaisesTheEmptyCallableException) {
    speaker->SetChangedCB();
    EXPECT_THROW(seam.FireTvMasterMute(1), std::bad_function_call);
    const tools::Variant body(g_variant_ref_sink(g_variant_new("(iii)", 0, 1, 2)));
    EXPECT_THROW(TVSpeakerEmul::VolumeChangedCB(NKavrel::KVUtils::GetConnection(), ":1.1", "", "", "Name",
                                                body.get(), &*speaker),
                 std::bad_function_call);
}

TEST_F(TVSpeakerEmulTest, AfterUnsettingNothingIsHandledAndItCanBeSetAgain) {
    Watch();
    speaker->UnsetChangedCB();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(UNREGISTER_MUTE));
    Announce(g_variant_new("(iii)", 0, 1, 2));
    EXPECT_EQ(seam.FireTvMasterMute(1), 0);
    EXPECT_THAT(heard, IsEmpty());
    speaker->SetChangedCB();
    Announce(g_variant_new("(iii)", 0, 1, 3));
    EXPECT_THAT(heard, ElementsAre("volume 3"));
}

TEST_F(TVSpeakerEmulTest, AFailedMuteRemovalLeavesBothWatched) {
    Watch();
    seam.Fail("sound_manager_unset_tv_master_mute_changed_cb", -2, 1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre(UNREGISTER_MUTE, "E unset mute changed_cb failed fffffffe"));
    EXPECT_EQ(journal.With("E unset mute changed_cb failed fffffffe").Function(), "UnsetChangedCB");
    seam.Clear();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), IsEmpty()) << "still registered";
    Announce(g_variant_new("(iii)", 0, 1, 2));
    EXPECT_THAT(heard, ElementsAre("volume 2"));
}

TEST_F(TVSpeakerEmulTest, ItsHandlersAreApartFromThoseOfTheRealTvSpeaker) {
    speaker->SetEventHandler(VolumeHandler(), MuteHandler());
    speaker->TVSpeaker::UnsetEventHandler();
    EXPECT_THAT(Errors(), ElementsAre("TVSpeaker.cpp UnsetEventHandler"));
    seam.Clear();
    speaker->SetEventHandler(VolumeHandler(), MuteHandler());
    EXPECT_THAT(Errors(), ElementsAre("TVSpeakerEmul.cpp SetEventHandler"));
    seam.Clear();
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
    speaker->UnsetEventHandler();
    EXPECT_THAT(Errors(), ElementsAre("TVSpeakerEmul.cpp UnsetEventHandler"));
}

TEST_F(TVSpeakerEmulTest, OnlyTheVolumeHandlerDecidesWhetherThereAreHandlersToTakeBack) {
    speaker->SetEventHandler(VolumeHandler(), nullptr);
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Here().Logs().Texts(), IsEmpty());
    speaker->SetEventHandler(nullptr, MuteHandler());
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("E Already unset event handler"));
}

TEST_F(TVSpeakerEmulTest, DestructionFindsBothPairsGone) {
    speaker.reset();
    EXPECT_THAT(Errors(),
                ElementsAre("TVSpeakerEmul.cpp UnsetEventHandler", "TVSpeaker.cpp UnsetEventHandler"));
    EXPECT_THAT(journal.Here().Calls().Texts(), IsEmpty());
    EXPECT_THAT(journal.Traces().Names(),
                ElementsAre("[IN]TVSpeakerEmul::~TVSpeakerEmul", "[IN]TVSpeakerEmul::UnsetEventHandler",
                            "[OUT]TVSpeakerEmul::UnsetEventHandler", "[OUT]TVSpeakerEmul::~TVSpeakerEmul",
                            "[IN]TVSpeaker::~TVSpeaker", "[IN]TVSpeaker::UnsetEventHandler",
                            "[OUT]TVSpeaker::UnsetEventHandler", "[OUT]TVSpeaker::~TVSpeaker"));
}

TEST_F(TVSpeakerEmulTest, DestructionDropsItsOwnHandlersAndLeavesTheRegistrations) {
    Watch();
    speaker.reset();
    EXPECT_THAT(Errors(), ElementsAre("TVSpeaker.cpp UnsetEventHandler")) << "the inherited pair was empty";
    EXPECT_NE(seam.TvMasterMuteRegistration().callback, nullptr);
}

}  // namespace
