// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"
#include "KVDefine.h"
#include "WorkerWaits.h"

using fake::MainGain;
using fake::SubGain;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* SUB_BT_ZONE = "memory/org.olvane.btapp/sub_audio_zoneid";

/** The line that a pulse ramp from the gain 100 logs first, with the milliseconds of each step. */
std::string RampWithSteps(const std::string& milliseconds) {
    return "I startVolume:100, remainCount:10, timeout:" + milliseconds;
}

/** Tests the four gain methods and the pulse signal with the whole daemon. */
class GainMethodsTest : public DaemonTest {
protected:
    void SetUp() override { Start(); }

    /** The log lines of the requests' handlers. */
    std::vector<std::string> OfRequest() const {
        return MainLoop().Logs().By("KVDbusEventHandler.cpp").Lines();
    }
    void SetPlayerGain(int gain) {
        daemon->OnMainLoop([&] {
            daemon->Server().getCurrentSpeaker()->ApplyAudioGain(KVDefine::GAIN_SRC_PLAYER, gain,
                                                                 KVDefine::AUDIO_PATH_MAIN_OUT, false);
        });
        ASSERT_EQ(seam.MainGainValue(), gain);
    }
    void Mute() {
        Call("SetSpeakerMute", g_variant_new("(b)", TRUE));
        seam.Clear();
    }
};

// Fade-ins.

TEST_F(GainMethodsTest, APlayerFadeInDropsThePlayerGainOfItsPathAndBringsItBack) {
    fake::SkipStepTimes(true);
    EXPECT_EQ(Call("ApplyPlayerFadeIn", g_variant_new("(i)", 1)), "(0,)");
    EXPECT_THAT(OfRequest(),
                ElementsAre("_HandleApplyVolumeFadeIn: I Apply Player VolumeFadeIn. path:1",
                            "_HandleApplyVolumeFadeIn: I Doen Apply Player VolumeFadeIn. ret:0"));
    EXPECT_EQ(journal.Gains().Texts().at(0), MainGain(0)) << "before the reply";
    EXPECT_TRUE(journal.With(MainGain(100)).Wait());
    EXPECT_THAT(journal.Gains(fake::Out::SUB).Numbers(), IsEmpty());
}

TEST_F(GainMethodsTest, AnUnmuteFadeInDiffersInTheSourceAndTheWord) {
    Mute();
    EXPECT_EQ(Call("ApplyUnmuteFadeIn", g_variant_new("(i)", 1)), "(0,)");
    EXPECT_THAT(OfRequest(),
                ElementsAre("_HandleApplyVolumeFadeIn: I Apply Unmute VolumeFadeIn. path:1",
                            "_HandleApplyVolumeFadeIn: I Doen Apply Unmute VolumeFadeIn. ret:0"));
    EXPECT_EQ(journal.Gains().Texts().at(0), MainGain(0)) << "before the reply";
    EXPECT_TRUE(journal.Of("UnMuteMainOutH").Logs().Wait());
}

TEST_F(GainMethodsTest, AnUnmuteFadeInWhileUnmutedRecoversTheGainAtOnce) {
    Call("ApplyGainOnMute", g_variant_new("(ii)", 3, 40));
    seam.Clear();
    EXPECT_EQ(Call("ApplyUnmuteFadeIn", g_variant_new("(i)", 3)), "(0,)");
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(100), SubGain(100)));
    EXPECT_THAT(OfRequest(),
                ElementsAre("_HandleApplyVolumeFadeIn: I Apply Unmute VolumeFadeIn. path:3",
                            "_HandleApplyVolumeFadeIn: I Doen Apply Unmute VolumeFadeIn. ret:0"));
}

TEST_F(GainMethodsTest, AFadeInOnThePathOfTheSubOutputLeavesTheMainOutputAlone) {
    fake::SkipStepTimes(true);
    EXPECT_EQ(Call("ApplyPlayerFadeIn", g_variant_new("(i)", 2)), "(0,)");
    EXPECT_TRUE(journal.With(SubGain(100)).Wait());
    EXPECT_THAT(journal.Gains(fake::Out::MAIN).Numbers(), IsEmpty());
}

TEST_F(GainMethodsTest, AFadeInOnNoPathIsRefusedByTheOperation) {
    EXPECT_EQ(Call("ApplyPlayerFadeIn", g_variant_new("(i)", 0)), "(-2,)");
    EXPECT_EQ(Call("ApplyPlayerFadeIn", g_variant_new("(i)", -4)), "(-2,)");
    EXPECT_THAT(OfRequest(), Contains("_HandleApplyVolumeFadeIn: I Doen Apply Player VolumeFadeIn. ret:-2"));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(GainMethodsTest, OnTheMultiOutputRouteAnUnmuteFadeInAnswersZeroAndDoesNothing) {
    seam.FireRoute(6);
    Mute();
    EXPECT_EQ(Call("ApplyUnmuteFadeIn", g_variant_new("(i)", 1)), "(0,)");
    EXPECT_THAT(OfRequest(),
                ElementsAre("_HandleApplyVolumeFadeIn: I Apply Unmute VolumeFadeIn. path:1",
                            "_HandleApplyVolumeFadeIn: I Doen Apply Unmute VolumeFadeIn. ret:0"));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

// Gains.

TEST_F(GainMethodsTest, AGainOnMuteTakesThePathFirst) {
    seam.FireKey(SUB_BT_ZONE, 1);  // a sub Bluetooth zone keeps the outputs' unmute gains apart
    seam.Clear();
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 1, 40)), "(0,)");
    EXPECT_THAT(OfRequest(), ElementsAre("_OnApplyGainOnMute: I Apply GainOnMute path:1 gain:40",
                                         "_OnApplyGainOnMute: I Done Apply GainOnMute:40. ret:0"));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40)));
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 2, 30)), "(0,)");
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40), SubGain(30)));
}

TEST_F(GainMethodsTest, AGainIsPassedOnUnchecked) {
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 3, -40)), "(0,)");
    EXPECT_THAT(OfRequest(), ElementsAre("_OnApplyGainOnMute: I Apply GainOnMute path:3 gain:-40",
                                         "_OnApplyGainOnMute: I Done Apply GainOnMute:-40. ret:0"));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(-40), SubGain(-40)));
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 3, 101)), "(0,)");
    EXPECT_EQ(seam.MainGainValue(), -40) << "the gain controller's to refuse";
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 40, 1)), "(-2,)");
}

TEST_F(GainMethodsTest, AGainOnMuteIsNotForcedThroughOnTheMultiOutputRoute) {
    seam.FireRoute(6);
    seam.Clear();
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 3, 40)), "(0,)");
    EXPECT_THAT(OfRequest(), ElementsAre("_OnApplyGainOnMute: I Apply GainOnMute path:3 gain:40",
                                         "_OnApplyGainOnMute: I Done Apply GainOnMute:40. ret:0"));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(GainMethodsTest, AResetBringsThePlayerGainToFullWhateverItIs) {
    SetPlayerGain(30);
    seam.Clear();
    EXPECT_EQ(Call("ResetPlayerGain", g_variant_new("(i)", 1)), "(0,)");
    EXPECT_THAT(OfRequest(), ElementsAre("_OnResetPlayerGain: I Reset PlayerGain. path:1",
                                         "_OnResetPlayerGain: I Done Reset PlayerGain:MAX. ret:0"));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(100)));
    seam.Clear();
    EXPECT_EQ(Call("ResetPlayerGain", g_variant_new("(i)", 1)), "(0,)");
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(GainMethodsTest, AFailedWriteIsTheStatusOfAReset) {
    SetPlayerGain(30);
    seam.Fail("set_main_out_gain2", -9);
    EXPECT_EQ(Call("ResetPlayerGain", g_variant_new("(i)", 1)), "(-1,)");
    EXPECT_THAT(OfRequest(), Contains("_OnResetPlayerGain: I Done Reset PlayerGain:MAX. ret:-1"));
}

// The pulse ramp.

TEST_F(GainMethodsTest, APulseGainSetAtOnceReachesBothOutputs) {
    Emit("ApplyPulseAudioGain", g_variant_new("(ii)", 50, 0));
    EXPECT_THAT(OfRequest(),
                ElementsAre("_OnApplyPulseAudioGain: I Apply PulseAudioGain 50, duration 0",
                            "_OnApplyPulseAudioGain: I Done Apply PulseAudioGain 50, duration 0. ret:0"));
    EXPECT_TRUE(journal.With(MainGain(50)).Wait());
    EXPECT_TRUE(journal.With(SubGain(50)).Wait());
}

TEST_F(GainMethodsTest, APulseGainWithADurationRampsToIt) {
    Emit("ApplyPulseAudioGain", g_variant_new("(ii)", 50, 100));
    EXPECT_THAT(OfRequest(),
                ElementsAre("_OnApplyPulseAudioGain: I Apply PulseAudioGain 50, duration 100",
                            "_OnApplyPulseAudioGain: I Done Apply PulseAudioGain 50, duration 100. ret:0"));
    EXPECT_TRUE(journal.With(RampWithSteps("10")).Wait());
    EXPECT_TRUE(journal.With(MainGain(50)).Wait());
}

TEST_F(GainMethodsTest, ANegativeDurationOfAPulseGainIsPassedOn) {
    Emit("ApplyPulseAudioGain", g_variant_new("(ii)", 50, -100));
    EXPECT_TRUE(journal.With(RampWithSteps("4294967286")).Wait());
}

TEST_F(GainMethodsTest, APulseSignalOfAnotherTypeActsOnNothing) {
    Emit("ApplyPulseAudioGain", g_variant_new("(is)", 50, "100"));
    Emit("ApplyPulseAudioGain", nullptr);
    EXPECT_THAT(OfRequest(),
                ElementsAre("_OnApplyPulseAudioGain: E Invalid parameters of signal ApplyPulseAudioGain: "
                            "expected (ii), got (is)",
                            "_OnApplyPulseAudioGain: E Invalid parameters of signal ApplyPulseAudioGain: "
                            "expected (ii), got ()"));
    EXPECT_EQ(journal.With("I Wake PulseRampH").Count(), 0);
}

}  // namespace
