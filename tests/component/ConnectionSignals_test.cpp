// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"
#include "VolumeControlImpl.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* MULTIVIEW = "memory/multiscreen/info";
constexpr const char* SUB_BT_ZONE = "memory/org.olvane.btapp/sub_audio_zoneid";

/** Routes to which the daemon may return, without those to which it switches by itself. */
constexpr int FREE_ROUTES[] = {1, 2, 4, 7, 8, 9, 10, 11, 12, 16, 17, 18, 20, -1, 255, G_MAXINT32, G_MININT32};

std::string Request(int target) {
    return "g_dbus_connection_emit_signal(*, /Org/Olvane/Kavrel, org.olvane.kavrel.SpeakerChangeRequest, (" +
           std::to_string(target) + ", 1))";
}

std::string SetRoute(int target) {
    return "sound_manager_set_speaker_selection(" + std::to_string(target) + ')';
}

std::string Substituted(const char* function, int previous, int target) {
    return std::string(function) + ": I Previous(type:" + std::to_string(previous) +
           "). Set to Default Output(" + std::to_string(target) + ')';
}

std::string BudsGone(int target) {
    return "_OnBudsDisconnected: I Buds disconnected. Connect to previous(type:" + std::to_string(target) +
           ')';
}

/** Tests the signals about headsets and outputs that connect or disconnect, with the whole daemon. */
class ConnectionSignalsTest : public DaemonTest {
protected:
    void SetUp() override { Start(); }

    NKavrel::VolumeControlImpl& Control() { return *daemon->Server().getCurrentSpeaker(); }
    /** Makes `previous` the previous output and `route` the present one. */
    void Move(int previous, int route) {
        seam.FireRoute(previous);
        seam.FireRoute(route);
        ASSERT_EQ(Control().GetPrevSpeakerSelection(), previous);
        ASSERT_EQ(Control().GetSpeakerSelection(), route);
        seam.Clear();
    }
    void BudsDisconnected(int reason = 3) { Emit("BudsDisconnected", g_variant_new("(i)", reason)); }
    void SpeakerDisconnected() { Emit("SpkDisconnected", g_variant_new("(is)", 5, "Box")); }
    /**
     * The log lines and calls of the signal's handler, without those of the caller tracker and of later
     * consequences.
     */
    std::vector<std::string> OfHandler() {
        auto lines = MainLoop().Lines();
        std::erase_if(lines, [](const std::string& line) {
            return !line.starts_with("_OnBuds") && !line.starts_with("_OnSpeakerDis") &&
                   !line.starts_with("sound_manager_set") &&
                   !line.starts_with("g_dbus_connection_emit_signal(*, /Org/Olvane/Kavrel,");
        });
        return lines;
    }
};

// A headset connects.

TEST_F(ConnectionSignalsTest, BudsConnectedIsLoggedAndChangesNothing) {
    Move(12, 0);
    Emit("BudsConnected", g_variant_new("(i)", -3));
    EXPECT_THAT(MainLoop().Lines(), ElementsAre(StartLine("signal", "BudsConnected"), CallerLine(),
                                                "_OnBudsConnected: I Buds Connected. reason:-3"));
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_EQ(Control().GetPrevSpeakerSelection(), 12);
}

// A headset disconnects.

TEST_F(ConnectionSignalsTest, BudsDisconnectedBeforeTheTvSpeakerRequestsItThenSwitchesAndMutes) {
    Move(0, 3);
    BudsDisconnected();
    EXPECT_THAT(MainLoop().Lines(),
                HasInOrder({StartLine("signal", "BudsDisconnected"), CallerLine(), Request(0), BudsGone(0),
                            SetRoute(0), "audio_set_master_mute(true)"}));
    EXPECT_TRUE(seam.Mute());
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_EQ(Control().GetSpeakerSelection(), 0);
}

TEST_F(ConnectionSignalsTest, TheMuteIsRequestedBeforeTheRouteIsSet) {
    Move(0, 3);
    seam.ReportOwnChanges(false);
    bool requested = false;
    seam.BeforeNext(SetRoute(0), [&] { requested = Control().GetMuteOnSpkChanged(); });
    BudsDisconnected();
    EXPECT_TRUE(requested);
    EXPECT_TRUE(Control().GetMuteOnSpkChanged()) << "until the change is reported";
    seam.FireRoute(0);
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_TRUE(seam.Mute());
}

TEST_F(ConnectionSignalsTest, TheResultOfSettingTheRouteIsNotLookedAt) {
    Move(0, 3);
    seam.Fail("sound_manager_set_speaker_selection", -5);
    BudsDisconnected();
    EXPECT_THAT(OfHandler(), ElementsAre(Request(0), BudsGone(0), SetRoute(0)));
    EXPECT_TRUE(Control().GetMuteOnSpkChanged());
}

TEST_F(ConnectionSignalsTest, ARequestThatCannotBeSentStopsNothing) {
    Move(0, 3);
    seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED);
    BudsDisconnected();
    EXPECT_THAT(MainLoop().Logs().Lines(),
                HasInOrder({"DbusEmitSignal: E g_dbus_connection_emit_signal 'SpeakerChangeRequest' "
                            "Failed (refused by the test)",
                            BudsGone(0)}));
    EXPECT_THAT(journal.Calls("sound_manager_set").Texts(), Contains(SetRoute(0)));
}

TEST_F(ConnectionSignalsTest, EveryBlockedPreviousOutputIsReplacedByTheDefaultOne) {
    for (const int blocked : {5, 6, 13, 14, 15, 19}) {
        Move(blocked, 3);
        BudsDisconnected();
        EXPECT_THAT(OfHandler(), ElementsAre(Substituted("_OnBudsDisconnected", blocked, 0), Request(0),
                                             BudsGone(0), SetRoute(0)));
    }
}

TEST_F(ConnectionSignalsTest, EveryOtherPreviousOutputIsOnlyRequested) {
    for (const int previous : FREE_ROUTES) {
        Move(previous, 3);
        BudsDisconnected(previous);  // any number is a reason
        EXPECT_THAT(OfHandler(), ElementsAre(Request(previous), BudsGone(previous)));
        EXPECT_FALSE(Control().GetMuteOnSpkChanged());
        EXPECT_EQ(Control().GetSpeakerSelection(), 3);
    }
}

TEST_F(ConnectionSignalsTest, TheRequestReachesOtherClients) {
    Move(2, 3);
    client.Listen(PUBLIC_PATH, INTERFACE);
    BudsDisconnected();
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 2U);
    EXPECT_EQ(signals[1].name, "SpeakerChangeRequest");
    EXPECT_EQ(signals[1].body, "(2, 1)");
}

TEST_F(ConnectionSignalsTest, TheTargetIsChosenBeforeTheParametersAreReadAndNotWhenTheyAreWrong) {
    Move(5, 3);
    Emit("BudsDisconnected", g_variant_new("(s)", "3"));
    EXPECT_THAT(OfHandler(), ElementsAre("_OnBudsDisconnected: E Invalid parameters of signal "
                                         "BudsDisconnected: expected (i), got (s)"));
}

// An output disconnects.

TEST_F(ConnectionSignalsTest, ADisconnectedOutputSetsTheRouteAndRequestsNothing) {
    Move(2, 4);
    SpeakerDisconnected();
    EXPECT_THAT(MainLoop().Lines(),
                HasInOrder({StartLine("signal", "SpkDisconnected"), CallerLine(),
                            "_OnSpeakerDisconnected: I Speaker(type:5):Box disconnected. Connect to "
                            "previous(type:2)",
                            SetRoute(2)}));
    EXPECT_THAT(journal.Calls("g_dbus_connection_emit_signal").Texts(), IsEmpty());
    EXPECT_EQ(Control().GetSpeakerSelection(), 2);
}

TEST_F(ConnectionSignalsTest, ADisconnectedOutputRequestsNoMute) {
    Move(0, 4);
    SpeakerDisconnected();
    EXPECT_FALSE(seam.Mute());
    EXPECT_FALSE(Control().GetMuteOnSpkChanged());
    EXPECT_THAT(journal.Calls("audio_set_master_mute").Texts(), IsEmpty());
}

TEST_F(ConnectionSignalsTest, AnOutputThatIsNotInUseMovesTheRouteAllTheSame) {
    Move(2, 12);
    Emit("SpkDisconnected", g_variant_new("(is)", 19, "Speaker in the garden"));
    EXPECT_THAT(OfHandler(), ElementsAre("_OnSpeakerDisconnected: I Speaker(type:19):Speaker in the garden "
                                         "disconnected. Connect to previous(type:2)",
                                         SetRoute(2)));
    EXPECT_EQ(Control().GetSpeakerSelection(), 2);
}

TEST_F(ConnectionSignalsTest, ADisconnectedOutputFallsBackToTheDefaultToo) {
    for (const int blocked : {5, 6, 13, 14, 15, 19}) {
        Move(blocked, 4);
        SpeakerDisconnected();
        EXPECT_THAT(OfHandler(),
                    ElementsAre(Substituted("_OnSpeakerDisconnected", blocked, 0),
                                "_OnSpeakerDisconnected: I Speaker(type:5):Box disconnected. Connect to "
                                "previous(type:0)",
                                SetRoute(0)));
    }
}

TEST_F(ConnectionSignalsTest, ADisconnectedOutputBringsEveryOtherPreviousOutputBack) {
    for (const int previous : FREE_ROUTES) {
        Move(previous, 3);
        SpeakerDisconnected();
        EXPECT_EQ(journal.With(SetRoute(previous)).Count(), 1);
        EXPECT_EQ(Control().GetSpeakerSelection(), previous);
    }
}

TEST_F(ConnectionSignalsTest, InMultiViewEveryZoneIsSetButThatOfTheSubHeadset) {
    Move(2, 4);
    seam.SetZones({{1, 4}, {2, 3}, {7, 4}});
    seam.SetFocus(1);
    seam.SetInt(SUB_BT_ZONE, 2);
    seam.FireKey(MULTIVIEW, R"({"mode":"on"})");
    seam.Fail("sound_manager_set_multiview_speaker_selection_with_zone_id(2, 7)", -8);
    seam.Clear();
    SpeakerDisconnected();
    EXPECT_THAT(MainLoop().Calls("sound_manager_set").Texts(),
                ElementsAre("sound_manager_set_multiview_speaker_selection_with_zone_id(2, 1)",
                            "sound_manager_set_multiview_speaker_selection_with_zone_id(2, 7)"));
    EXPECT_EQ(seam.Zones(), (std::map<int, int>{{1, 2}, {2, 3}, {7, 4}}));
    EXPECT_EQ(Control().GetSpeakerSelection(), 2);
}

TEST_F(ConnectionSignalsTest, AWronglyTypedNameIsNeverRead) {
    Move(2, 4);
    Emit("SpkDisconnected", g_variant_new("(it)", 5, guint64(1)));
    EXPECT_THAT(OfHandler(), ElementsAre("_OnSpeakerDisconnected: E Invalid parameters of signal "
                                         "SpkDisconnected: expected (is), got (it)"));
    EXPECT_EQ(Control().GetSpeakerSelection(), 4);
}

TEST_F(ConnectionSignalsTest, ANameMayHoldAnythingThatTextCan) {
    Move(2, 4);
    for (const std::string& name :
         {std::string(), std::string("100 %s %n \"Küche\"\t"), std::string(3000, 'x')}) {
        Emit("SpkDisconnected", g_variant_new("(is)", 5, name.c_str()));
        EXPECT_THAT(MainLoop().Logs().Lines(), Contains("_OnSpeakerDisconnected: I Speaker(type:5):" + name +
                                                        " disconnected. Connect to previous(type:2)"));
        Move(2, 4);
    }
}

}  // namespace
