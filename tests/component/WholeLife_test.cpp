// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

using testing::IsEmpty;

/** Looks for leaks now. The address sanitizer's runtime defines it; without that it is null. */
extern "C" [[gnu::weak]] int __lsan_do_recoverable_leak_check();

namespace {

/** Tests that a daemon that has done everything once releases all its resources when it ends. */
class WholeLifeTest : public DaemonTest {
protected:
    void CallEverything() {
        for (int i = 0; i < 3; ++i) {
            Call("GetSpeakerSupportType");
            Call("SetSpeakerVolume", g_variant_new("(i)", 20 + i));
            Call("GetSpeakerVolume");
            Call("SetSpeakerMute", g_variant_new("(b)", i % 2 == 0));
            Call("GetSpeakerMute");
            Call("ApplyPlayerFadeIn", g_variant_new("(i)", i));
            Call("ApplyUnmuteFadeIn", g_variant_new("(i)", i));
            Call("ResetPlayerGain", g_variant_new("(i)", i));
            Call("ApplyGainOnMute", g_variant_new("(ii)", i, 40));
            Call("NoSuchMethod");
            Call("SetSpeakerVolume", g_variant_new("(s)", "loud"));
        }
    }
    void EmitEverything() {
        for (const char* name : {"BudsConnected", "BudsDisconnected", "SpkDisconnected",
                                 "ApplyPulseAudioGain", "SpeakerChangeRequest"}) {
            Emit(name, g_variant_new("(i)", 1));
            Emit(name, g_variant_new("(is)", 3, "Box"));
            Emit(name, g_variant_new("(ii)", 50, 100));
            Emit(name, nullptr);
        }
    }
    void ReportEverything() {
        seam.SetZones({{1, 3}, {2, 0}});
        for (const char* view : {R"({"mode":"on"})", "{", R"({"mode":"off"})"}) {
            seam.FireKey("memory/multiscreen/info", view);
            seam.FireFocus(1);
            seam.FireZoneRoute(4, 1);
            seam.FireKey("memory/sysman/spdif", 0);
            seam.FireKey("memory/menu/network/screenmirroring/smsrc_status", 1);
            seam.FireKey("memory/menu/network/screenmirroring/smsrc_status", 0);
            seam.FireKey("memory/org.olvane.btapp/sub_audio_zoneid", 2);
        }
        for (int route = -1; route < 21; ++route) {
            seam.FireRoute(route);
            Call("SetSpeakerVolume", g_variant_new("(i)", 50));
            Call("GetSpeakerMute");
        }
        seam.FireRoute(0);
        seam.FireVolume(60);
        seam.FireMute(1);
    }
};

TEST_F(WholeLifeTest, LeavesNothingBehind) {
    seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
    seam.SetEvent("FadeInPopup", true);
    Start();
    {
        const fake::BusClient another;
        another.Emit(PUBLIC_PATH, INTERFACE, "BudsConnected", g_variant_new("(i)", 1));
    }
    CallEverything();
    EmitEverything();
    ReportEverything();
    EXPECT_EQ(Call("GetSpeakerVolume"), "(60, 0)");
    daemon.reset();

    EXPECT_EQ(seam.RouteRegistration().callback, nullptr);
    EXPECT_EQ(seam.ZoneRouteRegistration().callback, nullptr);
    EXPECT_EQ(seam.VolumeRegistration().callback, nullptr);
    EXPECT_EQ(seam.MuteRegistration().callback, nullptr);
    EXPECT_THAT(seam.FocusRegistrations(), IsEmpty());
    for (const fake::Entry& entry : journal.All().Entries()) {
        if (entry.name == "vconf_notify_key_changed") {
            const auto first = entry.text.find('"') + 1;
            const std::string key = entry.text.substr(first, entry.text.rfind('"') - first);
            EXPECT_THAT(seam.Watches(key), IsEmpty()) << key;
        }
    }
    std::string error;
    EXPECT_EQ(client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, "GetSpeakerVolume", nullptr, &error), nullptr);
    EXPECT_THAT(error, testing::HasSubstr("ServiceUnknown")) << "the name is still owned";
    if (__lsan_do_recoverable_leak_check != nullptr) {
        EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
    }
}

TEST_F(WholeLifeTest, TheNextDaemonOfTheProcessStartsAsNew) {
    for (int life = 0; life < 3; ++life) {
        seam.Reset();
        Start();
        EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(0,)");
        Emit("BudsConnected", g_variant_new("(i)", 1));
        EXPECT_EQ(journal.With("I Buds Connected. reason:1").Count(), 1);
        daemon.reset();
    }
}

}  // namespace
