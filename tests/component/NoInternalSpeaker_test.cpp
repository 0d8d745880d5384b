// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/**
 * Tests the daemon on a TV without internal speaker, whose default output is the optical one. It needs its
 * own process, because the daemon asks the platform for the default output only once.
 */
class NoInternalSpeakerTest : public DaemonTest {
protected:
    void SetUp() override {
        seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
        Start();
    }
    void Move(int previous, int route) {
        seam.FireRoute(previous);
        seam.FireRoute(route);
        seam.Clear();
    }
    std::vector<std::string> OfHandler() {
        auto lines = MainLoop().Lines();
        std::erase_if(lines, [](const std::string& line) {
            return !line.starts_with("_OnBuds") && !line.starts_with("_OnSpeakerDis") &&
                   !line.starts_with("sound_manager_set");
        });
        return lines;
    }
};

TEST_F(NoInternalSpeakerTest, AHeadsetThatGoesLeavesTheOpticalOutputToOthersToSwitchTo) {
    Move(19, 3);
    client.Listen(PUBLIC_PATH, INTERFACE);
    Emit("BudsDisconnected", g_variant_new("(i)", 0));
    EXPECT_THAT(OfHandler(),
                ElementsAre("_OnBudsDisconnected: I Previous(type:19). Set to Default Output(1)",
                            "_OnBudsDisconnected: I Buds disconnected. Connect to previous(type:1)"));
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 2U);
    EXPECT_EQ(signals[1].body, "(1, 1)");
    EXPECT_FALSE(daemon->Server().getCurrentSpeaker()->GetMuteOnSpkChanged());
}

TEST_F(NoInternalSpeakerTest, AnOutputThatGoesFallsBackToTheOpticalOne) {
    Move(15, 4);
    Emit("SpkDisconnected", g_variant_new("(is)", 4, "Box"));
    EXPECT_THAT(OfHandler(),
                ElementsAre("_OnSpeakerDisconnected: I Previous(type:15). Set to Default Output(1)",
                            "_OnSpeakerDisconnected: I Speaker(type:4):Box disconnected. Connect to "
                            "previous(type:1)",
                            "sound_manager_set_speaker_selection(1)"));
}

TEST_F(NoInternalSpeakerTest, AnUnreadableRouteIsTheOpticalOne) {
    seam.Fail("sound_manager_get_speaker_selection", -5);
    daemon.reset();
    seam.Clear();
    Start();
    EXPECT_EQ(daemon->Server().getCurrentSpeaker()->GetSpeakerSelection(), 1);
}

TEST_F(NoInternalSpeakerTest, BeforeAnyChangeThePreviousOutputIsTheOpticalOne) {
    Emit("BudsDisconnected", g_variant_new("(i)", 0));
    EXPECT_THAT(OfHandler(),
                ElementsAre("_OnBudsDisconnected: I Buds disconnected. Connect to previous(type:1)"));
}

}  // namespace
