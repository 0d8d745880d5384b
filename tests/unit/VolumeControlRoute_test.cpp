// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Tests how the volume control object follows the route: reports, the optical cable, mirroring to a mobile
 * device.
 */
#include "VolumeControlFixture.h"

using fake::BusyOnAnotherThread;
using NKavrel::VolumeControlImpl;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* GET_ROUTE = "sound_manager_get_speaker_selection()";
constexpr const char* GET_MODE = "vconf_get_str(\"memory/multiscreen/info\")";
constexpr const char* GET_SUB_BT = "vconf_get_int(\"memory/org.olvane.btapp/sub_audio_zoneid\")";
constexpr const char* GOT_SUB_BT = "I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid";
constexpr const char* KEY_VALUE = "vconf_keynode_get_int()";

std::string SetRouteCall(int route) {
    return "sound_manager_set_speaker_selection(" + std::to_string(route) + ')';
}

std::string SetZoneRouteCall(int route, int zone) {
    return "sound_manager_set_multiview_speaker_selection_with_zone_id(" + std::to_string(route) + ", " +
           std::to_string(zone) + ')';
}

std::string GetZoneRouteCall(int zone) {
    return "sound_manager_get_multiview_speaker_selection_with_zone_id(" + std::to_string(zone) + ')';
}

class VolumeControlRouteTest : public fake::VolumeControlTest {
protected:
    /** Makes `previous` the previous route and `current` the present one. */
    void Go(int previous, int current) {
        seam.FireRoute(previous);
        seam.FireRoute(current);
        ASSERT_EQ(control->GetPrevSpeakerSelection(), previous);
        ASSERT_EQ(control->GetSpeakerSelection(), current);
        seam.Clear();
    }

    void GoInZone(int zone, int previous, int current) {
        seam.FireZoneRoute(previous, zone);
        seam.FireZoneRoute(current, zone);
        ASSERT_EQ(control->GetPrevSpeakerSelection(), previous);
        ASSERT_EQ(control->GetSpeakerSelection(), current);
        seam.Clear();
    }
};

// The present route

TEST_F(VolumeControlRouteTest, AnUnreadableRouteIsTreatedAsTheDefault) {
    seam.SetRoute(2);
    seam.Fail("sound_manager_get_speaker_selection", -5);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
    EXPECT_EQ(journal.With("E get current speaker type failed").Function(), "_GetOutputRoute");
    EXPECT_EQ(journal.With("I Create TV Speaker").Count(), 1);
}

TEST_F(VolumeControlRouteTest, InMultiViewTheRouteIsThatOfTheZoneInFocus) {
    seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.SetZones({{1, 4}, {2, 2}});
    seam.SetFocus(2);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
    EXPECT_EQ(journal.With("I zoneID:2 route:2").Function(), "_GetOutputRoute");
    EXPECT_EQ(journal.With(GET_ROUTE).Count(), 0);
}

TEST_F(VolumeControlRouteTest, TheSingleViewRouteIsReadAfterMultiViewHasEnded) {
    seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.SetFocus(3);
    seam.SetRoute(4);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
    EXPECT_EQ(journal.With("W Multiview is terminated, call sound_manager_get_speaker_selection").Function(),
              "_GetOutputRoute");
    EXPECT_EQ(journal.With("I zoneID:3 route:4").Count(), 1);
    EXPECT_EQ(journal.With(GetZoneRouteCall(3)).Count(), 1);
    EXPECT_EQ(journal.With(GET_ROUTE).Count(), 1);
}

TEST_F(VolumeControlRouteTest, WhenTheSecondQueryFailsTooTheDefaultIsTaken) {
    seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.SetFocus(3);
    seam.SetRoute(4);
    seam.Fail("sound_manager_get_speaker_selection", -1);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
    EXPECT_EQ(journal.With("W Multiview is terminated, call sound_manager_get_speaker_selection").Count(), 1);
    EXPECT_EQ(journal.With("E get current speaker type failed").Count(), 1);
    EXPECT_EQ(journal.With("I zoneID:3 route:4").Count(), 0);
}

TEST_F(VolumeControlRouteTest, AnyOtherFailureOfTheZoneQueryAsksNothingElse) {
    seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.SetZones({{1, 4}});
    seam.SetFocus(1);
    seam.SetRoute(2);
    seam.Fail("sound_manager_get_multiview_speaker_selection_with_zone_id", -26607611);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
    EXPECT_EQ(journal.With("E get current speaker type failed").Count(), 1);
    EXPECT_EQ(journal.With(GET_ROUTE).Count(), 0);
}

// Requests for another route

TEST_F(VolumeControlRouteTest, InSingleViewTheRouteIsSetOnceWhateverThePlatformSays) {
    Start();
    seam.Fail("sound_manager_set_speaker_selection", -1);
    control->SetOutputRoute(2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(SetRouteCall(2), "I Set Speaker Output(2)"));
    EXPECT_EQ(journal.With("I Set Speaker Output(2)").Function(), "SetOutputRoute");
    EXPECT_EQ(control->GetSpeakerSelection(), 0) << "the speaker changes only with the platform's report";
}

TEST_F(VolumeControlRouteTest, TheSpeakerFollowsThePlatformsReportOnTheSameThread) {
    Start();
    control->SetOutputRoute(4);
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
    EXPECT_EQ(journal.Here().Logs().Texts().back(), "I Set Speaker Output(4)");
}

TEST_F(VolumeControlRouteTest, InMultiViewEveryZoneIsSetInOrder) {
    StartInMultiView();
    seam.ReportOwnChanges(false);
    control->SetOutputRoute(4);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("rc_get_zone_list()", GET_SUB_BT, GOT_SUB_BT, "I SubBT :-1", "rc_get_next_zone()",
                            "rc_get_zone_id()", SetZoneRouteCall(4, 1),
                            "I [Zone: 1] Speaker Output(4). ret:0", "rc_get_next_zone()", "rc_get_zone_id()",
                            SetZoneRouteCall(4, 2), "I [Zone: 2] Speaker Output(4). ret:0",
                            "rc_get_next_zone()", "rc_free_zone_list()", "I Set Speaker Output(4)"));
    EXPECT_EQ(journal.With("I [Zone: 1] Speaker Output(4). ret:0").Function(), "SetOutputRoute");
}

TEST_F(VolumeControlRouteTest, InMultiViewTheSubBluetoothZoneIsNeverTouched) {
    StartInMultiView();
    seam.ReportOwnChanges(false);
    seam.SetZones({{2, 0}, {10, 3}, {11, 0}});
    seam.SetInt(fake::SUB_BT_KEY, 10);
    control->SetOutputRoute(4);
    EXPECT_THAT(seam.Zones(), ElementsAre(testing::Pair(2, 4), testing::Pair(10, 3), testing::Pair(11, 4)));
    EXPECT_EQ(journal.With("I [Zone:10] SubBT is connected. Skip current zone").Count(), 1);
    EXPECT_EQ(journal.With("I [Zone:11] Speaker Output(4). ret:0").Count(), 1);
    EXPECT_EQ(journal.With(SetZoneRouteCall(4, 10)).Count(), 0);
    EXPECT_EQ(journal.With("rc_free_zone_list()").Count(), 1);
}

TEST_F(VolumeControlRouteTest, InMultiViewAFailureDoesNotStopTheLoop) {
    StartInMultiView();
    seam.ReportOwnChanges(false);
    seam.SetZones({{1, 0}, {2, 0}, {3, 0}});
    seam.Fail("rc_get_zone_id", -3, 1);
    seam.Fail(SetZoneRouteCall(4, 2), -9);
    control->SetOutputRoute(4);
    EXPECT_THAT(seam.Zones(), ElementsAre(testing::Pair(1, 0), testing::Pair(2, 0), testing::Pair(3, 4)));
    EXPECT_EQ(journal.With("I [Zone: 2] Speaker Output(4). ret:-9").Count(), 1);
    EXPECT_EQ(journal.With("I Set Speaker Output(4)").Count(), 1);
}

TEST_F(VolumeControlRouteTest, AMissingZoneListIsTreatedAsNoZones) {
    StartInMultiView();
    seam.Fail("rc_get_zone_list", -1);
    control->SetOutputRoute(4);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("rc_get_zone_list()", GET_SUB_BT, GOT_SUB_BT,
                                                    "I SubBT :-1", "I Set Speaker Output(4)"));
}

// Route reports

TEST_F(VolumeControlRouteTest, AReportOfTheRouteInForceChangesNothing) {
    Start();
    ListenToAll();
    seam.FireRoute(0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("I Type(0->0)"));
    EXPECT_EQ(journal.With("I Type(0->0)").Function(), "SpeakerChangedCallback");
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(VolumeControlRouteTest, ARouteReportReplacesTheSpeakerAndIsAnnounced) {
    Start();
    ListenToAll();
    seam.SetInt(fake::HDMI_SUPPORT_KEY, 0x5);
    seam.FireRoute(2);
    constexpr const char* prefix = "memory/menu/network/screenmirroring/";
    const auto watch = [&](const std::string& key) {
        return "vconf_notify_key_changed(\"" + (prefix + key) + "\")";
    };
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("I Type(0->2)", "audio_unregister_master_mute_changed_cb()",
                    "audio_unregister_master_volume_changed_cb()", "E Already unset event handler",
                    "I Create HDMI Speaker", watch("get_volume_level_hdmi"), watch("get_volume_mute_hdmi"),
                    watch("volume_support_hdmi"), "I event: [SPEAKER_CHANGED]",
                    "vconf_get_int(\"memory/menu/network/screenmirroring/volume_support_hdmi\")",
                    "I Successed to get key memory/menu/network/screenmirroring/volume_support_hdmi",
                    "I current spk support [0x0005]"));
    EXPECT_THAT(heard, ElementsAre("SPEAKER_CHANGED 0x0005 2"));
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
    seam.FireRoute(7);
    EXPECT_THAT(heard, ElementsAre("SPEAKER_CHANGED 0x0005 2", "SPEAKER_CHANGED 0x0000 7"));
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 2);
    EXPECT_THAT(seam.Watches(fake::HDMI_SUPPORT_KEY), IsEmpty());
}

TEST_F(VolumeControlRouteTest, ASingleViewRouteChangeForgetsTheZone) {
    StartInMultiView();
    seam.FireRoute(4);
    seam.FireFocus(2);
    EXPECT_EQ(journal.With("I Focus (0->2)").Count(), 1);
}

TEST_F(VolumeControlRouteTest, ARouteReportWithoutUserDataIsLoggedAndDropped) {
    Start();
    seam.RouteRegistration().callback(2, nullptr);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E data is NULL"));
    EXPECT_EQ(journal.With("E data is NULL").Function(), "SpeakerChangedCallback");
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
}

TEST_F(VolumeControlRouteTest, ARouteReportThatMeetsTheLockIsLostUntilTheNextOne) {
    Start();
    ListenToAll();
    {
        const BusyOnAnotherThread busy(*control);
        seam.Clear();
        seam.FireRoute(2);
        EXPECT_THAT(journal.Here().Texts(), ElementsAre("E owns_lock"));
        EXPECT_EQ(journal.With("E owns_lock").Function(), "SpeakerChangedCallback");
    }
    int volume = 0;
    control->GetTVVolume(volume);
    EXPECT_EQ(control->GetSpeakerSelection(), 0) << "the old speaker stays in place";
    EXPECT_THAT(heard, IsEmpty());
    seam.FireRoute(7);
    EXPECT_THAT(heard, ElementsAre("SPEAKER_CHANGED 0x0000 7"));
}

// Registration

TEST_F(VolumeControlRouteTest, WithoutTheRouteRegistrationNeitherKeyIsWatchedNorRead) {
    seam.SetInt(fake::TV2MOBILE_KEY, 1);
    seam.Fail("sound_manager_set_speaker_changed_cb", -7);
    Make();
    EXPECT_EQ(journal.With("E speaker changed cb set failed. ret:-7").Function(), "_InitSoundCallback");
    EXPECT_THAT(seam.Watches(fake::SPDIF_KEY), IsEmpty());
    EXPECT_THAT(seam.Watches(fake::TV2MOBILE_KEY), IsEmpty());
    EXPECT_EQ(journal.With("vconf_get_int(\"memory/sysman/spdif\")").Count(), 0);
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
    EXPECT_EQ(seam.MainGainValue(), 40) << "mirroring counts as off";
}

TEST_F(VolumeControlRouteTest, AFailedRemovalLeavesBothKeysWatched) {
    Start();
    seam.Fail("sound_manager_unset_speaker_changed_cb", -8);
    control.reset();
    EXPECT_EQ(journal.With("E unset speaker changed cb set failed. ret:-8").Function(),
              "_DeInitSoundCallback");
    EXPECT_EQ(seam.Watches(fake::SPDIF_KEY).size(), 1U);
    EXPECT_EQ(seam.Watches(fake::TV2MOBILE_KEY).size(), 1U);
}

// The optical cable

TEST_F(VolumeControlRouteTest, CableReportsWithoutNodeOrUserDataAreLoggedAndDropped) {
    Start();
    const auto watch = seam.Watches(fake::SPDIF_KEY).at(0);
    keynode_t node = {fake::SPDIF_KEY, 0, "0"};
    watch.callback(nullptr, watch.data);
    watch.callback(&node, nullptr);
    watch.callback(nullptr, nullptr);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E pKeyNode is NULL", "E data is NULL", "E pKeyNode is NULL"));
    EXPECT_EQ(journal.With("E pKeyNode is NULL").Function(), "SpdifChangedCallback");
    EXPECT_EQ(journal.With("E data is NULL").Function(), "SpdifChangedCallback");
}

TEST_F(VolumeControlRouteTest, AnUnreadableCableValueIsLoggedAndDropped) {
    Start();
    seam.FireKey(fake::SPDIF_KEY, -1);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(KEY_VALUE, "E get vconf memory/sysman/spdif error"));
    EXPECT_EQ(journal.With("E get vconf memory/sysman/spdif error").Function(), "SpdifChangedCallback");
}

TEST_F(VolumeControlRouteTest, PluggingTheCableNeedsNothing) {
    Start();
    seam.FireKey(fake::SPDIF_KEY, 1);
    seam.FireKey(fake::SPDIF_KEY, 2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(KEY_VALUE, KEY_VALUE));
}

TEST_F(VolumeControlRouteTest, PullingTheCableFromAnOpticalRouteInForceGoesBackToTheDefault) {
    for (const int route : {1, 9, 11}) {
        SCOPED_TRACE(route);
        Start();
        Go(2, route);
        seam.ReportOwnChanges(false);
        seam.FireKey(fake::SPDIF_KEY, 0);
        const std::string now = std::to_string(route);
        EXPECT_THAT(journal.Here().Texts(), ElementsAre(KEY_VALUE, GET_MODE, GET_ROUTE, "I route:" + now,
                                                        "I Spdif cable is disconnected. route:" + now,
                                                        SetRouteCall(0), "I Set Speaker Output(0)"));
        EXPECT_EQ(journal.With("I Spdif cable is disconnected. route:" + now).Function(),
                  "SpdifChangedCallback");
        EXPECT_EQ(control->GetPrevSpeakerSelection(), 2) << "it is left alone";
        control.reset();
        seam.Reset();
        seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
    }
}

TEST_F(VolumeControlRouteTest, OnATvWithoutInternalSpeakerPullingTheCableAsksForTheSameRouteAgain) {
    EXPECT_EXIT(
        {
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
            seam.SetRoute(1);
            Start();
            seam.FireKey(fake::SPDIF_KEY, 0);
            const bool asked = journal.With(SetRouteCall(1)).Count() == 1 &&
                               journal.With("I Set Speaker Output(1)").Count() == 1;
            const bool stayed =
                control->GetSpeakerSelection() == 1 && control->GetPrevSpeakerSelection() == 1;
            std::_Exit(asked && stayed ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(VolumeControlRouteTest, WithoutInternalSpeakerAnUnreadableRouteIsTheOpticalOne) {
    EXPECT_EXIT(
        {
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
            seam.SetRoute(2);
            seam.Fail("sound_manager_get_speaker_selection", -5);
            int atTheStart = -9;
            seam.BeforeNext(GET_ROUTE, [&] {
                auto* unfinished = static_cast<VolumeControlImpl*>(seam.RouteRegistration().data);
                atTheStart = unfinished->GetSpeakerSelection();
            });
            Start();
            std::_Exit(atTheStart == 1 && control->GetSpeakerSelection() == 1 ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(VolumeControlRouteTest, PullingTheCableElsewhereRewritesAnOpticalPreviousRoute) {
    for (const int previous : {1, 9, 11}) {
        SCOPED_TRACE(previous);
        Start();
        Go(previous, 2);
        seam.FireKey(fake::SPDIF_KEY, 0);
        const std::string before = std::to_string(previous);
        EXPECT_THAT(
            journal.Here().Texts(),
            ElementsAre(KEY_VALUE, GET_MODE, GET_ROUTE, "I route:2", "I Spdif cable is disconnected. route:2",
                        "I Skip. Curr:2 Prev:" + before, "I Prev:" + before + "->0"));
        EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
        EXPECT_EQ(control->GetSpeakerSelection(), 2);
        control.reset();
        seam.Reset();
        seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
    }
}

TEST_F(VolumeControlRouteTest, PullingTheCableElsewhereLeavesAnotherPreviousRoute) {
    Start();
    Go(4, 2);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I route:2", "I Spdif cable is disconnected. route:2", "I Skip. Curr:2 Prev:4"));
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 4);
}

TEST_F(VolumeControlRouteTest, TheCableNeedsNoLock) {
    Start();
    Go(2, 1);
    seam.ReportOwnChanges(false);
    const BusyOnAnotherThread busy(*control);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Set Speaker Output(0)").Count(), 1);
    EXPECT_EQ(journal.With("E owns_lock").Count(), 0);
}

TEST_F(VolumeControlRouteTest, InMultiViewWithTheHeadsetInFocusAnOpticalPreviousRouteGoesBackToTheDefault) {
    StartInMultiView();
    GoInZone(1, 9, 2);
    seam.SetInt(fake::SUB_BT_KEY, 1);
    seam.ReportOwnChanges(false);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre(KEY_VALUE, GET_MODE, GetZoneRouteCall(1), "I zoneID:1 route:2",
                    "I Spdif cable is disconnected. route:2", "rc_get_audio_focus()", GET_SUB_BT, GOT_SUB_BT,
                    "I SubBT :1", "rc_get_zone_list()", GET_SUB_BT, GOT_SUB_BT, "I SubBT :1",
                    "rc_get_next_zone()", "rc_get_zone_id()",
                    "I [Zone: 1] SubBT is connected. Skip current zone", "rc_get_next_zone()",
                    "rc_get_zone_id()", SetZoneRouteCall(0, 2), "I [Zone: 2] Speaker Output(0). ret:0",
                    "rc_get_next_zone()", "rc_free_zone_list()", "I Set Speaker Output(0)", "I Prev:9->0"));
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
}

TEST_F(VolumeControlRouteTest, ThePreviousRouteOfTheCableRuleIsTheOneBeforeThePlatformsOwnReport) {
    StartInMultiView();
    GoInZone(1, 9, 2);
    seam.SetInt(fake::SUB_BT_KEY, 1);
    seam.BeforeNext(SetZoneRouteCall(0, 2), [this] { seam.FireRoute(4); });
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Type(2->4)").Count(), 1);
    EXPECT_EQ(journal.With("I Prev:9->0").Count(), 1)
        << "not the 2 that the report has just made the previous route";
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
}

TEST_F(VolumeControlRouteTest, InMultiViewWithTheHeadsetInFocusAnotherPreviousRouteSkipsEverything) {
    StartInMultiView();
    GoInZone(1, 4, 1);
    seam.SetInt(fake::SUB_BT_KEY, 1);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.Here().Logs().Texts().back(), "E Skip. Prev:4");
    EXPECT_EQ(journal.With("E Skip. Prev:4").Function(), "SpdifChangedCallback");
    EXPECT_EQ(journal.With("rc_get_zone_list()").Count(), 0);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 4);
    EXPECT_EQ(control->GetSpeakerSelection(), 1);
}

TEST_F(VolumeControlRouteTest, InMultiViewWithTheHeadsetElsewhereThePresentRouteDecides) {
    StartInMultiView();
    GoInZone(1, 4, 1);
    seam.SetInt(fake::SUB_BT_KEY, 2);
    seam.ReportOwnChanges(false);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With(SetZoneRouteCall(0, 1)).Count(), 1);
    EXPECT_EQ(journal.With(SetZoneRouteCall(0, 2)).Count(), 0);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 4);
}

TEST_F(VolumeControlRouteTest, InMultiViewAMissingHeadsetDoesNotMatchAMissingFocus) {
    StartInMultiView();
    GoInZone(1, 9, 2);
    seam.SetFocus(std::nullopt);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Skip. Curr:2 Prev:9").Count(), 1);
    EXPECT_EQ(journal.With("I Prev:9->0").Count(), 1);
    EXPECT_EQ(journal.With("rc_get_zone_list()").Count(), 0);
}

TEST_F(VolumeControlRouteTest, InMultiViewAHeadsetInZoneZeroIsOneAndAMissingFocusIsNot) {
    StartInMultiView();
    GoInZone(1, 9, 2);
    seam.SetInt(fake::SUB_BT_KEY, 0);
    seam.ReportOwnChanges(false);
    seam.SetFocus(std::nullopt);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Skip. Curr:2 Prev:9").Count(), 1)
        << "an unreadable focus is in no zone, not in zone 0";
    GoInZone(1, 9, 2);
    seam.SetFocus(0);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Prev:9->0").Count(), 1);
    EXPECT_EQ(journal.With("I Skip. Curr:2 Prev:9").Count(), 0);
}

TEST_F(VolumeControlRouteTest, InMultiViewAHeadsetInAZoneBelowMinusOneIsOne) {
    StartInMultiView();
    GoInZone(1, 9, 2);
    seam.SetZones({{-2, 2}, {1, 2}});
    seam.SetInt(fake::SUB_BT_KEY, -2);
    seam.SetFocus(-2);
    seam.ReportOwnChanges(false);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I Prev:9->0").Count(), 1);
    EXPECT_EQ(journal.With("I Skip. Curr:2 Prev:9").Count(), 0);
    EXPECT_EQ(journal.With("I [Zone:-2] SubBT is connected. Skip current zone").Count(), 1);
    EXPECT_EQ(journal.With(SetZoneRouteCall(0, -2)).Count(), 0);
    EXPECT_EQ(journal.With(SetZoneRouteCall(0, 1)).Count(), 1);
}

// Mirroring to a mobile device

TEST_F(VolumeControlRouteTest, MirroringReportsWithoutNodeOrUserDataAreLoggedAndDropped) {
    Start();
    const auto watch = seam.Watches(fake::TV2MOBILE_KEY).at(0);
    keynode_t node = {fake::TV2MOBILE_KEY, 1, "1"};
    watch.callback(nullptr, watch.data);
    watch.callback(&node, nullptr);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E pKeyNode is NULL", "E data is NULL"));
    EXPECT_EQ(journal.With("E pKeyNode is NULL").Function(), "Tv2MobileChangedCallback");
    EXPECT_EQ(journal.With("E data is NULL").Function(), "Tv2MobileChangedCallback");
}

TEST_F(VolumeControlRouteTest, AnUnreadableMirroringValueIsLoggedAndDropped) {
    Start();
    seam.FireKey(fake::TV2MOBILE_KEY, -2);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("E get vconf memory/menu/network/screenmirroring/smsrc_status error"));
    control->ApplyAudioGain(fake::UNMUTE, 40, 3, false);
    EXPECT_EQ(seam.MainGainValue(), 40) << "the status is as it was";
}

TEST_F(VolumeControlRouteTest, MirroringRestoresTheGainFirstAndStopsSourceThreeAfterwards) {
    Start();
    SetUnmuteGain(40);
    seam.Clear();
    seam.FireKey(fake::TV2MOBILE_KEY, 1);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("E TV To Mobile Enable", "I Path:1 player:100 pulse:100 unmute:100 Total:100",
                            "I [Path:01] gain2:100", "I Path:2 player:100 pulse:100 unmute:100 Total:100",
                            "I [Path:02] gain2:100"));
    EXPECT_EQ(journal.With("E TV To Mobile Enable").Function(), "Tv2MobileChangedCallback");
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
    EXPECT_EQ(seam.MainGainValue(), 100);
}

TEST_F(VolumeControlRouteTest, WithoutMirroringAReportOfItsEndSetsNoGain) {
    Start();
    SetUnmuteGain(40);
    seam.FireKey(fake::TV2MOBILE_KEY, 0);
    EXPECT_EQ(seam.MainGainValue(), 40);
}

TEST_F(VolumeControlRouteTest, OnTheMultiOutputRouteMirroringSetsNoGain) {
    Start();
    seam.FireRoute(6);
    ASSERT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, true), 0);
    seam.Clear();
    seam.FireKey(fake::TV2MOBILE_KEY, 1);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("E TV To Mobile Enable", "E Multi-output Audio, do not apply fade."));
}

TEST_F(VolumeControlRouteTest, TheEndOfMirroringDoesNothingElse) {
    seam.SetInt(fake::TV2MOBILE_KEY, 1);
    Start();
    seam.FireKey(fake::TV2MOBILE_KEY, 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(KEY_VALUE, "E TV To Mobile Disable"));
    control->ApplyAudioGain(fake::UNMUTE, 40, 3, false);
    EXPECT_EQ(seam.MainGainValue(), 40);
}

TEST_F(VolumeControlRouteTest, WhileMirroringAnotherStatusRestoresNothing) {
    seam.SetInt(fake::TV2MOBILE_KEY, 1);
    Make();
    EXPECT_EQ(journal.With("I tv2Mobile:1").Function(), "_InitSoundCallback");
    seam.Clear();
    seam.FireKey(fake::TV2MOBILE_KEY, 2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(KEY_VALUE, "E TV To Mobile Enable"));
    control->ApplyAudioGain(fake::UNMUTE, 40, 3, false);
    EXPECT_EQ(seam.MainGainValue(), 100) << "that status is mirroring, too";
}

}  // namespace
