// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "BTSpeakerEmul.h"

#include <functional>
#include <optional>

#include "EmulatorPeer.h"

using NKavrel::BTSpeakerEmul;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string SUPPORT_KEY = "memory/menu/network/screenmirroring/volume_support_bt";
const std::string LEVEL_KEY = "memory/menu/network/screenmirroring/get_volume_level_bt";
const std::string MUTE_KEY = "memory/menu/network/screenmirroring/get_volume_mute_bt";
const std::string WATCH_MUTE = "vconf_notify_key_changed(\"" + MUTE_KEY + "\")";
const std::string WATCH_SUPPORT = "vconf_notify_key_changed(\"" + SUPPORT_KEY + "\")";
const std::string IGNORE_MUTE = "vconf_ignore_key_changed(\"" + MUTE_KEY + "\")";
const std::string IGNORE_SUPPORT = "vconf_ignore_key_changed(\"" + SUPPORT_KEY + "\")";
const std::string GET_SUPPORT = "vconf_get_int(\"" + SUPPORT_KEY + "\")";
constexpr const char* FILE_NAME = "BTSpeakerEmul.cpp";

std::string PeerCall(const std::string& methodAndArguments) {
    return "g_dbus_connection_call_sync(com.norvik.tv.bt.connectionmanager, "
           "/com/norvik/tv/bt/connectionmanager, "
           "com.norvik.tv.bt.connectionmanager.speaker." +
           methodAndArguments + ", *, 0, -1)";
}

class BTSpeakerEmulTest : public fake::EmulatorTest {
protected:
    BTSpeakerEmulTest()
        : EmulatorTest("com.norvik.tv.bt.connectionmanager", "/com/norvik/tv/bt/connectionmanager",
                       "com.norvik.tv.bt.connectionmanager.speaker") {
        seam.SetInt(SUPPORT_KEY, 0xF);
        seam.Clear();
    }

    void Watch() {
        speaker->SetEventHandler(VolumeHandler(), MuteHandler());
        speaker->SetChangedCB();
        seam.Clear();
    }

    std::optional<BTSpeakerEmul> speaker = std::optional<BTSpeakerEmul>(std::in_place);
};

TEST_F(BTSpeakerEmulTest, GetVolumeAsksTheConnectionManagerAfterTheSupportCheck) {
    int volume = -1;
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(volume, 17);
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(GET_SUPPORT, PeerCall("GetSpkVolume, ()"),
                                                   "GetVolume: I current TV Speaker volume [3 17 0]"));
    result = 5;
    EXPECT_EQ(speaker->GetVolume(volume), 5);
    EXPECT_EQ(volume, 17);
}

TEST_F(BTSpeakerEmulTest, SetVolumeSucceedsWhateverTheConnectionManagerAnswers) {
    first = -1;
    result = -8;
    EXPECT_EQ(speaker->SetVolume(30), 0);
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(GET_SUPPORT, PeerCall("SetSpkVolume, (30,)"),
                                                   "SetVolume: I current TV Speaker volume [-1 -8]"));
    EXPECT_THAT(peer.Calls(), ElementsAre("SetSpkVolume(30,)"));
}

TEST_F(BTSpeakerEmulTest, FailedCallsLeaveTheCallersValue) {
    refuses = true;
    int volume = 42;
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(volume, 42);
    EXPECT_EQ(speaker->SetVolume(30), -1);
    EXPECT_THAT(Errors(), ElementsAre("KVUtils.cpp DbusCallSync", "KVUtils.cpp DbusCallSync"));
}

TEST_F(BTSpeakerEmulTest, AReplyOfAnotherTypeIsTreatedAsAFailure) {
    int volume = 42;
    gio::ReplyToNextCall(g_variant_new("(iis)", 3, 17, "x"));
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(volume, 42);
    gio::ReplyToNextCall(g_variant_new("()"));
    EXPECT_EQ(speaker->SetVolume(30), -1);
    EXPECT_EQ(journal.With("E Invalid reply to GetSpkVolume: expected (iii), got (iis)").Function(),
              "GetVolume");
    EXPECT_EQ(journal.With("E Invalid reply to SetSpkVolume: expected (ii), got ()").Function(), "SetVolume");
}

TEST_F(BTSpeakerEmulTest, WithoutTheSupportBitNobodyIsCalled) {
    seam.SetInt(SUPPORT_KEY, 0x1);
    EXPECT_EQ(speaker->SetVolume(30), -4);
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(GET_SUPPORT, "SetVolume: E SET VOLUME is not supported."));

    speaker.emplace();
    seam.SetInt(SUPPORT_KEY, 0x2);
    seam.Clear();
    int volume = 42;
    EXPECT_EQ(speaker->GetVolume(volume), -4);
    EXPECT_EQ(volume, 42);
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(GET_SUPPORT, "GetVolume: E GET VOLUME is not supported."));
    EXPECT_THAT(peer.Calls(), IsEmpty());
}

TEST_F(BTSpeakerEmulTest, AnUnreadableSupportWordRefusesBoth) {
    seam.RemoveKey(SUPPORT_KEY);
    int volume = 42;
    EXPECT_EQ(speaker->GetVolume(volume), -4);
    EXPECT_EQ(speaker->SetVolume(30), -4);
    EXPECT_THAT(Errors(), ElementsAre("KVUtils.cpp VconfGetInt", "ExternalSpeaker.cpp CheckSupport",
                                      "BTSpeakerEmul.cpp GetVolume", "KVUtils.cpp VconfGetInt",
                                      "ExternalSpeaker.cpp CheckSupport", "BTSpeakerEmul.cpp SetVolume"));
    EXPECT_THAT(peer.Calls(), IsEmpty());
}

TEST_F(BTSpeakerEmulTest, MuteAndSupportAreThoseOfTheBluetoothKeys) {
    seam.SetInt(MUTE_KEY, 2);
    bool mute = false;
    int support = 0;
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_TRUE(mute);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_EQ(seam.Value("memory/menu/network/screenmirroring/set_volume_mute"), "1");
    EXPECT_EQ(speaker->GetVolumeSupportType(support), 0);
    EXPECT_EQ(support, 0xF);
    EXPECT_THAT(peer.Calls(), IsEmpty());
}

TEST_F(BTSpeakerEmulTest, WatchesMuteThenSupportThenTheSignalOnceAndNeverTheLevel) {
    speaker->SetChangedCB();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(WATCH_MUTE, WATCH_SUPPORT, fake::SUBSCRIBE_CALL));
    EXPECT_THAT(seam.Watches(LEVEL_KEY), IsEmpty());
}

TEST_F(BTSpeakerEmulTest, AFailedMuteWatchStopsThere) {
    seam.Fail(WATCH_MUTE, -1, 1);
    speaker->SetChangedCB();
    EXPECT_THAT(By(FILE_NAME).Lines(),
                ElementsAre(WATCH_MUTE, "SetChangedCB: E get_volume_mute callback set failed"));
    seam.Clear();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());
}

TEST_F(BTSpeakerEmulTest, AFailedSupportWatchLeavesTheMuteOneAndTheNextTryMakesAllAgain) {
    seam.Fail(WATCH_SUPPORT, -1, 1);
    speaker->SetChangedCB();
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(WATCH_MUTE, WATCH_SUPPORT,
                                                   "SetChangedCB: E get_volume_support callback set failed"));
    EXPECT_EQ(seam.Watches(MUTE_KEY).size(), 1U);
    seam.Clear();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(WATCH_MUTE, WATCH_SUPPORT, fake::SUBSCRIBE_CALL));
}

TEST_F(BTSpeakerEmulTest, AVolumeSignalReachesTheHandlerWithItsThirdValue) {
    Watch();
    Announce(g_variant_new("(iii)", 3, 15, 12));
    const std::string line =
        "I Start sender:" + client.Name() + " signal_name:SpkVolumeChanged route:3, suppType:0x000f vol:12";
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(line));
    EXPECT_EQ(journal.With(line).Function(), "OnVolumeLevelChanged");
    EXPECT_THAT(heard, ElementsAre("volume 12"));
    Announce(g_variant_new("(iii)", 3, 1, 13));
    EXPECT_TRUE(speaker->CheckSupport(0xF)) << "the support word is that of the setting";
}

TEST_F(BTSpeakerEmulTest, ASignalOfAnotherTypeIsDropped) {
    Watch();
    Announce(g_variant_new("(iiu)", 0, 1, 2));
    constexpr const char* line = "E Invalid parameters of signal SpkVolumeChanged: expected (iii), got (iiu)";
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(line));
    EXPECT_EQ(journal.With(line).Function(), "OnVolumeLevelChanged");
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(BTSpeakerEmulTest, ASignalWithoutConnectionNameOrUserDataIsDroppedInThisOrder) {
    Watch();
    GDBusConnection* connection = NKavrel::KVUtils::GetConnection();
    const tools::Variant body(g_variant_ref_sink(g_variant_new("(iii)", 0, 1, 2)));
    BTSpeakerEmul::OnVolumeLevelChanged(nullptr, nullptr, nullptr, nullptr, nullptr, body.get(), nullptr);
    BTSpeakerEmul::OnVolumeLevelChanged(connection, nullptr, nullptr, nullptr, nullptr, body.get(), nullptr);
    BTSpeakerEmul::OnVolumeLevelChanged(connection, nullptr, nullptr, nullptr, "Name", body.get(), nullptr);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E Conneciton is NULL", "E signal_name is NULL", "E userdata is NULL"));
    for (const std::string& line : journal.Here().Texts()) {
        EXPECT_EQ(journal.With(line).Function(), "OnVolumeLevelChanged");
    }
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(BTSpeakerEmulTest, TheMuteAndSupportKeysAreWatchedTheLevelKeyIsNot) {
    Watch();
    EXPECT_EQ(seam.FireKey(LEVEL_KEY, 9), 0);
    EXPECT_EQ(seam.FireKey(MUTE_KEY, 2), 1);
    EXPECT_EQ(seam.FireKey(SUPPORT_KEY, 5), 1);
    EXPECT_THAT(heard, ElementsAre("mute 2"));
    EXPECT_EQ(speaker->SetVolume(1), -4) << "the announced word counts at once";
}

TEST_F(BTSpeakerEmulTest, AReportWithoutHandlersRaisesTheEmptyCallableException) {
    speaker->SetChangedCB();
    const tools::Variant body(g_variant_ref_sink(g_variant_new("(iii)", 0, 1, 2)));
    EXPECT_THROW(BTSpeakerEmul::OnVolumeLevelChanged(NKavrel::KVUtils::GetConnection(), ":1.1", "", "",
                                                     "Name", body.get(), &*speaker),
                 std::bad_function_call);
}

TEST_F(BTSpeakerEmulTest, UnsettingRemovesMuteThenSupportThenTheSignal) {
    Watch();
    speaker->UnsetChangedCB();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(IGNORE_MUTE, IGNORE_SUPPORT));
    Announce(g_variant_new("(iii)", 0, 1, 2));
    EXPECT_THAT(heard, IsEmpty());
    speaker->SetChangedCB();
    Announce(g_variant_new("(iii)", 0, 1, 3));
    EXPECT_THAT(heard, ElementsAre("volume 3"));
}

TEST_F(BTSpeakerEmulTest, AFailedRemovalSaysTheSameForBothKeysAndLeavesTheSignal) {
    Watch();
    seam.Fail(IGNORE_MUTE, -1, 1);
    speaker->UnsetChangedCB();
    const std::string line = "UnsetChangedCB: E get_volume_mute callback unset failed";
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(IGNORE_MUTE, line));
    seam.Clear();
    seam.Fail(IGNORE_SUPPORT, -1, 1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(By(FILE_NAME).Lines(), ElementsAre(IGNORE_MUTE, IGNORE_SUPPORT, line));
    Announce(g_variant_new("(iii)", 0, 1, 2));
    EXPECT_THAT(heard, ElementsAre("volume 2"));
}

TEST_F(BTSpeakerEmulTest, DestructionIsTheExternalSpeakers) {
    speaker.reset();
    EXPECT_THAT(Errors(), ElementsAre("ExternalSpeaker.cpp UnsetEventHandler"));
    EXPECT_THAT(journal.Here().Calls().Texts(), IsEmpty());
    EXPECT_THAT(
        journal.Traces().Names(),
        ElementsAre("[IN]BTSpeakerEmul::~BTSpeakerEmul", "[OUT]BTSpeakerEmul::~BTSpeakerEmul",
                    "[IN]ExternalSpeaker::~ExternalSpeaker", "[IN]ExternalSpeaker::UnsetEventHandler",
                    "[OUT]ExternalSpeaker::UnsetEventHandler", "[OUT]ExternalSpeaker::~ExternalSpeaker"));
}

}  // namespace
