// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

using testing::Contains;
using testing::ElementsAre;

namespace {

constexpr const char* USB_SUPPORT = "db/usbsound/volume_capability";
constexpr const char* USB_VOLUME = "db/usbsound/volume_level";

std::string Reply(const std::string& body) {
    return "g_dbus_method_invocation_return_value(" + body + ')';
}

/** Tests the five methods for volume, mute and support word with the whole daemon. */
class VolumeMethodsTest : public DaemonTest {
protected:
    void SetUp() override { Start(); }

    /** The main loop's calls and lines, without those lines of the volume control object and of the outputs. */
    std::vector<std::string> OfRequests() const {
        return MainLoop().By("KVServer.cpp", "KVDbusSender.cpp", "KVDbusEventHandler.cpp").Lines();
    }
    void SwitchToUsb(int support) {
        seam.SetInt(USB_SUPPORT, support);
        seam.SetInt(USB_VOLUME, 7);
        seam.FireRoute(15);
        Call("GetSpeakerSupportType");
        seam.Clear();
    }
};

TEST_F(VolumeMethodsTest, GetSupportType) {
    EXPECT_EQ(Call("GetSpeakerSupportType"), "(65535, 0)");
    EXPECT_THAT(MainLoop().Lines(),
                ElementsAre(StartLine("method", "GetSpeakerSupportType"), CallerLine(),
                            "_OnGetSpeakerSupportType: I Return Current support type(0xffff), ret:0",
                            Reply("(65535, 0)")));
}

TEST_F(VolumeMethodsTest, GetSupportTypeThatCannotBeReadAnswersZeroAndTheStatus) {
    SwitchToUsb(5);
    seam.RemoveKey(USB_SUPPORT);
    EXPECT_EQ(Call("GetSpeakerSupportType"), "(0, -1)");
    EXPECT_THAT(MainLoop().Logs().Lines(),
                Contains("_OnGetSpeakerSupportType: I Return Current support type(0x0000), ret:-1"));
}

TEST_F(VolumeMethodsTest, ASupportTypeIsLoggedInAtLeastFourDigits) {
    SwitchToUsb(5);
    EXPECT_EQ(Call("GetSpeakerSupportType"), "(5, 0)");
    EXPECT_THAT(MainLoop().Logs().Lines(),
                Contains("_OnGetSpeakerSupportType: I Return Current support type(0x0005), ret:0"));
    seam.SetInt(USB_SUPPORT, -1);
    EXPECT_EQ(Call("GetSpeakerSupportType"), "(-1, 0)");
    EXPECT_THAT(MainLoop().Logs().Lines(),
                Contains("_OnGetSpeakerSupportType: I Return Current support type(0xffffffff), ret:0"));
}

TEST_F(VolumeMethodsTest, SetVolume) {
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(0,)");
    EXPECT_THAT(OfRequests(), ElementsAre(StartLine("method", "SetSpeakerVolume"), CallerLine(),
                                          "audio_set_master_volume(30, 1)",
                                          "onVolumeChanged: I Send dbus signal VolumeChanged : 30",
                                          "g_dbus_connection_emit_signal(*, /Org/Olvane/KavrelInternal, "
                                          "org.olvane.kavrel.SpeakerVolumeChanged, (65535, 30))",
                                          "_OnSetSpeakerVolume: I Return volume 30. ret:0", Reply("(0,)")));
}

TEST_F(VolumeMethodsTest, ANegativeVolumeIsPassedOnAndTheAnswerIsTheOutputs) {
    seam.Fail("audio_set_master_volume", -22);
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", -5)), "(-22,)");
    EXPECT_THAT(journal.Calls("audio_").Texts(), ElementsAre("audio_set_master_volume(-5, 1)"));
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains("_OnSetSpeakerVolume: I Return volume -5. ret:-22"));
}

TEST_F(VolumeMethodsTest, AVolumeAboveTheRangeIsRefusedByTheOperation) {
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 101)), "(-2,)");
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 2147483647)), "(-2,)");
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 100)), "(0,)");
    EXPECT_THAT(journal.Calls("audio_").Texts(), ElementsAre("audio_set_master_volume(100, 1)"));
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains("_OnSetSpeakerVolume: I Return volume 101. ret:-2"));
}

TEST_F(VolumeMethodsTest, GetVolume) {
    EXPECT_EQ(Call("GetSpeakerVolume"), "(10, 0)");
    EXPECT_THAT(
        OfRequests(),
        ElementsAre(StartLine("method", "GetSpeakerVolume"), CallerLine(), "audio_get_master_volume()",
                    "_OnGetSpeakerVolume: I Return Current volume state(10), ret:0", Reply("(10, 0)")));
}

TEST_F(VolumeMethodsTest, GetVolumeThatFailsAnswersZeroAndTheStatusInOneReply) {
    seam.Fail("audio_get_master_volume", -1002);
    EXPECT_EQ(Call("GetSpeakerVolume"), "(0, -1002)");
    EXPECT_THAT(MainLoop().Logs().Lines(),
                Contains("_OnGetSpeakerVolume: I Return Current volume state(0), ret:-1002"));
    EXPECT_EQ(journal.With(Reply("(0, -1002)")).Count(), 1);
}

TEST_F(VolumeMethodsTest, OperationsThatTheOutputDoesNotHaveAnswerMinusFour) {
    SwitchToUsb(0);
    EXPECT_EQ(Call("GetSpeakerVolume"), "(0, -4)");
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 5)), "(-4,)");
    EXPECT_EQ(Call("GetSpeakerMute"), "(0, -4)");
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(-4,)");
}

TEST_F(VolumeMethodsTest, SetMute) {
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(0,)");
    EXPECT_THAT(
        OfRequests(),
        ElementsAre(StartLine("method", "SetSpeakerMute"), CallerLine(), "audio_set_master_mute(true)",
                    "onMuteChanged: I Send dbus signal MuteChanged : 1",
                    "g_dbus_connection_emit_signal(*, /Org/Olvane/KavrelInternal, "
                    "org.olvane.kavrel.SpeakerMuteChanged, (65535, true))",
                    "_OnSetSpeakerMute: I Return set mute status 1. ret:0", Reply("(0,)")));
}

TEST_F(VolumeMethodsTest, AnUnmuteIsPassedOnAsFalse) {
    seam.SetMute(true);
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", FALSE)), "(0,)");
    EXPECT_THAT(journal.Calls("audio_set_master_mute").Texts(), ElementsAre("audio_set_master_mute(false)"));
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains("_OnSetSpeakerMute: I Return set mute status 0. ret:0"));
}

TEST_F(VolumeMethodsTest, AFailedMuteIsItsStatus) {
    seam.Fail("audio_set_master_mute", -3);
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(-3,)");
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains("_OnSetSpeakerMute: I Return set mute status 1. ret:-3"));
}

TEST_F(VolumeMethodsTest, GetMute) {
    seam.SetMute(true);
    EXPECT_EQ(Call("GetSpeakerMute"), "(1, 0)");
    EXPECT_THAT(OfRequests(),
                ElementsAre(StartLine("method", "GetSpeakerMute"), CallerLine(), "audio_get_master_mute()",
                            "_OnGetSpeakerMute: I Return Current mute state(1), ret:0", Reply("(1, 0)")));
}

TEST_F(VolumeMethodsTest, GetMuteThatFailsAnswersZeroAndTheStatus) {
    seam.SetMute(true);
    seam.Fail("audio_get_master_mute", -13);
    EXPECT_EQ(Call("GetSpeakerMute"), "(0, -13)");
    EXPECT_THAT(MainLoop().Logs().Lines(),
                Contains("_OnGetSpeakerMute: I Return Current mute state(0), ret:-13"));
}

TEST_F(VolumeMethodsTest, APositiveStatusOfThePlatformIsPassedOnToo) {
    seam.Fail("audio_get_master_volume", 3);
    EXPECT_EQ(Call("GetSpeakerVolume"), "(0, 3)");
    seam.Fail("audio_set_master_mute", 4);
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(4,)");
}

}  // namespace
