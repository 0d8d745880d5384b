// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"
#include "KVDefine.h"

using NKavrel::KVServer;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string Emission(const std::string& nameAndBody) {
    return "g_dbus_connection_emit_signal(*, /Org/Olvane/KavrelInternal, org.olvane.kavrel." + nameAndBody +
           ')';
}

/** Calls the server's three change handlers as the volume control object calls them. */
class ChangeSignalsTest : public ServerTest {
protected:
    void SetUp() override {
        InitWithoutName();
        KVServer::onNameAcquired(Shared(), BUS_NAME, server.get());
        seam.Clear();
    }
    NKavrel::VolumeControlImpl& Control() { return *server->getCurrentSpeaker(); }
    /** Makes `previous` the previous output and `route` the present one. */
    void MovePrevious(int previous, int route) {
        seam.FireRoute(previous);
        seam.FireRoute(route);
        ASSERT_EQ(Control().GetPrevSpeakerSelection(), previous);
        seam.Clear();
    }
};

/** Tests the change signals that the whole daemon sends. */
class ChangeSignalsOfTheDaemonTest : public DaemonTest {
protected:
    void SetUp() override {
        Start();
        client.Listen(OBJECT_PATH, INTERFACE);
    }
};

// Volume.

TEST_F(ChangeSignalsTest, AVolumeChangeWithoutAServerIsRefused) {
    KVServer::onVolumeChanged(1, 2, nullptr);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onVolumeChanged: E pObj is NULL"));
}

TEST_F(ChangeSignalsTest, AVolumeChangeIsLoggedThenEmitted) {
    KVServer::onVolumeChanged(0xFFFF, 30, server.get());
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onVolumeChanged: I Send dbus signal VolumeChanged : 30",
                                                    Emission("SpeakerVolumeChanged, (65535, 30)")));
}

TEST_F(ChangeSignalsTest, ValuesAreEmittedAsTheyCome) {
    KVServer::onVolumeChanged(-1, -2147483647 - 1, server.get());
    EXPECT_THAT(journal.Here().Lines(), Contains(Emission("SpeakerVolumeChanged, (-1, -2147483648)")));
}

TEST_F(ChangeSignalsTest, AVolumeChangeThatCannotBeEmittedIsLoggedAndNotRepeated) {
    seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED);
    KVServer::onVolumeChanged(1, 30, server.get());
    EXPECT_THAT(
        journal.Here().Lines(),
        ElementsAre("onVolumeChanged: I Send dbus signal VolumeChanged : 30",
                    Emission("SpeakerVolumeChanged, (1, 30)"),
                    "onVolumeChanged: E Failed g_dbus_connection_emit_signal(). err=refused by the test"));
    seam.Clear();
    seam.Fail("g_dbus_connection_emit_signal", gio::NOTHING);
    KVServer::onVolumeChanged(1, 30, server.get());
    EXPECT_THAT(journal.Here().Lines(),
                Contains("onVolumeChanged: E Failed g_dbus_connection_emit_signal(). err=(null)"));
    seam.Succeed("g_dbus_connection_emit_signal");
    seam.Clear();
    KVServer::onVolumeChanged(1, 31, server.get());
    EXPECT_THAT(journal.Calls("g_").Texts(), ElementsAre(Emission("SpeakerVolumeChanged, (1, 31)")));
}

// Mute.

TEST_F(ChangeSignalsTest, AMuteChangeWithoutAServerIsRefused) {
    KVServer::onMuteChanged(1, 1, nullptr);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onMuteChanged: E pObj is NULL"));
}

TEST_F(ChangeSignalsTest, AMuteChangeIsLoggedThenEmittedAsABoolean) {
    KVServer::onMuteChanged(15, 0, server.get());
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onMuteChanged: I Send dbus signal MuteChanged : 0",
                                                    Emission("SpeakerMuteChanged, (15, false)")));
}

TEST_F(ChangeSignalsTest, EveryMuteValueButZeroIsTrue) {
    for (const int mute : {5, 1, -1, 0x100}) {
        seam.Clear();
        KVServer::onMuteChanged(15, mute, server.get());
        EXPECT_THAT(journal.Here().Lines(), ElementsAre("onMuteChanged: I Send dbus signal MuteChanged : 1",
                                                        Emission("SpeakerMuteChanged, (15, true)")));
    }
}

TEST_F(ChangeSignalsTest, AMuteChangeThatCannotBeEmittedIsLogged) {
    seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED);
    KVServer::onMuteChanged(1, 1, server.get());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre("onMuteChanged: I Send dbus signal MuteChanged : 1",
                            "onMuteChanged: E Failed g_dbus_connection_emit_signal(). err=refused by the "
                            "test"));
}

TEST_F(ChangeSignalsTest, WithoutAConnectionNothingIsEmittedThenOrLater) {
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    seam.Clear();
    KVServer::onVolumeChanged(1, 30, server.get());
    KVServer::onMuteChanged(1, 1, server.get());
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("onVolumeChanged: E Connection is NULL", "onMuteChanged: E Connection is NULL"));
    KVServer::onNameAcquired(Shared(), BUS_NAME, server.get());
    EXPECT_THAT(journal.Calls("g_dbus_connection_emit_signal").Texts(), IsEmpty());
}

// The output.

TEST_F(ChangeSignalsTest, AnOutputChangeWithoutAServerIsRefused) {
    KVServer::onSpeakerChanged(1, 2, nullptr);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onSpeakerChanged: E pObj is NULL"));
}

TEST_F(ChangeSignalsTest, AReportOfThePreviousOutputIsADuplicateEachTime) {
    MovePrevious(12, 0);
    Control().SetMuteOnSpkChanged(true);
    KVServer::onSpeakerChanged(15, 12, server.get());
    KVServer::onSpeakerChanged(15, 12, server.get());
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onSpeakerChanged: E Speaker type is same:12",
                                                    "onSpeakerChanged: E Speaker type is same:12"));
    EXPECT_TRUE(Control().GetMuteOnSpkChanged());
}

TEST_F(ChangeSignalsTest, AnOutputChangeBringsTheUnmuteGainToFullOnBothOutputs) {
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, 40, KVDefine::AUDIO_PATH_BOTH, false);
    ASSERT_EQ(seam.MainGainValue(), 40);
    ASSERT_EQ(seam.SubGainValue(), 40);
    seam.Clear();
    KVServer::onSpeakerChanged(0xFFFF, 12, server.get());
    EXPECT_EQ(seam.MainGainValue(), 100);
    EXPECT_EQ(seam.SubGainValue(), 100);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->12]. mode:0xffff, gainMax(ret:0)"));
    EXPECT_THAT(journal.Calls("audio_set_master_mute").Texts(), IsEmpty());
    EXPECT_THAT(journal.Calls("g_").Texts(), IsEmpty()) << "an output change is not broadcast";
    seam.FireKey("memory/org.olvane.btapp/sub_audio_zoneid", 2);
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, 40, KVDefine::AUDIO_PATH_MAIN_OUT, false);
    KVServer::onSpeakerChanged(0xFFFF, 12, server.get());
    EXPECT_EQ(seam.MainGainValue(), 100) << "also with a headset in a zone";
}

TEST_F(ChangeSignalsTest, TheStatusOfTheGainRequestIsLogged) {
    seam.Fail("AudioControl_getInstance", 0);
    KVServer::onSpeakerChanged(5, 12, server.get());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->12]. mode:0x0005, gainMax(ret:-1)"));
}

TEST_F(ChangeSignalsTest, TheGainRequestIsForcedThroughOnTheMultiOutputRoute) {
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, 40, KVDefine::AUDIO_PATH_BOTH, false);
    seam.FireRoute(6);  // the daemon handles the report and sets the full gain itself
    EXPECT_EQ(seam.MainGainValue(), 100);
    EXPECT_THAT(journal.Here().Logs(DLOG_ERROR).By("VolumeControlImpl.cpp").Lines(), IsEmpty());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->6]. mode:0xffff, gainMax(ret:0)"));
}

TEST_F(ChangeSignalsTest, WhileMirroredToAMobileTheGainStaysAndTheStatusIsZero) {
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, 40, KVDefine::AUDIO_PATH_BOTH, false);
    seam.FireKey("memory/menu/network/screenmirroring/smsrc_status", 1);
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_PLAYER, 70, KVDefine::AUDIO_PATH_BOTH, false);
    const int before = seam.MainGainValue();
    seam.Clear();
    KVServer::onSpeakerChanged(1, 12, server.get());
    EXPECT_EQ(seam.MainGainValue(), before);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("onSpeakerChanged: I Speaker changed[0->12]. mode:0x0001, gainMax(ret:0)"));
}

TEST_F(ChangeSignalsTest, ARequestedMuteMutesTheNewOutputOnceAndLeavesTheGain) {
    Control().ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, 40, KVDefine::AUDIO_PATH_BOTH, false);
    Control().SetMuteOnSpkChanged(true);
    KVServer::onSpeakerChanged(1, 12, server.get());
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_TRUE(seam.Mute());
    EXPECT_THAT(journal.Calls("audio_set_master_mute").Texts(), ElementsAre("audio_set_master_mute(true)"));
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(seam.SubGainValue(), 40);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->12]. mode:0x0001, gainMax(ret:0)"));

    seam.Clear();
    KVServer::onSpeakerChanged(1, 13, server.get());
    EXPECT_THAT(journal.Calls("audio_set_master_mute").Texts(), IsEmpty());
    EXPECT_EQ(seam.MainGainValue(), 100);
    EXPECT_EQ(seam.SubGainValue(), 100);
}

TEST_F(ChangeSignalsTest, TheMuteComesBeforeTheFlagIsClearedAndItsFailureIsNotAnnounced) {
    seam.Fail("audio_set_master_mute", -9);
    Control().SetMuteOnSpkChanged(true);
    bool flag = false;
    seam.BeforeNext("audio_set_master_mute", [&] { flag = Control().GetMuteOnSpkChanged(); });
    KVServer::onSpeakerChanged(1, 12, server.get());
    EXPECT_TRUE(flag);
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->12]. mode:0x0001, gainMax(ret:0)"));
}

TEST_F(ChangeSignalsTest, AnOutputChangeNeedsNoConnection) {
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    seam.Clear();
    KVServer::onSpeakerChanged(1, 12, server.get());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onSpeakerChanged: I Speaker changed[0->12]. mode:0x0001, gainMax(ret:0)"));
}

// The whole daemon.

TEST_F(ChangeSignalsOfTheDaemonTest, ASetVolumeIsAnnouncedBeforeItsReply) {
    Wire wire(client);
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(0,)");
    EXPECT_THAT(wire.Messages(), ElementsAre("signal SpeakerVolumeChanged (65535, 30)", "reply (0,)"));
}

TEST_F(ChangeSignalsOfTheDaemonTest, AVolumeThatUnmutesAnnouncesBothBeforeItsReply) {
    Call("SetSpeakerMute", g_variant_new("(b)", TRUE));
    Wire wire(client);
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(0,)");
    EXPECT_THAT(wire.Messages(), ElementsAre("signal SpeakerMuteChanged (65535, false)",
                                             "signal SpeakerVolumeChanged (65535, 30)", "reply (0,)"));
}

TEST_F(ChangeSignalsOfTheDaemonTest, AnEqualVolumeIsNotAnnounced) {
    Call("SetSpeakerVolume", g_variant_new("(i)", 30));
    Wire wire(client);
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(0,)");
    EXPECT_THAT(wire.Messages(), ElementsAre("reply (0,)"));
}

TEST_F(ChangeSignalsOfTheDaemonTest, AReportOfAPlatformThreadIsEmittedFromThatThread) {
    fake::OnPlatformThread([&] { seam.FireVolume(44); });
    const fake::Signal signal = client.WaitForSignal();
    EXPECT_EQ(signal.name, "SpeakerVolumeChanged");
    EXPECT_EQ(signal.path, OBJECT_PATH);
    EXPECT_EQ(signal.body, "(65535, 44)");
    const auto entry = journal.With(Emission("SpeakerVolumeChanged, (65535, 44)")).First();
    EXPECT_NE(entry.thread, daemon->Thread());
    EXPECT_NE(entry.thread, std::this_thread::get_id());
}

TEST_F(ChangeSignalsOfTheDaemonTest, SignalsCarryTheSupportTypeOfThePresentOutput) {
    seam.SetInt("memory/menu/network/screenmirroring/volume_support_auracast", 5);
    seam.SetInt("memory/menu/network/screenmirroring/get_volume_level_auracast", 1);
    seam.FireRoute(19);
    seam.FireKey("memory/menu/network/screenmirroring/get_volume_level_auracast", 9);
    EXPECT_EQ(client.WaitForSignal().body, "(5, 9)");
}

TEST_F(ChangeSignalsOfTheDaemonTest, AnOutputChangeIsNotBroadcast) {
    fake::OnPlatformThread([&] { seam.FireRoute(12); });
    EXPECT_TRUE(journal.With("I Speaker changed[0->12]. mode:0xffff, gainMax(ret:0)").Wait());
    EXPECT_THAT(client.TakeSignals(), IsEmpty());
}

}  // namespace
