// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the volume control object in multi-view: the mode, the zones and the focus. */
#include "VolumeControlFixture.h"

using fake::BusyOnAnotherThread;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* GET_MODE = "vconf_get_str(\"memory/multiscreen/info\")";
constexpr const char* WATCH_MODE = "vconf_notify_key_changed(\"memory/multiscreen/info\")";
constexpr const char* IGNORE_MODE = "vconf_ignore_key_changed(\"memory/multiscreen/info\")";
constexpr const char* WATCH_ZONES = "sound_manager_set_multiview_speaker_selection_changed_cb()";
constexpr const char* IGNORE_ZONES = "sound_manager_unset_multiview_speaker_selection_changed_cb()";
constexpr const char* WATCH_FOCUS = "rc_register_audio_focus_changed_callback()";
constexpr const char* IGNORE_FOCUS = "rc_unregister_audio_focus_changed_callback(1)";
constexpr const char* GET_FOCUS = "rc_get_audio_focus()";
constexpr const char* FEATURE = "com.norvik/featureconf/multiview.support";
constexpr const char* FOCUS_LINE = "I zoneId:1 focusID:1";

struct Mode {
    std::string info;
    std::string logged;
};

const std::vector<Mode> OTHER_MODES = {
    {R"({"mode": "off"})", "off"},
    {R"({"mode": "ON"})", "ON"},
    {R"({"mode": "on "})", "on "},
    {R"({"mode": ""})", ""},
    {R"({"Mode": "on"})", ""},
    {"{}", ""},
    {"null", ""},
    {R"({"mode": null})", ""},
    {R"({"mode": 1})", "1"},
    {R"({"mode": true})", "true"},
    {R"({"mode": {"mode": "on"}})", "error"},
    {R"({"mode": ["on"]})", "error"},
    {"", "error"},
    {"on", "error"},
    {R"("on")", "error"},
    {"1", "error"},
    {"[]", "error"},
    {R"([{"mode": "on"}])", "error"},
    {R"({"mode": "on")", "error"},
    {R"({"mode": on})", "error"},
    {"\u2603", "error"},
    {std::string(100'000, '['), "error"},
    {R"({"mode": "on", "deep": )" + std::string(5000, '[') + std::string(5000, ']') + "}", "error"},
};

class VolumeControlZonesTest : public fake::VolumeControlTest {
protected:
    VolumeControlZonesTest() {
        seam.SetZones({{1, 0}, {2, 2}});
        seam.SetFocus(1);
    }

    void ModeOn() { seam.SetStr(fake::MULTIVIEW_KEY, R"({"mode": "on"})"); }
};

// The feature and the mode at the start

TEST_F(VolumeControlZonesTest, WithoutTheFeatureNothingIsRegisteredAndTheModeIsNeverRead) {
    seam.SetFeature(FEATURE, false);
    ModeOn();
    Make();
    EXPECT_EQ(journal.With("I Multi-screen View supported :0").Function(), "_IsMSViewSupport");
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(GET_MODE)));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_MODE)));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_ZONES)));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_FOCUS)));
    EXPECT_EQ(journal.With("I route:0").Count(), 1);
    control->SetOutputRoute(4);
    EXPECT_EQ(journal.With("sound_manager_set_speaker_selection(4)").Count(), 1);
    seam.Clear();
    control.reset();
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(IGNORE_MODE)));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(IGNORE_ZONES)));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(IGNORE_FOCUS)));
}

TEST_F(VolumeControlZonesTest, AnUnreadableFeatureIsTreatedAsAbsent) {
    seam.Fail("system_info_get_custom_bool(\"com.norvik/featureconf/multiview.support\")", -5);
    Make();
    const std::string line = std::string("E Failed to get system info key ") + FEATURE + ". ret:-5";
    EXPECT_EQ(journal.With(line).Function(), "_IsMSViewSupport");
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_MODE)));
}

TEST_F(VolumeControlZonesTest, AtTheStartTheZoneInFocusIsReadOnlyWhenTheModeIsOn) {
    Make();
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(GET_FOCUS)));
    control.reset();
    ModeOn();
    seam.Clear();
    Make();
    EXPECT_EQ(journal.With("I zoneId:1 focusID:2").Function(), "_InitMSViewSoundCallback");
}

TEST_F(VolumeControlZonesTest, AFocusThatCannotBeReadAtTheStartLeavesZoneZero) {
    ModeOn();
    seam.Fail("rc_get_audio_focus", -11);
    Make();
    EXPECT_EQ(journal.With("E Failed to get zoneID. ret:-11").Function(), "_InitMSViewSoundCallback");
    seam.FireFocus(2);
    EXPECT_EQ(journal.With("I Focus (0->2)").Count(), 1);
}

TEST_F(VolumeControlZonesTest, OnlyTheTextOnMeansOn) {
    Start();
    for (const auto& [info, mode] : OTHER_MODES) {
        SCOPED_TRACE(info.substr(0, 40));
        seam.SetStr(fake::MULTIVIEW_KEY, info);
        seam.Clear();
        seam.FireKey(fake::SPDIF_KEY, 0);  // makes the object read the mode and then the route
        EXPECT_THAT(journal.Calls().Texts(), Contains(GET_MODE));
        EXPECT_EQ(journal.With("I route:0").Count(), 1) << "the single-view route is asked for";
    }
    ModeOn();
    seam.Clear();
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I route:0").Count(), 0);
}

TEST_F(VolumeControlZonesTest, AnUnreadableModeIsTreatedAsOff) {
    seam.RemoveKey(fake::MULTIVIEW_KEY);
    Make();
    EXPECT_EQ(journal.With("E Failed to get vconf memory/multiscreen/info").Function(), "_IsMSViewModeOn");
    EXPECT_EQ(journal.With("I route:0").Count(), 1);
}

TEST_F(VolumeControlZonesTest, EachFailedRegistrationStopsTheSequence) {
    ModeOn();
    seam.Fail(WATCH_MODE, -1, 1);
    Make();
    EXPECT_EQ(journal.With("E msview mode vconf cb set failed").Function(), "_InitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_ZONES)));
    EXPECT_EQ(journal.With(FOCUS_LINE).Count(), 0);
    control.reset();

    seam.Clear();
    seam.Fail("sound_manager_set_multiview_speaker_selection_changed_cb", -3, 1);
    Make();
    EXPECT_EQ(journal.With("E multiview speaker changed cb set failed ret:-3").Function(),
              "_InitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls().Texts(), Contains(WATCH_MODE));
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(WATCH_FOCUS)));
    control.reset();

    seam.Clear();
    seam.Fail("rc_register_audio_focus_changed_callback", 0, 1);
    Make();
    EXPECT_EQ(journal.With("E audio focus changed cb set failed").Function(), "_InitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(GET_FOCUS))) << "the mode flag stays off";
}

TEST_F(VolumeControlZonesTest, WhatIsRegisteredBeforeAFailedRegistrationIsFollowed) {
    seam.Fail("rc_register_audio_focus_changed_callback", 0);
    Start();
    seam.FireZoneRoute(4, 2);
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.FireZoneRoute(7, 2);
    EXPECT_EQ(control->GetSpeakerSelection(), 4) << "zone 1 has the focus since multi-view is on";
}

// Destruction

TEST_F(VolumeControlZonesTest, EachFailedRemovalStopsTheSequence) {
    Start();
    seam.Fail("vconf_ignore_key_changed(\"memory/multiscreen/info\")", -1, 1);
    control.reset();
    EXPECT_EQ(journal.With("E msview mode vconf cb unset failed").Function(), "_DeInitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(IGNORE_ZONES)));

    Start();
    seam.Fail("sound_manager_unset_multiview_speaker_selection_changed_cb", -4, 1);
    control.reset();
    EXPECT_EQ(journal.With("E unset multiview speaker changed cb set failed. ret:-4").Function(),
              "_DeInitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls("rc_unregister").Texts(), IsEmpty());

    Start();
    seam.Fail("rc_unregister_audio_focus_changed_callback", -6, 1);
    control.reset();
    EXPECT_EQ(journal.With("E unset audio focus changed cb set failed. ret:-6").Function(),
              "_DeInitMSViewSoundCallback");
    EXPECT_THAT(journal.Calls().Texts(), Contains("sound_manager_unset_speaker_changed_cb()"))
        << "the end goes on";
}

TEST_F(VolumeControlZonesTest, AFocusRegistrationThatFailedIsNotRemoved) {
    seam.Fail("rc_register_audio_focus_changed_callback", 0);
    Start();
    control.reset();
    EXPECT_THAT(journal.Calls().Texts(), Contains(IGNORE_ZONES));
    EXPECT_THAT(journal.Calls("rc_unregister").Texts(), IsEmpty());
}

TEST_F(VolumeControlZonesTest, AFocusRegistrationWithANegativeNumberIsRemovedToo) {
    seam.Fail("rc_register_audio_focus_changed_callback", -7);
    Start();
    control.reset();
    EXPECT_THAT(journal.Calls("rc_unregister").Texts(),
                ElementsAre("rc_unregister_audio_focus_changed_callback(-7)"));
}

// Mode reports

TEST_F(VolumeControlZonesTest, ModeReportsWithoutNodeUserDataOrTextAreLoggedAndDropped) {
    Start();
    const auto watch = seam.Watches(fake::MULTIVIEW_KEY).at(0);
    keynode_t textless = {fake::MULTIVIEW_KEY, -1, std::nullopt};
    watch.callback(nullptr, watch.data);
    watch.callback(&textless, nullptr);
    watch.callback(&textless, watch.data);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("E pKeyNode is NULL", "E data is NULL", "E Failed to vconf_keynode_get_str"));
    for (const std::string& line : journal.Here().Logs().Texts()) {
        EXPECT_EQ(journal.With(line).Function(), "MSViewModeChangedCallback");
    }
}

TEST_F(VolumeControlZonesTest, TurningMultiViewOnTakesTheZoneInFocusAndLeavesTheSpeaker) {
    Start();
    seam.SetFocus(2);
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("vconf_keynode_get_str()", "I MSmode:on", GET_FOCUS, "I zoneId:2"));
    EXPECT_EQ(journal.With("I zoneId:2").Function(), "MSViewModeChangedCallback");
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
    seam.FireFocus(1);
    EXPECT_EQ(journal.With("I Focus (2->1)").Count(), 1);
}

TEST_F(VolumeControlZonesTest, AFocusThatCannotBeReadLeavesTheZoneAsItWas) {
    ModeOn();
    Start();
    seam.Fail("rc_get_audio_focus", -2);
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on", "again": 1})");
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("I MSmode:on", "E Failed to get zoneID. ret:-2"));
    seam.FireFocus(2);
    EXPECT_EQ(journal.With("I Focus (1->2)").Count(), 1);
}

TEST_F(VolumeControlZonesTest, TurningMultiViewOffForgetsTheZoneAndLeavesTheSpeakerAndTheGain) {
    ModeOn();
    Start();
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("vconf_keynode_get_str()", "I MSmode:off"));
    seam.FireFocus(2);
    EXPECT_EQ(journal.With("E For single view. not this cb").Count(), 1);
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
    seam.Clear();
    seam.FireFocus(1);
    EXPECT_THAT(journal.Here().Logs().Texts(), Contains("I Focus (2->1)"));
}

TEST_F(VolumeControlZonesTest, AfterMultiViewTheReportOfAnyZoneIsFollowed) {
    StartInMultiView();
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
    seam.FireZoneRoute(4, 2);
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
}

TEST_F(VolumeControlZonesTest, LeavingMultiViewOnABluetoothRouteRestoresTheGain) {
    for (const int route : {3, 5}) {
        SCOPED_TRACE(route);
        ModeOn();
        Start();
        seam.FireZoneRoute(route, 1);
        SetUnmuteGain(40);
        seam.Clear();
        seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
        EXPECT_THAT(journal.Here().Logs().Texts(),
                    ElementsAre("I MSmode:off", "I Path:1 player:100 pulse:100 unmute:100 Total:100",
                                "I [Path:01] gain2:100", "I Path:2 player:100 pulse:100 unmute:100 Total:100",
                                "I [Path:02] gain2:100", "I View mode changed. Recover gain"));
        EXPECT_EQ(journal.With("I View mode changed. Recover gain").Function(), "MSViewModeChangedCallback");
        control.reset();
        seam.SetZones({{1, 0}, {2, 2}});
    }
}

TEST_F(VolumeControlZonesTest, LeavingMultiViewOnAnotherRouteRestoresNoGain) {
    ModeOn();
    Start();
    SetUnmuteGain(40);
    seam.Clear();
    seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("I MSmode:off"));
    EXPECT_EQ(seam.MainGainValue(), 40);
}

TEST_F(VolumeControlZonesTest, AnotherModeIsLoggedAndIsTreatedAsOff) {
    ModeOn();
    Start();
    for (const auto& [info, mode] : OTHER_MODES) {
        SCOPED_TRACE(info.substr(0, 40));
        seam.FireKey(fake::MULTIVIEW_KEY, info);
        EXPECT_EQ(journal.With("I MSmode:" + mode).Count(), 1);
        seam.FireFocus(2);
        EXPECT_EQ(journal.With("E For single view. not this cb").Count(), 1);
        seam.SetFocus(1);
        seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
        seam.Clear();
    }
}

TEST_F(VolumeControlZonesTest, TheLastMemberNamedModeDecidesHoweverItIsWritten) {
    Start();
    for (const char* info :
         {R"({"mode": "on", "zones": [{"id": 1}, {"id": 2}]})", R"( { "other": null, "mode" : "on" } )",
          R"({"mode": "off", "mode": "on"})", R"({"mode": "\u006fn"})"}) {
        SCOPED_TRACE(info);
        seam.FireKey(fake::MULTIVIEW_KEY, info);
        EXPECT_EQ(journal.With("I MSmode:on").Count(), 1);
        EXPECT_EQ(journal.With("I zoneId:1").Count(), 1);
        seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "off"})");
        seam.Clear();
    }
}

TEST_F(VolumeControlZonesTest, AModeReportThatMeetsTheLockIsLost) {
    Start();
    {
        const BusyOnAnotherThread busy(*control);
        seam.Clear();
        seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})");
        EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("I MSmode:on", "E owns_lock"));
        EXPECT_EQ(journal.With("E owns_lock").Function(), "MSViewModeChangedCallback");
    }
    seam.FireFocus(2);
    EXPECT_EQ(journal.With("E For single view. not this cb").Count(), 1);
}

// Route reports of zones

TEST_F(VolumeControlZonesTest, AZoneReportWithoutUserDataIsLoggedAndDropped) {
    Start();
    seam.ZoneRouteRegistration().callback(2, 1, nullptr);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E data is NULL"));
    EXPECT_EQ(journal.With("E data is NULL").Function(), "MSViewSpeakerChangedCallback");
}

TEST_F(VolumeControlZonesTest, AZoneReportThatMeetsTheLockIsLost) {
    StartInMultiView();
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    seam.FireZoneRoute(4, 1);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E owns_lock"));
    EXPECT_EQ(journal.With("E owns_lock").Function(), "MSViewSpeakerChangedCallback");
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
}

TEST_F(VolumeControlZonesTest, AZoneReportOfTheRouteInForceDoesNothing) {
    StartInMultiView();
    ListenToAll();
    seam.FireZoneRoute(0, 2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("I Zone:2 Type(0->0)"));
    EXPECT_EQ(journal.With("I Zone:2 Type(0->0)").Function(), "MSViewSpeakerChangedCallback");
    EXPECT_THAT(heard, IsEmpty());
    seam.FireFocus(1);
    EXPECT_EQ(journal.With("I Focus (1->1)").Count(), 1) << "the zone was not adopted";
}

TEST_F(VolumeControlZonesTest, AZoneReportForAZoneWithoutFocusDoesNothing) {
    StartInMultiView();
    ListenToAll();
    seam.FireZoneRoute(4, 2);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("I Zone:2 Type(0->4)", "I Focus:1 Speaker Changed. not for 2"));
    EXPECT_EQ(journal.With("I Focus:1 Speaker Changed. not for 2").Function(),
              "MSViewSpeakerChangedCallback");
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(VolumeControlZonesTest, AZoneReportForTheZoneInFocusReplacesTheSpeakerAndIsAnnounced) {
    StartInMultiView();
    ListenToAll();
    seam.FireZoneRoute(7, 1);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("I Zone:1 Type(0->7)", "audio_unregister_master_mute_changed_cb()",
                            "audio_unregister_master_volume_changed_cb()", "E Already unset event handler",
                            "I Type(7) is invalid, Create Unknown Speaker", "I event: [SPEAKER_CHANGED]"));
    EXPECT_THAT(heard, ElementsAre("SPEAKER_CHANGED 0x0000 7"));
    EXPECT_EQ(control->GetSpeakerSelection(), 7);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
}

TEST_F(VolumeControlZonesTest, TheZoneOfAReportIsStoredBeforeTheReportIsAnnounced) {
    seam.SetFocus(0);
    seam.SetZones({{0, 0}, {1, 0}, {2, 2}});
    ModeOn();
    Start();
    control->SetEventHandler("SPEAKER_CHANGED", [this](int, int) { seam.FireZoneRoute(4, 1); });
    seam.FireZoneRoute(7, 2);
    EXPECT_EQ(journal.With("I Focus:2 Speaker Changed. not for 1").Count(), 1);
    EXPECT_EQ(control->GetSpeakerSelection(), 7);
}

TEST_F(VolumeControlZonesTest, TheZoneOfAReportIsStoredAfterItsSpeakerIsMade) {
    seam.SetFocus(0);
    seam.SetZones({{0, 0}, {1, 0}, {2, 2}});
    ModeOn();
    Start();
    // The report of the cable logs the zone, and needs no lock.
    seam.BeforeNext("I Create HDMI Speaker", [this] { seam.FireKey(fake::SPDIF_KEY, 0); });
    seam.FireZoneRoute(2, 1);
    EXPECT_EQ(journal.With("I zoneID:0 route:0").Count(), 1);
    seam.FireKey(fake::SPDIF_KEY, 0);
    EXPECT_EQ(journal.With("I zoneID:1 route:2").Count(), 1);
}

TEST_F(VolumeControlZonesTest, WhileNoZoneIsKnownAnyZoneReportIsTakenAndItsZoneAdopted) {
    for (const int unknown : {0, -1}) {
        SCOPED_TRACE(unknown);
        seam.SetFocus(unknown);
        seam.SetZones({{unknown, 0}, {1, 0}, {2, 2}});
        ModeOn();
        Start();
        seam.FireZoneRoute(4, 2);
        EXPECT_EQ(control->GetSpeakerSelection(), 4);
        seam.Clear();
        seam.FireZoneRoute(7, 1);
        EXPECT_EQ(journal.With("I Focus:2 Speaker Changed. not for 1").Count(), 1);
        control.reset();
    }
}

// Focus reports

TEST_F(VolumeControlZonesTest, AFocusReportWithoutUserDataIsLoggedAndDropped) {
    StartInMultiView();
    seam.FocusRegistrations().begin()->second.callback(2, nullptr);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E data is NULL"));
    EXPECT_EQ(journal.With("E data is NULL").Function(), "FocusChangedCallback");
}

TEST_F(VolumeControlZonesTest, AFocusReportInSingleViewChangesNothing) {
    Start();
    seam.FireFocus(2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E For single view. not this cb"));
    EXPECT_EQ(journal.With("E For single view. not this cb").Function(), "FocusChangedCallback");
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
}

TEST_F(VolumeControlZonesTest, AFocusReportInSingleViewIsDroppedEvenIfItMeetsTheLock) {
    Start();
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    seam.FireFocus(2);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E For single view. not this cb"));
}

TEST_F(VolumeControlZonesTest, ANegativeZoneIsNoZoneInFocus) {
    StartInMultiView();
    seam.FireFocus(-2);
    EXPECT_THAT(journal.Calls("sound_manager_get_multiview").Texts(),
                ElementsAre("sound_manager_get_multiview_speaker_selection_with_zone_id(-2)"));
    seam.Clear();
    seam.FireZoneRoute(4, 2);
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
    EXPECT_EQ(journal.With("I Focus:-2 Speaker Changed. not for 2").Count(), 0);
}

TEST_F(VolumeControlZonesTest, AFocusReportThatMeetsTheLockIsLost) {
    StartInMultiView();
    {
        const BusyOnAnotherThread busy(*control);
        seam.Clear();
        seam.FireFocus(2);
        EXPECT_THAT(journal.Here().Texts(), ElementsAre("E mutex lock failed"));
        EXPECT_EQ(journal.With("E mutex lock failed").Function(), "FocusChangedCallback");
    }
    seam.FireFocus(1);
    EXPECT_EQ(journal.With("I Focus (1->1)").Count(), 1);
}

TEST_F(VolumeControlZonesTest, AFocusChangeToAnotherRouteReplacesTheSpeakerSilently) {
    StartInMultiView();
    ListenToAll();
    seam.FireZoneRoute(4, 1);
    heard.clear();
    seam.Clear();
    seam.FireFocus(2);
    const auto lines = journal.Here().Texts();
    EXPECT_EQ(lines.at(0), "I Focus (1->2)");
    EXPECT_EQ(lines.at(1), GET_MODE);
    EXPECT_EQ(lines.at(2), "sound_manager_get_multiview_speaker_selection_with_zone_id(2)");
    EXPECT_EQ(lines.at(3), "I zoneID:2 route:2");
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I Focus (1->2)", "I zoneID:2 route:2", "E Already unset event handler",
                            "I Create HDMI Speaker"));
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0) << "as the last route report left it";
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_THAT(seam.Watches(fake::HDMI_SUPPORT_KEY).size(), 1U);
}

TEST_F(VolumeControlZonesTest, AFocusReportOfTheZoneInFocusFollowsItsRoute) {
    StartInMultiView();
    seam.SetZones({{1, 2}, {2, 2}});
    seam.FireFocus(1);
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
}

TEST_F(VolumeControlZonesTest, AFocusChangeToTheSameRouteKeepsTheSpeaker) {
    seam.SetZones({{1, 0}, {3, 0}});
    ModeOn();
    Start();
    seam.FireFocus(3);
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("I Focus (1->3)", "I zoneID:3 route:0"));
}

}  // namespace
