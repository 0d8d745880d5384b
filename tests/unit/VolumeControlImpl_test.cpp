// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the volume control object itself: construction, destruction, listeners and change filters. */
#include "VolumeControlImpl.h"

#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "VolumeControlFixture.h"

using fake::BusyOnAnotherThread;
using NKavrel::VolumeControlImpl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/** The daemon makes this call once per process, so only the first test that creates an object sees it. */
constexpr const char* INTERNAL_SPEAKER_CALL =
    "system_info_get_custom_bool(\"com.norvik/featureconf/internal_speaker_supported\")";

class VolumeControlImplTest : public fake::VolumeControlTest {};

std::vector<std::string> Without(std::vector<std::string> texts, const std::string& beginning) {
    std::erase_if(texts, [&](const std::string& text) { return text.starts_with(beginning); });
    return texts;
}

TEST_F(VolumeControlImplTest, TheStartRegistersThenMakesTheSpeakerThenTheGainController) {
    Make();
    EXPECT_THAT(
        Without(Without(journal.Here().Calls().Texts(), "AudioControl_"), INTERNAL_SPEAKER_CALL),
        ElementsAre(
            "sound_manager_set_speaker_changed_cb()", "vconf_notify_key_changed(\"memory/sysman/spdif\")",
            "vconf_get_int(\"memory/sysman/spdif\")",
            "vconf_notify_key_changed(\"memory/menu/network/screenmirroring/smsrc_status\")",
            "vconf_get_int(\"memory/menu/network/screenmirroring/smsrc_status\")",
            "system_info_get_custom_bool(\"com.norvik/featureconf/multiview.support\")",
            "vconf_notify_key_changed(\"memory/multiscreen/info\")",
            "sound_manager_set_multiview_speaker_selection_changed_cb()",
            "rc_register_audio_focus_changed_callback()", "vconf_get_str(\"memory/multiscreen/info\")",
            "vconf_get_str(\"memory/multiscreen/info\")", "sound_manager_get_speaker_selection()",
            "audio_register_master_volume_changed_cb()", "audio_register_master_mute_changed_cb()",
            "get_main_out_gain2()", "get_sub_out_gain2()",
            "system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")",
            "vconf_notify_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")",
            "vconf_get_int(\"memory/org.olvane.btapp/sub_audio_zoneid\")"));
    EXPECT_THAT(
        Without(journal.Here().Logs().Texts(), "I Path:"),
        ElementsAre("I Successed to get key memory/sysman/spdif",
                    "I Successed to get key memory/menu/network/screenmirroring/smsrc_status",
                    "I tv2Mobile:0", "I Multi-screen View supported :1", "I route:0", "I Create TV Speaker",
                    "I Create AudioGainHandler. Reset AudioGain(MAX). ret:0",
                    "I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid", "I SubBT :-1"));
}

TEST_F(VolumeControlImplTest, TheDefaultRouteIsReadAfterTheRegistrationsAndBeforeThePresentRoute) {
    EXPECT_EXIT(
        {
            Make();
            const auto calls = journal.Here().Calls().Texts();
            const auto asked = std::ranges::find(calls, INTERNAL_SPEAKER_CALL);
            const bool inOrder = asked != calls.end() &&
                                 *(asked - 1) == "vconf_get_str(\"memory/multiscreen/info\")" &&
                                 *(asked + 1) == "vconf_get_str(\"memory/multiscreen/info\")";
            std::_Exit(inOrder ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(VolumeControlImplTest, AUselessCableIsNotedAtTheStart) {
    seam.SetInt(fake::SPDIF_KEY, 0);
    Make();
    EXPECT_EQ(journal.With("E Spdif Cable is not connected").Function(), "_InitSoundCallback");
    control.reset();
    seam.Clear();
    seam.RemoveKey(fake::SPDIF_KEY);
    Make();
    EXPECT_EQ(journal.With("E Spdif Cable is not connected").Count(), 1)
        << "an unreadable key counts as not connected";
}

TEST_F(VolumeControlImplTest, TheSpeakerIsThatOfTheRouteInForceAndThePreviousRouteIsTheDefault) {
    seam.SetRoute(2);
    Make();
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
    EXPECT_EQ(control->GetPrevSpeakerSelection(), 0);
    EXPECT_EQ(journal.With("I Create HDMI Speaker").Count(), 1);
    EXPECT_FALSE(control->GetMuteOnSpkChanged());
}

TEST_F(VolumeControlImplTest, TheEndUndoesEverythingInItsOrder) {
    Start();
    control.reset();
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("vconf_ignore_key_changed(\"memory/multiscreen/info\")",
                    "sound_manager_unset_multiview_speaker_selection_changed_cb()",
                    "rc_unregister_audio_focus_changed_callback(1)",
                    "sound_manager_unset_speaker_changed_cb()",
                    "vconf_ignore_key_changed(\"memory/sysman/spdif\")",
                    "vconf_ignore_key_changed(\"memory/menu/network/screenmirroring/smsrc_status\")",
                    "audio_unregister_master_mute_changed_cb()",
                    "audio_unregister_master_volume_changed_cb()", "E Already unset event handler",
                    "system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")",
                    "vconf_ignore_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")"));
    EXPECT_EQ(seam.VolumeRegistration().callback, nullptr);
    EXPECT_EQ(seam.RouteRegistration().callback, nullptr);
    EXPECT_EQ(seam.ZoneRouteRegistration().callback, nullptr);
    EXPECT_THAT(seam.FocusRegistrations(), IsEmpty());
}

TEST_F(VolumeControlImplTest, AReportDuringTheStartIsRefusedUntilTheFirstSpeakerExists) {
    const std::vector<std::string> moments = {
        "vconf_notify_key_changed(\"memory/sysman/spdif\")",
        "vconf_get_int(\"memory/menu/network/screenmirroring/smsrc_status\")",
        "vconf_notify_key_changed(\"memory/multiscreen/info\")",
        "rc_register_audio_focus_changed_callback()",
        "sound_manager_get_speaker_selection()",
        "I Create TV Speaker",
        "audio_register_master_mute_changed_cb()"};
    for (const std::string& moment : moments) {
        seam.BeforeNext(moment, [this] {
            fake::OnPlatformThread([this] { seam.FireRoute(2); });
            seam.SetRoute(0);  // the route that the object reads is another one than the report's
        });
    }
    Make();
    EXPECT_EQ(journal.With("E owns_lock").Count(), static_cast<int>(moments.size()));
    EXPECT_EQ(journal.With("E owns_lock").Function(), "SpeakerChangedCallback");
    EXPECT_EQ(journal.With("I Type(0->2)").Count(), 0);
    EXPECT_EQ(control->GetSpeakerSelection(), 0);
}

TEST_F(VolumeControlImplTest, AReportWhileTheDefaultRouteIsReadIsRefused) {
    EXPECT_EXIT(
        {
            seam.BeforeNext(INTERNAL_SPEAKER_CALL,
                            [this] { fake::OnPlatformThread([this] { seam.FireRoute(2); }); });
            Make();
            std::_Exit(journal.With("E owns_lock").Count() == 1 ? EXIT_SUCCESS : EXIT_FAILURE);
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(VolumeControlImplTest, AReportWhileTheGainControllerIsMadeIsServed) {
    seam.BeforeNext("system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")",
                    [this] { fake::OnPlatformThread([this] { seam.FireRoute(2); }); });
    Make();
    EXPECT_EQ(journal.With("I Type(0->2)").Count(), 1);
    EXPECT_EQ(control->GetSpeakerSelection(), 2);
}

TEST_F(VolumeControlImplTest, WithoutAGainControllerYetTheGainOperationsFailSilently) {
    std::vector<int> results;
    std::vector<std::string> said;
    seam.BeforeNext("system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")", [&] {
        auto* unfinished = static_cast<VolumeControlImpl*>(seam.RouteRegistration().data);
        const auto before = journal.Here().Logs().Texts().size();
        results = {unfinished->ApplyAudioGain(fake::UNMUTE, 50, 3, false),
                   unfinished->ApplyAudioGain(fake::PLAYER, 50, 3, true),
                   unfinished->ApplyVolumeFadeIn(fake::UNMUTE, 3), unfinished->ApplyPulseAudioGain(50, 0)};
        said = journal.Here().Logs().Texts();
        said.erase(said.begin(), said.begin() + static_cast<std::ptrdiff_t>(before));
    });
    Make();
    EXPECT_THAT(results, ElementsAre(-1, -1, -1, -1));
    EXPECT_THAT(said, IsEmpty());
}

TEST_F(VolumeControlImplTest, AReportDuringTheEndIsRefused) {
    Start();
    seam.BeforeNext("vconf_ignore_key_changed(\"memory/multiscreen/info\")",
                    [this] { fake::OnPlatformThread([this] { seam.FireRoute(2); }); });
    seam.BeforeNext("audio_unregister_master_mute_changed_cb",
                    [this] { fake::OnPlatformThread([this] { seam.FireRoute(4); }); });
    control.reset();
    EXPECT_EQ(journal.With("E owns_lock").Count(), 1) << "the second report finds no registration any more";
    EXPECT_EQ(journal.With("I Create HDMI Speaker").Count(), 0);
}

TEST_F(VolumeControlImplTest, WhileTheGainControllerEndsItsOperationsFailAndTheObjectIsBusy) {
    Start();
    auto& ending = *control;
    int gain = 0;
    seam.BeforeNext("system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")", [&] {
        gain = ending.ApplyPulseAudioGain(50, 0);
        fake::OnPlatformThread([&] { ending.UnsetEventHandler(); });
    });
    control.reset();
    EXPECT_EQ(gain, -1);
    EXPECT_EQ(journal.With("E mutex lock failed").Function(), "UnsetEventHandler");
}

TEST_F(VolumeControlImplTest, TheEndRemovesTheListenersFirst) {
    Start();
    const auto owned = std::make_shared<int>();
    control->SetEventHandler("VOLUME_CHANGED", [owned](int /*type*/, int /*volume*/) {});
    long owners = 0;
    seam.BeforeNext("vconf_ignore_key_changed(\"memory/multiscreen/info\")",
                    [&] { owners = owned.use_count(); });
    control.reset();
    EXPECT_EQ(owners, 1) << "the listener is gone before the first registration";
}

TEST_F(VolumeControlImplTest, AnExceptionDuringTheStartReleasesWhatWasMade) {
    seam.BeforeNext("audio_register_master_mute_changed_cb", [] { throw std::runtime_error("on purpose"); });
    EXPECT_THROW(VolumeControlImpl(), std::runtime_error);
    EXPECT_EQ(journal.With("E Already unset event handler").Count(), 0) << "it still had its handlers";
    EXPECT_THAT(journal.Traces().Names(), testing::Contains("[OUT]TVSpeaker::~TVSpeaker"));
}

TEST_F(VolumeControlImplTest, AReportDuringTheEndOfAFailedStartIsRefused) {
    seam.BeforeNext("D \t[IN]NKavrel::KVAudioGainHandler::KVAudioGainHandler()",
                    [] { throw std::bad_alloc(); });
    seam.BeforeNext("D \t[IN]virtual NKavrel::TVSpeaker::~TVSpeaker()",
                    [this] { fake::OnPlatformThread([this] { seam.FireRoute(2); }); });
    EXPECT_THROW(VolumeControlImpl(), std::bad_alloc);
    EXPECT_EQ(journal.With("E owns_lock").Count(), 1);
    EXPECT_EQ(journal.With("I Create HDMI Speaker").Count(), 0);
}

TEST_F(VolumeControlImplTest, ASecondListenerOfAnEventNeverReplacesTheFirst) {
    Start();
    Listen("VOLUME_CHANGED");
    control->SetEventHandler("VOLUME_CHANGED", [this](int, int) { heard.emplace_back("second"); });
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("E Already set VOLUME_CHANGED event handler"));
    EXPECT_EQ(journal.With("E Already set VOLUME_CHANGED event handler").Function(), "SetEventHandler");
    seam.FireVolume(30);
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0xffff 30"));
}

TEST_F(VolumeControlImplTest, AVolumeReportIsStoredAndAnnounced) {
    Start();
    ListenToAll();
    seam.FireVolume(30);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I volume is changed : 30", "I event: [VOLUME_CHANGED]"));
    EXPECT_EQ(journal.With("I volume is changed : 30").Function(), "_OnVolumeChanged");
    EXPECT_EQ(journal.With("I event: [VOLUME_CHANGED]").Function(), "_NotifyVolumeEvent");
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0xffff 30"));
}

TEST_F(VolumeControlImplTest, AnEqualVolumeReportIsAnErrorAndRaisesNothing) {
    Start();
    ListenToAll();
    seam.FireVolume(0);
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("E volume(0) is same"))
        << "the stored volume starts at 0";
    seam.FireVolume(30);
    seam.Clear();
    seam.FireVolume(30);
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre("E volume(30) is same"));
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0xffff 30"));
}

TEST_F(VolumeControlImplTest, AMuteReportOfTwoIsStoredAndAnnouncedAsOne) {
    Start();
    ListenToAll();
    seam.FireMute(2);
    seam.FireMute(1);
    seam.FireMute(7);
    seam.FireMute(0);
    seam.FireMute(0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I mute changed : [1]", "I event: [MUTE_CHANGED]", "I mute is same : 1",
                            "I mute is same : 1", "I mute changed : [0]", "I event: [MUTE_CHANGED]",
                            "I mute is same : 0"));
    EXPECT_EQ(journal.With("I mute is same : 1").Function(), "_OnMuteChanged");
    EXPECT_THAT(heard, ElementsAre("MUTE_CHANGED 0xffff 1", "MUTE_CHANGED 0xffff 0"));
}

TEST_F(VolumeControlImplTest, WithoutAListenerAChangeIsStoredAndNobodyIsCalled) {
    Start();
    Listen("VOLUME_CHANGED");
    seam.FireMute(1);
    seam.FireMute(1);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I mute changed : [1]", "I event: [MUTE_CHANGED]", "I mute is same : 1"));
    EXPECT_THAT(heard, IsEmpty());
}

TEST_F(VolumeControlImplTest, AFailedSupportQuerySilencesTheListenerAlthoughTheValueIsStored) {
    seam.SetRoute(2);
    Start();
    ListenToAll();
    constexpr const char* level = "memory/menu/network/screenmirroring/get_volume_level_hdmi";
    seam.FireKey(level, 12);
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_EQ(journal.With("E Failed to get volume support status").Count(), 1);
    seam.FireKey(level, 12);
    EXPECT_EQ(journal.With("E volume(12) is same").Count(), 1);
    seam.SetInt(fake::HDMI_SUPPORT_KEY, 0xF);
    seam.FireKey(level, 13);
    seam.FireKey(level, -5);
    seam.FireKey(level, 150);
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0x000f 13", "VOLUME_CHANGED 0x000f -5",
                                   "VOLUME_CHANGED 0x000f 150"))
        << "any level is passed on";
}

TEST_F(VolumeControlImplTest, AnEmptyListenerRaisesTheEmptyCallableException) {
    Start();
    control->SetEventHandler("VOLUME_CHANGED", nullptr);
    EXPECT_THROW(seam.FireVolume(30), std::bad_function_call);
    int support = 0;
    EXPECT_EQ(control->GetVolumeSupport(support), 0) << "the lock is free again";
}

TEST_F(VolumeControlImplTest, UnsetEventHandlerRemovesAllListeners) {
    Start();
    ListenToAll();
    control->UnsetEventHandler();
    seam.FireVolume(30);
    seam.FireMute(1);
    seam.FireRoute(7);
    EXPECT_THAT(heard, IsEmpty());
    Listen("VOLUME_CHANGED");
    EXPECT_EQ(journal.With("E Already set VOLUME_CHANGED event handler").Count(), 0);
}

TEST_F(VolumeControlImplTest, AListenerMayRemoveAllListenersWhileItRuns) {
    Start();
    const std::string own(100, 'x');  // belongs to the listener, which must live until it returns
    std::vector<std::string> changes;
    control->SetEventHandler("VOLUME_CHANGED", [this, own, &changes](int /*type*/, int /*volume*/) {
        control->UnsetEventHandler();
        changes.push_back(own);
    });
    seam.FireVolume(30);
    seam.FireVolume(31);
    EXPECT_THAT(changes, ElementsAre(own));
}

TEST_F(VolumeControlImplTest, ListenersRunUnderTheLockAndMayAskTheObjectOnTheSameThread) {
    Start();
    int fromHere = -9;
    int fromThere = -9;
    control->SetEventHandler("VOLUME_CHANGED", [&](int, int) {
        int support = 0;
        fromHere = control->GetVolumeSupport(support);
        fake::OnPlatformThread([&] { fromThere = control->GetVolumeSupport(support); });
    });
    seam.FireVolume(30);
    EXPECT_EQ(fromHere, 0);
    EXPECT_EQ(fromThere, -1);
    EXPECT_EQ(journal.With("E owns_lock").Count(), 1);
}

TEST_F(VolumeControlImplTest, EachOperationAndReportHoldsTheLockWhileItUsesTheSpeaker) {
    seam.SetMute(true);
    seam.SetInt(fake::HDMI_SUPPORT_KEY, 0xF);
    seam.SetZones({{1, 0}, {2, 2}});
    Start();
    seam.FireMute(1);
    int value = 0;
    bool mute = false;
    struct {
        const char* place;
        std::function<void()> action;
    } const rows[] = {
        {"audio_get_master_volume", [&] { control->GetTVVolume(value); }},
        {"audio_get_master_mute", [&] { control->GetTVVolumeMute(mute); }},
        {"audio_set_master_mute", [&] { control->SetTVVolume(30); }},
        {"audio_set_master_volume", [&] { control->SetTVVolume(40); }},
        {"audio_set_master_mute", [&] { control->SetTVVolumeMute(true); }},
        {"I event: [VOLUME_CHANGED]", [&] { seam.FireVolume(50); }},
        {"I event: [MUTE_CHANGED]", [&] { seam.FireMute(0); }},
        {"I Create HDMI Speaker", [&] { seam.FireRoute(2); }},
        {"vconf_get_int(\"memory/menu/network/screenmirroring/volume_support_hdmi\")",
         [&] { control->GetVolumeSupport(value); }},
        {"I Create TV Speaker", [&] { seam.FireZoneRoute(0, 1); }},
        {"rc_get_audio_focus", [&] { seam.FireKey(fake::MULTIVIEW_KEY, R"({"mode": "on"})"); }},
        {"I Create HDMI Speaker", [&] { seam.FireFocus(2); }},
    };
    for (const auto& row : rows) {
        int fromThere = 0;
        seam.BeforeNext(row.place, [&] {
            fake::OnPlatformThread([&] {
                int support = 0;
                fromThere = control->GetVolumeSupport(support);
            });
        });
        row.action();
        EXPECT_EQ(fromThere, -1) << row.place;
    }
}

TEST_F(VolumeControlImplTest, ABusyObjectRefusesAtOnceAndChangesNothing) {
    Start();
    Listen("VOLUME_CHANGED");
    seam.Clear();
    {
        const BusyOnAnotherThread busy(*control);
        seam.Clear();
        int support = 77;
        EXPECT_EQ(control->GetVolumeSupport(support), -1);
        EXPECT_EQ(support, 77);
        Listen("MUTE_CHANGED");
        control->UnsetEventHandler();
        seam.FireVolume(30);
        seam.FireMute(1);
        EXPECT_THAT(journal.Here().Logs().Texts(),
                    ElementsAre("E owns_lock", "E mutex lock failed", "E mutex lock failed",
                                "E mutex lock failed", "E mutex lock failed"));
        std::vector<std::string> functions;
        for (const fake::Entry& entry : journal.All().Entries()) {
            if (entry.IsLog(DLOG_ERROR)) {
                functions.push_back(entry.site.function);
            }
        }
        EXPECT_THAT(functions, ElementsAre("GetVolumeSupport", "SetEventHandler", "UnsetEventHandler",
                                           "_OnVolumeChanged", "_OnMuteChanged"));
    }
    EXPECT_THAT(heard, IsEmpty());
    seam.FireVolume(30);
    seam.FireMute(1);
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0xffff 30"))
        << "neither report was stored, the first listener stayed, the second never came";
}

TEST_F(VolumeControlImplTest, WaitForLockWaits) {
    Start();
    auto busy = std::make_unique<BusyOnAnotherThread>(*control);
    std::promise<void> got;
    auto hasGot = got.get_future();
    std::thread waiting([&] {
        const auto lock = control->WaitForLock();
        got.set_value();
    });
    // Only time can show that nothing happens.
    EXPECT_EQ(hasGot.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    busy.reset();
    hasGot.get();
    waiting.join();
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_F(VolumeControlImplTest, ANewSpeakersFirstReportIsMeasuredAgainstTheOldSpeakersValues) {
    Start();
    ListenToAll();
    seam.FireVolume(30);
    seam.FireMute(1);
    seam.SetInt(fake::HDMI_SUPPORT_KEY, 0xF);
    seam.FireRoute(2);
    heard.clear();
    seam.FireKey("memory/menu/network/screenmirroring/get_volume_level_hdmi", 30);
    seam.FireKey("memory/menu/network/screenmirroring/get_volume_mute_hdmi", 1);
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_EQ(journal.With("E volume(30) is same").Count(), 1);
    EXPECT_EQ(journal.With("I mute is same : 1").Count(), 1);
}

TEST_F(VolumeControlImplTest, ASpeakerThatCouldNotBeMadeIsMadeAgainFromTheRouteInForce) {
    Start();
    seam.BeforeNext("I Create HDMI Speaker", [] { throw std::bad_alloc(); });
    EXPECT_THROW(seam.FireRoute(2), std::bad_alloc);
    seam.SetRoute(4);
    seam.Clear();
    int support = 0;
    seam.SetInt("memory/menu/network/screenmirroring/volume_support_mlr", 0x3);
    EXPECT_EQ(control->GetVolumeSupport(support), 0);
    EXPECT_EQ(support, 0x3);
    EXPECT_EQ(control->GetSpeakerSelection(), 4);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I route:4", "I Create WIFI Speaker",
                            "I Successed to get key memory/menu/network/screenmirroring/volume_support_mlr",
                            "I current spk support [0x0003]"));
    EXPECT_EQ(seam.Watches("memory/menu/network/screenmirroring/get_volume_level_mlr").size(), 1U)
        << "and it listens again";
}

TEST_F(VolumeControlImplTest, EachOperationMakesAMissingSpeaker) {
    Start();
    int volume = 0;
    bool mute = false;
    const std::function<int()> operations[] = {
        [&] { return control->GetTVVolume(volume); }, [&] { return control->SetTVVolume(30); },
        [&] { return control->GetTVVolumeMute(mute); }, [&] { return control->SetTVVolumeMute(true); }};
    for (const auto& operation : operations) {
        seam.BeforeNext("I Create HDMI Speaker", [] { throw std::bad_alloc(); });
        EXPECT_THROW(seam.FireRoute(2), std::bad_alloc);
        seam.SetRoute(0);
        seam.Clear();
        EXPECT_EQ(operation(), 0);
        EXPECT_EQ(journal.With("I Create TV Speaker").Count(), 1);
    }
}

TEST_F(VolumeControlImplTest, ASpeakerThatGoesLosesItsHandlersBeforeItsCallbacks) {
    Start();
    seam.FireRoute(7);
    const std::vector<std::string> scopes = journal.Traces().Names();
    const auto handlers = std::ranges::find(scopes, "[OUT]TVSpeaker::UnsetEventHandler");
    const auto callbacks = std::ranges::find(scopes, "[IN]TVSpeaker::UnsetChangedCB");
    ASSERT_NE(callbacks, scopes.end());
    EXPECT_LT(handlers, callbacks);
}

TEST_F(VolumeControlImplTest, TheRouteOfANewSpeakerIsStoredBeforeItWatches) {
    Start();
    int route = -9;
    seam.BeforeNext("vconf_notify_key_changed(\"memory/menu/network/screenmirroring/volume_support_hdmi\")",
                    [&] { route = control->GetSpeakerSelection(); });
    seam.FireRoute(2);
    EXPECT_EQ(route, 2);
}

TEST_F(VolumeControlImplTest, TheSupportWordIsTheCurrentSpeakers) {
    Start();
    int support = 0;
    EXPECT_EQ(control->GetVolumeSupport(support), 0);
    EXPECT_EQ(support, 0xFFFF);
    seam.FireRoute(7);
    EXPECT_EQ(control->GetVolumeSupport(support), 0);
    EXPECT_EQ(support, 0);
    seam.FireRoute(2);
    EXPECT_EQ(control->GetVolumeSupport(support), -1) << "the key is missing";
    EXPECT_EQ(support, 0);
}

TEST_F(VolumeControlImplTest, MuteOnSpeakerChangeIsOnlyStored) {
    Start();
    control->SetMuteOnSpkChanged(true);
    EXPECT_TRUE(control->GetMuteOnSpkChanged());
    seam.FireRoute(2);
    EXPECT_TRUE(control->GetMuteOnSpkChanged());
    control->SetMuteOnSpkChanged(false);
    EXPECT_FALSE(control->GetMuteOnSpkChanged());
    EXPECT_FALSE(seam.Mute());
}

TEST_F(VolumeControlImplTest, OperationsAreTracedNotifyIsNot) {
    Start();
    ListenToAll();
    seam.Clear();
    seam.FireVolume(30);
    EXPECT_THAT(
        journal.Traces().Names(),
        ElementsAre("[IN]TVSpeaker::VolumeChangedCallback", "[IN]VolumeControlImpl::_OnVolumeChanged",
                    "[IN]VolumeControlImpl::GetVolumeSupport", "[IN]VolumeControlImpl::_GetCurrentSpeaker",
                    "[OUT]VolumeControlImpl::_GetCurrentSpeaker", "[IN]TVSpeaker::GetVolumeSupportType",
                    "[OUT]TVSpeaker::GetVolumeSupportType", "[OUT]VolumeControlImpl::GetVolumeSupport",
                    "[OUT]VolumeControlImpl::_OnVolumeChanged", "[OUT]TVSpeaker::VolumeChangedCallback"));
    seam.Clear();
    control->GetMuteOnSpkChanged();
    control->SetMuteOnSpkChanged(false);
    control->GetSpeakerSelection();
    control->GetPrevSpeakerSelection();
    EXPECT_THAT(journal.Traces().Names(), ElementsAre("[IN]VolumeControlImpl::GetMuteOnSpkChanged",
                                                      "[OUT]VolumeControlImpl::GetMuteOnSpkChanged",
                                                      "[IN]VolumeControlImpl::SetMuteOnSpkChanged",
                                                      "[OUT]VolumeControlImpl::SetMuteOnSpkChanged",
                                                      "[IN]VolumeControlImpl::GetSpeakerSelection",
                                                      "[OUT]VolumeControlImpl::GetSpeakerSelection",
                                                      "[IN]VolumeControlImpl::GetPrevSpeakerSelection",
                                                      "[OUT]VolumeControlImpl::GetPrevSpeakerSelection"));
}

}  // namespace
