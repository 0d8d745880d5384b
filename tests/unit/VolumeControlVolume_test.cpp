// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests volume, mute and gains of the present output through the volume control object. */
#include <functional>
#include <optional>

#include "VolumeControlFixture.h"
#include "WorkerWaits.h"

using fake::BusyOnAnotherThread;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* NO_FADE = "E Multi-output Audio, do not apply fade.";
constexpr const char* RECOVER = "W UnMute State, Recover gain instead of FadeIn";
constexpr int LOWEST = std::numeric_limits<int>::min();

class VolumeControlVolumeTest : public fake::VolumeControlTest {
protected:
    void StartOnHdmi(int support) {
        seam.SetRoute(2);
        seam.SetInt(fake::HDMI_SUPPORT_KEY, support);
        Start();
    }

    /** Starts with a speaker that reports that it is muted. */
    void StartMuted() {
        seam.SetMute(true);
        Start();
        seam.FireMute(1);
        seam.Clear();
    }

    /** Starts an unmute fade-in of the main output, which waits after its first step until EndOfTheFade(). */
    void StartMutedAndHoldAFade() {
        StartMuted();
        m_endless.emplace(NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT);
        control->ApplyVolumeFadeIn(fake::UNMUTE, 3);
        ASSERT_TRUE(fake::WorkerWaits(
            NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT,
            "D \t[OUT]void NKavrel::KVAudioGainHandler::SetSrcGain(NKavrel::eKVGainHandlerType, int)"));
    }
    /** Runs `request` while the multi-output route, then mirroring, holds back what concerns the unmute gain. */
    void RunHeldBack(const std::function<void()>& request) {
        seam.FireRoute(6);
        request();
        seam.FireKey(fake::TV2MOBILE_KEY, 1);
        seam.FireRoute(0);
        request();
    }
    /** @return the line with its last gain */
    std::string EndOfTheFade() {
        fake::SkipStepTimes(true);
        m_endless.reset();
        const auto end = journal.BeginningWith("I handlerGainType:4, LastGain:");
        return end.Wait() ? end.First().text : "";
    }

private:
    std::optional<fake::EndlessSteps> m_endless;
};

// Volume

TEST_F(VolumeControlVolumeTest, GetTVVolumeAlwaysAsksTheSpeaker) {
    Start();
    seam.FireVolume(30);
    seam.SetVolume(17);
    seam.Clear();
    int volume = 0;
    EXPECT_EQ(control->GetTVVolume(volume), 0);
    EXPECT_EQ(volume, 17);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("audio_get_master_volume()", "I current tv volume [17]"));
    seam.Fail("audio_get_master_volume", -3);
    EXPECT_EQ(control->GetTVVolume(volume), -3);
    EXPECT_EQ(volume, 17);
}

TEST_F(VolumeControlVolumeTest, AVolumeAboveTheRangeTouchesNothingNotEvenTheLock) {
    Start();
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    EXPECT_EQ(control->SetTVVolume(101), -2);
    EXPECT_EQ(control->SetTVVolume(std::numeric_limits<int>::max()), -2);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E invalid param SetTVVolume", "E invalid param SetTVVolume"));
    EXPECT_EQ(journal.With("E invalid param SetTVVolume").Function(), "SetTVVolume");
}

TEST_F(VolumeControlVolumeTest, HundredIsAcceptedAndNegativesAreTheSpeakersBusiness) {
    Start();
    seam.ReportOwnChanges(false);
    EXPECT_EQ(control->SetTVVolume(0), 0);
    EXPECT_EQ(control->SetTVVolume(100), 0);
    EXPECT_EQ(control->SetTVVolume(-5), 0);
    EXPECT_EQ(control->SetTVVolume(LOWEST), 0);
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("I Set vol 0->0.", "audio_set_master_volume(0, 1)", "I Set vol 0->100.",
                    "audio_set_master_volume(100, 1)", "I Set vol 0->-5.", "audio_set_master_volume(-5, 1)",
                    "I Set vol 0->-2147483648.", "audio_set_master_volume(-2147483648, 1)"))
        << "the stored volume changes only with the speaker's report";
}

TEST_F(VolumeControlVolumeTest, TheReportOfTheOwnChangeIsAnnouncedBeforeTheSetterReturns) {
    Start();
    ListenToAll();
    EXPECT_EQ(control->SetTVVolume(30), 0);
    EXPECT_THAT(heard, ElementsAre("VOLUME_CHANGED 0xffff 30"));
    seam.Clear();
    EXPECT_EQ(control->SetTVVolume(40), 0);
    EXPECT_EQ(journal.Here().Logs().Texts().front(), "I Set vol 30->40.");
}

TEST_F(VolumeControlVolumeTest, SettingAVolumeWhileMutedOnTheTvSpeakerRestoresTheGainThenUnmutesThenSets) {
    StartMuted();
    EXPECT_EQ(control->SetTVVolume(30), 0);
    EXPECT_THAT(
        journal.Here().Logs().Texts(),
        ElementsAre("I SetTvVolumeMute to false", "I Path:1 player:100 pulse:100 unmute:100 Total:100",
                    "I Path:2 player:100 pulse:100 unmute:100 Total:100",
                    "I Apply gain on mute to 100 after mute. ret=0x0", "I mute changed : [0]",
                    "I event: [MUTE_CHANGED]", "I Set vol 0->30.", "I volume is changed : 30",
                    "I event: [VOLUME_CHANGED]"));
    EXPECT_EQ(journal.With("I SetTvVolumeMute to false").Function(), "SetTVVolume");
    EXPECT_EQ(journal.With("I Apply gain on mute to 100 after mute. ret=0x0").Function(), "_SetGainOnMute");
    EXPECT_THAT(journal.Calls("audio_set").Texts(),
                ElementsAre("audio_set_master_mute(false)", "audio_set_master_volume(30, 1)"));
}

TEST_F(VolumeControlVolumeTest, SettingAVolumeWhileMutedOnAnotherRouteUnmutesWithoutTheGain) {
    StartOnHdmi(0xF);
    seam.FireKey("memory/menu/network/screenmirroring/get_volume_mute_hdmi", 1);
    seam.Clear();
    EXPECT_EQ(control->SetTVVolume(30), 0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I SetTvVolumeMute to false",
                            "I Successed to get key memory/menu/network/screenmirroring/volume_support_hdmi",
                            "I Successed to set key memory/menu/network/screenmirroring/set_volume_mute",
                            "I Set vol 0->30.",
                            "I Successed to set key memory/menu/network/screenmirroring/set_volume_level"));
    EXPECT_EQ(seam.Value("memory/menu/network/screenmirroring/set_volume_mute"), "0");
    EXPECT_EQ(seam.Value("memory/menu/network/screenmirroring/set_volume_level"), "30");
}

TEST_F(VolumeControlVolumeTest, AFailedUnmuteEndsTheVolumeChange) {
    StartMuted();
    seam.Fail("audio_set_master_mute", -6);
    EXPECT_EQ(control->SetTVVolume(30), -6);
    EXPECT_THAT(journal.Calls("audio_set_master_volume").Texts(), IsEmpty());
    seam.Succeed("audio_set_master_mute");
    seam.Fail("audio_set_master_mute", 5);
    EXPECT_EQ(control->SetTVVolume(30), 0) << "only a negative result ends it";
    EXPECT_EQ(seam.Volume(), 30);
}

TEST_F(VolumeControlVolumeTest, AFailedGainWhileMutedIsOnlyLogged) {
    StartMuted();
    SetUnmuteGain(40);
    seam.Clear();
    seam.Fail("set_main_out_gain2", -1, 1);
    EXPECT_EQ(control->SetTVVolume(30), 0);
    EXPECT_EQ(journal.With("I Apply gain on mute to 100 after mute. ret=0xffffffff").Count(), 1);
    EXPECT_EQ(seam.Volume(), 30);
}

TEST_F(VolumeControlVolumeTest, AnUnsupportedVolumeIsTheSpeakersAnswer) {
    StartOnHdmi(0x1);
    EXPECT_EQ(control->SetTVVolume(30), -4);
    EXPECT_EQ(journal.With("E SET VOLUME is not supported. 0x0001").Count(), 1);
}

// Mute

TEST_F(VolumeControlVolumeTest, GetTVVolumeMuteAlwaysAsksTheSpeaker) {
    Start();
    seam.SetMute(true);
    bool mute = false;
    EXPECT_EQ(control->GetTVVolumeMute(mute), 0);
    EXPECT_TRUE(mute);
    seam.Fail("audio_get_master_mute", -4);
    mute = false;
    EXPECT_EQ(control->GetTVVolumeMute(mute), -4);
    EXPECT_FALSE(mute);
}

TEST_F(VolumeControlVolumeTest, UnmutingTheTvSpeakerStartsTheFadeFirst) {
    StartMuted();
    EXPECT_EQ(control->SetTVVolumeMute(false), 0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I current tv mute [1]", "I Path:1 player:100 pulse:100 unmute:  0 Total:  0",
                            "I [Path:01] gain2:0", "I Path:2 player:100 pulse:100 unmute:  0 Total:  0",
                            "I [Path:02] gain2:0", "I Apply unmute fadein. ret=0x0", "I mute changed : [0]",
                            "I event: [MUTE_CHANGED]"));
    EXPECT_EQ(journal.With("I Apply unmute fadein. ret=0x0").Function(), "_ApplyUnmuteFadeIn");
    fake::SkipStepTimes(true);
    EXPECT_TRUE(journal.With(fake::MainGain(100)).Wait());
    EXPECT_TRUE(journal.With(fake::SubGain(100)).Wait());
}

TEST_F(VolumeControlVolumeTest, WithAHeadsetInAZoneUnmutingFadesTheMainOutput) {
    seam.SetInt(fake::SUB_BT_KEY, 2);
    StartMuted();
    EXPECT_EQ(control->SetTVVolumeMute(false), 0);
    EXPECT_THAT(journal.Here().Gains().Texts(), ElementsAre(fake::MainGain(0)));
}

TEST_F(VolumeControlVolumeTest, MutingStartsNothing) {
    Start();
    EXPECT_EQ(control->SetTVVolumeMute(true), 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("audio_set_master_mute(true)", "I mute changed : [1]",
                                                    "I event: [MUTE_CHANGED]"));
}

TEST_F(VolumeControlVolumeTest, UnmutingAnotherOutputStartsNothing) {
    StartOnHdmi(0xF);
    EXPECT_EQ(control->SetTVVolumeMute(false), 0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I Successed to get key memory/menu/network/screenmirroring/volume_support_hdmi",
                            "I Successed to set key memory/menu/network/screenmirroring/set_volume_mute"));
}

TEST_F(VolumeControlVolumeTest, UnmutingWhatIsNotMutedRecoversTheGain) {
    Start();
    EXPECT_EQ(control->SetTVVolumeMute(false), 0);
    EXPECT_THAT(
        journal.Here().Logs().Texts(),
        ElementsAre("I current tv mute [0]", RECOVER, "I Path:1 player:100 pulse:100 unmute:100 Total:100",
                    "I Path:2 player:100 pulse:100 unmute:100 Total:100", "I Apply unmute fadein. ret=0x0"));
}

TEST_F(VolumeControlVolumeTest, AFailedSetMuteIsTheSpeakersAnswer) {
    Start();
    seam.Fail("audio_set_master_mute", -12);
    EXPECT_EQ(control->SetTVVolumeMute(true), -12);
}

// The lock

TEST_F(VolumeControlVolumeTest, TheFourOperationsRefuseAtOnceWhenTheObjectIsBusy) {
    Start();
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    int volume = 5;
    bool mute = true;
    EXPECT_EQ(control->GetTVVolume(volume), -1);
    EXPECT_EQ(control->SetTVVolume(30), -1);
    EXPECT_EQ(control->GetTVVolumeMute(mute), -1);
    EXPECT_EQ(control->SetTVVolumeMute(false), -1);
    EXPECT_EQ(volume, 5);
    EXPECT_TRUE(mute);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E owns_lock", "E owns_lock", "E owns_lock", "E owns_lock"));
    std::vector<std::string> functions;
    for (const fake::Entry& entry : journal.All().Entries()) {
        if (entry.IsLog(DLOG_ERROR)) {
            functions.push_back(entry.site.function);
        }
    }
    EXPECT_THAT(functions, ElementsAre("GetTVVolume", "SetTVVolume", "GetTVVolumeMute", "SetTVVolumeMute"));
}

TEST_F(VolumeControlVolumeTest, TheGainOperationsNeedNoLock) {
    Start();
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
    EXPECT_EQ(control->ApplyAudioGain(fake::PLAYER, 50, 3, false), 0);
    EXPECT_EQ(control->ApplyPulseAudioGain(100, 0), 0);
    EXPECT_EQ(seam.MainGainValue(), 20);
    EXPECT_THAT(journal.Here().Logs().Texts(), Not(Contains("E owns_lock")));
}

// Gains and fades

TEST_F(VolumeControlVolumeTest, AnUnmuteFadeWhileUnmutedRecoversTheGainInstead) {
    Start();
    SetUnmuteGain(40);
    seam.Clear();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("I current tv mute [0]", RECOVER,
                            "I Path:1 player:100 pulse:100 unmute:100 Total:100", "I [Path:01] gain2:100",
                            "I Path:2 player:100 pulse:100 unmute:100 Total:100", "I [Path:02] gain2:100"));
    EXPECT_EQ(journal.With(RECOVER).Function(), "ApplyVolumeFadeIn");
}

TEST_F(VolumeControlVolumeTest, TheGainIsRecoveredOnThePathOfTheFade) {
    seam.SetInt(fake::SUB_BT_KEY, 2);
    Start();
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 2, false), 0);
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 2), 0);
    EXPECT_THAT(journal.Here().Gains().Texts(), ElementsAre(fake::SubGain(40), fake::SubGain(100)));
}

TEST_F(VolumeControlVolumeTest, AnUnreadableMuteIsTreatedAsUnmuted) {
    Start();
    seam.SetMute(true);
    seam.Fail("audio_get_master_mute", -1);
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_EQ(journal.With(RECOVER).Count(), 1);
    const BusyOnAnotherThread busy(*control);
    seam.Clear();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_THAT(journal.Here().Logs().Texts(), Contains("E owns_lock"));
    EXPECT_EQ(journal.With(RECOVER).Count(), 1);
}

TEST_F(VolumeControlVolumeTest, AnUnmuteFadeWhileMutedFades) {
    StartMuted();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_EQ(journal.With(RECOVER).Count(), 0);
    EXPECT_TRUE(journal.With("I Wake UnMuteMainOutH. gain:0").Wait());
    EXPECT_TRUE(journal.With("I Wake UnMuteSubOutH. gain:0").Wait());
    fake::SkipStepTimes(true);
    EXPECT_TRUE(journal.With("I handlerGainType:4, LastGain:100").Wait());
    EXPECT_TRUE(journal.With("I handlerGainType:5, LastGain:100").Wait());
}

TEST_F(VolumeControlVolumeTest, AnUnmuteFadeIsProtectedFromInterruptionAndAGainChangeMayCutIntoOne) {
    seam.SetMute(true);
    Make();
    control->ApplyVolumeFadeIn(fake::UNMUTE, 3);
    ASSERT_TRUE(journal.With("I Wake UnMuteMainOutH. gain:0").Wait());
    ASSERT_TRUE(journal.With("I Wake UnMuteSubOutH. gain:0").Wait());
    control->ApplyAudioGain(fake::UNMUTE, 33, 3, false);
    EXPECT_TRUE(journal.BeginningWith("I Interruptable status[type:4]. gain:").Wait());
    ASSERT_TRUE(fake::WorkersRest());
    EXPECT_EQ(journal.With("I handlerGainType:4, LastGain:100").Count(), 0);
    control->ApplyVolumeFadeIn(fake::UNMUTE, 3);
    fake::SkipStepTimes(true);
    EXPECT_TRUE(journal.With("I handlerGainType:4, LastGain:100").Wait())
        << "the fade takes the permission back";
}

TEST_F(VolumeControlVolumeTest, APlayerFadeNeedsNoMuteState) {
    Start();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::PLAYER, 1), 0);
    EXPECT_THAT(journal.Here().Calls().Texts(), Not(Contains("audio_get_master_mute()")));
    EXPECT_TRUE(journal.With("I Wake PlayerMainOutH. gain:0").Wait());
}

TEST_F(VolumeControlVolumeTest, OnTheMultiOutputRouteSourceThreeDoesNothingUnlessForced) {
    seam.SetRoute(6);
    Start();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(NO_FADE, NO_FADE));
    EXPECT_EQ(journal.With(NO_FADE).Function(), "_IsFadeInAvailable");
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, true), 0);
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(control->ApplyAudioGain(fake::PLAYER, 50, 3, false), 0);
    EXPECT_EQ(seam.MainGainValue(), 20) << "other sources are not concerned";
}

TEST_F(VolumeControlVolumeTest, WhileMirroringSourceThreeDoesNothingEvenForced) {
    for (const int status : {2, -2}) {
        control.reset();
        seam.SetInt(fake::TV2MOBILE_KEY, status);
        Start();
        EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
        EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
        EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, true), 0);
        EXPECT_THAT(journal.Here().Texts(), IsEmpty());
        EXPECT_EQ(control->ApplyAudioGain(fake::PLAYER, 50, 3, false), 0);
        EXPECT_EQ(seam.MainGainValue(), 50);
    }
    seam.FireRoute(6);
    seam.Clear();
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::UNMUTE, 3), 0);
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, false), 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(NO_FADE, NO_FADE)) << "the route is looked at first";
}

TEST_F(VolumeControlVolumeTest, AMirroringReportThatMeetsTheLockIsFollowed) {
    Start();
    {
        const BusyOnAnotherThread busy(*control);
        seam.FireKey(fake::TV2MOBILE_KEY, 1);
    }
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 40, 3, true), 0);
    EXPECT_EQ(seam.MainGainValue(), 100);
}

TEST_F(VolumeControlVolumeTest, WhatIsHeldBackAndThePlayersGainDoNotInterruptAFade) {
    StartMutedAndHoldAFade();
    RunHeldBack([this] { control->ApplyAudioGain(fake::UNMUTE, 40, 3, false); });
    control->ApplyAudioGain(fake::PLAYER, 50, 1, false);
    EXPECT_EQ(EndOfTheFade(), "I handlerGainType:4, LastGain:100");
}

TEST_F(VolumeControlVolumeTest, WhatIsHeldBackAndThePlayersFadeDoNotProtectAFade) {
    StartMutedAndHoldAFade();
    control->ApplyAudioGain(fake::UNMUTE, 40, 3, false);
    RunHeldBack([this] { control->ApplyVolumeFadeIn(fake::UNMUTE, 3); });
    control->ApplyVolumeFadeIn(fake::PLAYER, 2);
    EXPECT_EQ(EndOfTheFade(), "I handlerGainType:4, LastGain:40");
}

TEST_F(VolumeControlVolumeTest, OtherSourcesAndPathsAreTheGainControllersBusiness) {
    Start();
    EXPECT_EQ(control->ApplyAudioGain(static_cast<KVDefine::eKVGainSrcType>(9), 50, 3, false), -2);
    EXPECT_EQ(control->ApplyAudioGain(fake::UNMUTE, 50, 4, false), -2);
    EXPECT_EQ(control->ApplyVolumeFadeIn(static_cast<KVDefine::eKVGainSrcType>(LOWEST), 3), -2);
    EXPECT_EQ(control->ApplyVolumeFadeIn(fake::PLAYER, 8), -2);
    EXPECT_THAT(journal.Here().Logs().Texts(),
                ElementsAre("E Invalid gainOut srcType:9", "E Invalid audioPath:4",
                            "E Invalid gainOut srcType:-2147483648", "E Invalid audioPath:8"));
}

TEST_F(VolumeControlVolumeTest, ThePulseGainIsPassedOn) {
    Start();
    // The request also wakes the gain-out worker, which could write between the pulse worker's two writes.
    auto gainOut = seam.BlockNext("D \t[IN]bool NKavrel::KVAudioGainHandler::IsMainOutUpdating()");
    EXPECT_EQ(control->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(gainOut.WaitReached());
    ASSERT_TRUE(journal.With("I Sleep PulseRampH").Wait());
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(fake::MainGain(50), fake::SubGain(50)));
}

}  // namespace
