// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the pulse worker and the gain-out worker. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

#include "GainFixture.h"

using fake::MainGain;
using fake::SubGain;
using KVDefine::GAIN_SRC_PLAYER;
using NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT;
using NKavrel::GAIN_HANDLER_PULSE_RAMP;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

namespace {

using namespace std::chrono_literals;
using fake::Milliseconds;

constexpr int LOWEST = std::numeric_limits<int>::min();
constexpr int HIGHEST = std::numeric_limits<int>::max();

constexpr const char* PULSE_WORKER = "PulseRampH";
constexpr const char* OUT_WORKER = "AudioGainOutH";
constexpr const char* WAKE = "I Wake PulseRampH";
constexpr const char* IDLE = "I remain count is 0, Nothing to do!";
constexpr const char* SLEEP = "I Sleep PulseRampH";

/** The lines that the pulse worker logs for the last steps of a ramp, one for each gain. */
std::vector<std::string> StepLines(const std::vector<int>& gains, unsigned int timeout) {
    std::vector<std::string> lines;
    for (std::size_t remain = gains.size(); remain > 0; --remain) {
        const int gain = gains[gains.size() - remain];
        lines.push_back("I remain count is " + std::to_string(remain) + ", timedwait " +
                        std::to_string(timeout));
        lines.push_back("I Remain[" + std::to_string(remain - 1) + "]. gain:" + std::to_string(gain));
    }
    return lines;
}

std::string StartLine(int start, unsigned int timeout) {
    return "I startVolume:" + std::to_string(start) + ", remainCount:10, timeout:" + std::to_string(timeout);
}

std::vector<std::string> operator+(std::vector<std::string> lines, const std::vector<std::string>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

class KVAudioGainHandlerPulseTest : public fake::GainFixture {
protected:
    using Lines = std::vector<std::string>;

    std::vector<int> PulseStores() const { return StoredGains(GAIN_HANDLER_PULSE_RAMP); }

    /** The log lines of the pulse worker, without those about the outputs that it writes. */
    Lines PulseLines() const {
        Lines lines = journal.Of(PULSE_WORKER).Texts();
        std::erase_if(lines, [](const std::string& line) {
            return !line.starts_with("I ") || line.starts_with("I Path:") || line.starts_with("I [Path:");
        });
        return lines;
    }

    std::pair<int, int> Target() {
        int target = 12345;
        int duration = 12345;
        gain->GetPulseTargetValue(target, duration);
        return {target, duration};
    }
};

// Ramps

TEST_F(KVAudioGainHandlerPulseTest, ARampGoesToItsTargetInTenSteps) {
    const std::vector<int> gains = {92, 84, 76, 68, 60, 52, 44, 36, 28, 20};
    Start();
    EXPECT_EQ(gain->ApplyPulseAudioGain(20, 1000), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseStores(), ElementsAreArray(gains));
    EXPECT_THAT(
        journal.Of(PULSE_WORKER).Texts(),
        ElementsAreArray(Lines{WAKE, StartLine(100, 100)} + StepLines(gains, 100) + Lines{IDLE, SLEEP}));

    const auto stores = Stores(GAIN_HANDLER_PULSE_RAMP);
    Milliseconds shortest = stores[0].time - journal.Of(PULSE_WORKER).With(StartLine(100, 100)).First().time;
    for (std::size_t i = 1; i < stores.size(); ++i) {
        shortest = std::min<Milliseconds>(shortest, stores[i].time - stores[i - 1].time);
    }
    EXPECT_GE(shortest, 100ms);
    EXPECT_LE(fake::LongestStep(GAIN_HANDLER_PULSE_RAMP), 100ms);
}

TEST_F(KVAudioGainHandlerPulseTest, TheGainOutWorkerWritesBothOutputsDuringARamp) {
    Start();
    gain->ApplyPulseAudioGain(0, 600);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(journal.Of(OUT_WORKER).Texts().front(), "I AudioGainOut. Update(M:1/S:1)");
    for (const auto out : {fake::Out::MAIN, fake::Out::SUB}) {
        const std::vector<int> written = journal.Gains(out).Numbers();
        ASSERT_FALSE(written.empty());
        EXPECT_EQ(written.back(), 0);
        EXPECT_TRUE(std::ranges::is_sorted(written, std::greater<>()));
        for (const int value : written) {
            EXPECT_EQ(value % 10, 0);
        }
    }
    for (const fake::Entry& write : journal.Gains().Entries()) {
        EXPECT_EQ(write.threadName, OUT_WORKER);
    }
}

TEST_F(KVAudioGainHandlerPulseTest, BothOutputsCountAsUpdatingDuringARamp) {
    Start();
    bool main = false;
    bool sub = false;
    AfterStore(GAIN_HANDLER_PULSE_RAMP, 95, [&] {
        main = gain->IsMainOutUpdating();
        sub = gain->IsSubOutUpdating();
    });
    bool isWakingWorkerUpdating = false;
    bool isSleepingWorkerUpdating = true;
    seam.BeforeNext(WAKE, [&] { isWakingWorkerUpdating = gain->IsMainOutUpdating(); });
    seam.BeforeNext(SLEEP, [&] { isSleepingWorkerUpdating = gain->IsMainOutUpdating(); });
    gain->ApplyPulseAudioGain(50, 20);
    ASSERT_TRUE(Rest());
    EXPECT_TRUE(main);
    EXPECT_TRUE(sub);
    EXPECT_TRUE(isWakingWorkerUpdating);
    EXPECT_FALSE(isSleepingWorkerUpdating);
    EXPECT_FALSE(gain->IsMainOutUpdating());
    EXPECT_FALSE(gain->IsSubOutUpdating());
}

TEST_F(KVAudioGainHandlerPulseTest, InEachRoundTheMainOutputComesBeforeTheSubOutput) {
    Start();
    const fake::EndlessSteps endless(GAIN_HANDLER_PULSE_RAMP);
    gain->ApplyPulseAudioGain(50, 1000);
    ASSERT_TRUE(journal.Of(OUT_WORKER).BeginningWith("I Path:").Wait(2));
    EXPECT_THAT(journal.Of(OUT_WORKER).BeginningWith("I Path:").First().text,
                testing::StartsWith("I Path:1"));
}

TEST_F(KVAudioGainHandlerPulseTest, StepsAreTruncatedTowardTheStart) {
    Start();
    gain->ApplyPulseAudioGain(93, 20);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseStores(), ElementsAre(100, 99, 98, 98, 97, 96, 96, 95, 94, 93));
    gain->ApplyPulseAudioGain(100, 20);
    ASSERT_TRUE(Rest());
    const std::vector<int> stores = PulseStores();
    EXPECT_THAT(std::vector<int>(stores.begin() + 10, stores.end()),
                ElementsAre(93, 94, 95, 95, 96, 97, 97, 98, 99, 100));
}

TEST_F(KVAudioGainHandlerPulseTest, StepsOfNoMillisecondFollowEachOtherWithoutPause) {
    Start();
    gain->ApplyPulseAudioGain(0, 5);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(PULSE_WORKER).Texts(),
                ElementsAreArray(Lines{WAKE, StartLine(100, 0)} +
                                 StepLines({90, 80, 70, 60, 50, 40, 30, 20, 10, 0}, 0) + Lines{IDLE, SLEEP}));
    seam.Clear();
    gain->ApplyPulseAudioGain(100, -9);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(
        journal.Of(PULSE_WORKER).Texts(),
        ElementsAreArray(Lines{WAKE, StartLine(0, 0)} +
                         StepLines({10, 20, 30, 40, 50, 60, 70, 80, 90, 100}, 0) + Lines{IDLE, SLEEP}));
    EXPECT_EQ(fake::LongestStep(GAIN_HANDLER_PULSE_RAMP), 0ms);
}

TEST_F(KVAudioGainHandlerPulseTest, RampsOfAnyIntWrapIn32Bits) {
    Start();
    struct Ramp {
        int start;
        int target;
        std::vector<int> gains;
    };
    for (const auto& [start, target, gains] : {
             Ramp{LOWEST,
                  100,
                  {1932735294, -2147483628, 1932735314, -2147483608, 1932735334, -2147483588, 1932735354,
                   -2147483568, 1932735374, -2147483548}},
             Ramp{100, LOWEST, {214748454, 80, 214748434, 60, 214748414, 40, 214748394, 20, 214748374, 0}},
             Ramp{-HIGHEST,
                  0,
                  {-1932735283, -2147483647, -1932735283, -2147483647, -1932735283, -2147483647, -1932735283,
                   -2147483647, -1932735284, LOWEST}},
             Ramp{
                 0, 1 - HIGHEST, {-214748364, 0, -214748364, 0, -214748363, 1, -214748363, 1, -214748363, 2}},
             Ramp{LOWEST,
                  LOWEST,
                  {LOWEST, LOWEST, LOWEST, LOWEST, LOWEST, LOWEST, LOWEST, LOWEST, LOWEST, LOWEST}},
             Ramp{-1000000000,
                  99,
                  {-899999991, -799999981, -1129496699, -1029496690, -929496681, -829496671, -1158993389,
                   -1058993380, -958993371, -858993361}},
             Ramp{7,
                  -2000000000,
                  {-199999993, 29496735, -170503265, 58993463, -141006537, 88490191, -111509809, 117986919,
                   -82013080, 147483648}},
         }) {
        gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, start);
        seam.Clear();
        gain->ApplyPulseAudioGain(target, 5);
        ASSERT_TRUE(Rest());
        EXPECT_THAT(PulseLines(), ElementsAreArray(Lines{WAKE, StartLine(start, 0)} + StepLines(gains, 0) +
                                                   Lines{IDLE, SLEEP}));
    }
}

TEST_F(KVAudioGainHandlerPulseTest, AStepAboveFullGainIsNotStored) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, LOWEST);
    gain->ApplyPulseAudioGain(100, 5);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseStores(), ElementsAre(LOWEST, -2147483628, -2147483628, -2147483608, -2147483608,
                                           -2147483588, -2147483588, -2147483568, -2147483568, -2147483548));
}

// Changes without a ramp

TEST_F(KVAudioGainHandlerPulseTest, WithoutADurationThePulseWorkerWritesBothOutputsItself) {
    Start();
    auto gainOut = seam.BlockNext("D \t[IN]bool NKavrel::KVAudioGainHandler::IsMainOutUpdating()");
    EXPECT_EQ(gain->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(gainOut.WaitReached());
    ASSERT_TRUE(Waits(GAIN_HANDLER_PULSE_RAMP, SLEEP));
    EXPECT_THAT(
        journal.Of(PULSE_WORKER).Texts(),
        ElementsAre(WAKE, "AudioControl_getInstance()", "I Path:1 player:100 pulse: 50 unmute:100 Total: 50",
                    "get_main_out_gain2()", "set_main_out_gain2(50)", "I [Path:01] gain2:50",
                    "AudioControl_getInstance()", "I Path:2 player:100 pulse: 50 unmute:100 Total: 50",
                    "get_sub_out_gain2()", "set_sub_out_gain2(50)", "I [Path:02] gain2:50", IDLE, SLEEP));
    EXPECT_THAT(PulseStores(), ElementsAre(50));
    gainOut.Open();
    ASSERT_TRUE(Rest());
}

TEST_F(KVAudioGainHandlerPulseTest, AWriteThatFailsDoesNotHoldThePulseWorkerUp) {
    Start();
    seam.Fail("set_main_out_gain2", -9);
    EXPECT_EQ(gain->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(PULSE_WORKER).Texts(), Contains("E Failed to set gain2(50). ret:-9"));
    EXPECT_EQ(seam.MainGainValue(), 100);
    seam.Succeed("set_main_out_gain2");
    EXPECT_EQ(gain->ApplyPulseAudioGain(40, 0), 0);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(seam.SubGainValue(), 40);
}

TEST_F(KVAudioGainHandlerPulseTest, WithGainControlDisabledThePulseGainIsOnlyStored) {
    seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
    Start();
    EXPECT_EQ(gain->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(PULSE_WORKER).Texts(), ElementsAre(WAKE, "E Disable Gain Control", IDLE, SLEEP));
    EXPECT_EQ(Gain(GAIN_HANDLER_PULSE_RAMP), 50);
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerPulseTest, ARequestIsRaisedOnlyWhenItsTargetIsStored) {
    Start();
    seam.BeforeNext("D \t[IN]void NKavrel::KVAudioGainHandler::SetPulseTargetValue(int, int)", [this] {
        gain->_ApplyAudioGain(GAIN_HANDLER_PULSE_RAMP, 1, 100, false);  // wakes the pulse worker
        EXPECT_TRUE(Rest());
    });
    EXPECT_EQ(gain->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(PULSE_WORKER).Texts(), Contains(WAKE).Times(1));
    EXPECT_THAT(PulseStores(), ElementsAre(50));
}

TEST_F(KVAudioGainHandlerPulseTest, AnAtOnceRequestIsPendingUntilItIsWritten) {
    Start();
    fake::Gate gate;
    seam.Before("D \t[IN]int NKavrel::KVAudioGainHandler::SetAudioGain(int)", [&gate] {
        std::array<char, 16> name = {};
        pthread_getname_np(pthread_self(), name.data(), name.size());
        if (std::string(name.data()) == PULSE_WORKER) {
            gate.Pass();
        }
    });
    EXPECT_EQ(gain->ApplyPulseAudioGain(50, 0), 0);
    ASSERT_TRUE(gate.WaitReached());
    EXPECT_LT(ShortestPeriod(20ms), 20ms) << "the period of a pending request without a duration";
    gate.Open();
    ASSERT_TRUE(Rest());
}

// Targets

TEST_F(KVAudioGainHandlerPulseTest, ATargetAboveFullGainIsDroppedWithItsDuration) {
    Start();
    gain->SetPulseTargetValue(30, 200);
    gain->SetPulseTargetValue(101, 7);
    EXPECT_EQ(Target(), std::pair(30, 200));
    gain->SetPulseTargetValue(HIGHEST, 7);
    EXPECT_EQ(Target(), std::pair(30, 200));
    gain->SetPulseTargetValue(LOWEST, LOWEST);
    EXPECT_EQ(Target(), std::pair(LOWEST, LOWEST));
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerPulseTest, ARequestWithADroppedTargetRunsTheOneBeforeAgain) {
    Start();
    gain->ApplyPulseAudioGain(30, 20);
    ASSERT_TRUE(Rest());
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 80);
    seam.Clear();
    EXPECT_EQ(gain->ApplyPulseAudioGain(101, 5000), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseLines(), ElementsAreArray(Lines{WAKE, StartLine(80, 2)} +
                                               StepLines({75, 70, 65, 60, 55, 50, 45, 40, 35, 30}, 2) +
                                               Lines{IDLE, SLEEP}));
}

TEST_F(KVAudioGainHandlerPulseTest, ADroppedTargetAsTheFirstRequestBringsFullGainAtOnce) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 10);
    EXPECT_EQ(gain->ApplyPulseAudioGain(101, 5000), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseStores(), ElementsAre(100));
}

// Requests during a ramp

TEST_F(KVAudioGainHandlerPulseTest, ANewRequestStartsTenNewStepsFromTheGainInForce) {
    Start();
    AfterStore(GAIN_HANDLER_PULSE_RAMP, 60, [this] { gain->ApplyPulseAudioGain(100, 300); });
    gain->ApplyPulseAudioGain(20, 200);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseLines(),
                ElementsAreArray(
                    Lines{WAKE, StartLine(100, 20), "I remain count is 10, timedwait 20",
                          "I Remain[9]. gain:92", "I remain count is 9, timedwait 20", "I Remain[8]. gain:84",
                          "I remain count is 8, timedwait 20", "I Remain[7]. gain:76",
                          "I remain count is 7, timedwait 20", "I Remain[6]. gain:68",
                          "I remain count is 6, timedwait 20", "I Remain[5]. gain:60",
                          "I remain count is 5, timedwait 20", StartLine(60, 30)} +
                    StepLines({64, 68, 72, 76, 80, 84, 88, 92, 96, 100}, 30) + Lines{IDLE, SLEEP}));
}

TEST_F(KVAudioGainHandlerPulseTest, AnAtOnceRequestIsWrittenAndTheRampGoesOnToTheNewTarget) {
    Start();
    AfterStore(GAIN_HANDLER_PULSE_RAMP, 76, [this] { gain->ApplyPulseAudioGain(50, 0); });
    gain->ApplyPulseAudioGain(20, 200);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseStores(), ElementsAre(92, 84, 76, 50, 80, 75, 70, 65, 60, 55, 50));
    EXPECT_THAT(PulseLines(),
                ElementsAreArray(Lines{WAKE, StartLine(100, 20), "I remain count is 10, timedwait 20",
                                       "I Remain[9]. gain:92", "I remain count is 9, timedwait 20",
                                       "I Remain[8]. gain:84", "I remain count is 8, timedwait 20",
                                       "I Remain[7]. gain:76", "I remain count is 7, timedwait 20"} +
                                 StepLines({80, 75, 70, 65, 60, 55, 50}, 20) + Lines{IDLE, SLEEP}))
        << "the steps that remain, from the start of the ramp to the new target";
    EXPECT_EQ(seam.MainGainValue(), 50);
}

TEST_F(KVAudioGainHandlerPulseTest, ANegativeDurationHoldsTheRampUntilTheNextRequest) {
    Start();
    gain->ApplyPulseAudioGain(20, -1000);
    ASSERT_TRUE(Waits(GAIN_HANDLER_PULSE_RAMP, "I remain count is 10, timedwait 4294967196"));
    EXPECT_THAT(PulseLines(),
                ElementsAre(WAKE, StartLine(100, 4294967196), "I remain count is 10, timedwait 4294967196"));
    EXPECT_TRUE(gain->IsMainOutUpdating());
    EXPECT_THAT(PulseStores(), IsEmpty());
    seam.Clear();
    gain->ApplyPulseAudioGain(50, 20);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(PulseLines(), ElementsAreArray(Lines{StartLine(100, 2)} +
                                               StepLines({95, 90, 85, 80, 75, 70, 65, 60, 55, 50}, 2) +
                                               Lines{IDLE, SLEEP}));
}

TEST_F(KVAudioGainHandlerPulseTest, TheStepTimeOfAnyDurationIsItsTenthAsAnUnsignedNumber) {
    Start();
    for (const auto& [duration, timeout] :
         {std::pair{LOWEST, 4080218932U}, {-10, 4294967295U}, {HIGHEST, 214748364U}, {600000, 60000U}}) {
        seam.Clear();
        gain->ApplyPulseAudioGain(20, duration);
        const std::string waits = "I remain count is 10, timedwait " + std::to_string(timeout);
        ASSERT_TRUE(Waits(GAIN_HANDLER_PULSE_RAMP, waits));
        EXPECT_EQ(journal.Of(PULSE_WORKER).With(StartLine(100, timeout)).First().text,
                  StartLine(100, timeout));
    }
}

// The gain-out worker

TEST_F(KVAudioGainHandlerPulseTest, WithNothingUpdatingTheGainOutWorkerWaitsOnePeriodAndWritesBothOutputs) {
    Start();
    seam.BeforeNext("I AudioGainOut. Update(M:0/S:0)", [this] { seam.SetGain(1, 2); });
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 50, 1), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(OUT_WORKER).Texts(),
                ElementsAre("I AudioGainOut. Update(M:0/S:0)", "AudioControl_getInstance()",
                            "I Path:1 player: 50 pulse:100 unmute:100 Total: 50", "get_main_out_gain2()",
                            "set_main_out_gain2(50)", "I [Path:01] gain2:50", "AudioControl_getInstance()",
                            "I Path:2 player:100 pulse:100 unmute:100 Total:100", "get_sub_out_gain2()",
                            "set_sub_out_gain2(100)", "I [Path:02] gain2:100", "I Sleep AudioGainOut"));
    EXPECT_GE(journal.Of(OUT_WORKER).With("AudioControl_getInstance()").First().time -
                  journal.Of(OUT_WORKER).With("I AudioGainOut. Update(M:0/S:0)").First().time,
              60ms);
}

TEST_F(KVAudioGainHandlerPulseTest, WhileAGainMovesItsOutputIsReadEvery60MillisecondsAndNotWrittenInVain) {
    Start();
    auto pulse = seam.BlockNext("I Remain[9]. gain:92");
    gain->ApplyPulseAudioGain(20, 1000);
    ASSERT_TRUE(pulse.WaitReached());
    ASSERT_TRUE(journal.With(MainGain(92)).Wait());
    ASSERT_TRUE(journal.With(SubGain(92)).Wait());
    seam.Clear();
    seam.Clear();
    EXPECT_GE(ShortestPeriod(), 60ms);
    EXPECT_LE(fake::LongestStep(GAIN_HANDLER_AUDIO_GAIN_OUT), 60ms);
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
    EXPECT_THAT(journal.Calls("set_").Texts(), IsEmpty());
    EXPECT_THAT(journal.Calls("get_sub_out_gain2").Texts(), Not(IsEmpty()));
}

TEST_F(KVAudioGainHandlerPulseTest, WhileARequestIsPendingThePeriodIsATwentiethOfItsDuration) {
    constexpr const char* LOOK_AT_REQUEST =
        "D \t[IN]void NKavrel::KVAudioGainHandler::GetPulseTargetValue(int&, int&)";
    Start();
    {
        auto pending = seam.BlockNext(LOOK_AT_REQUEST);
        gain->ApplyPulseAudioGain(100, 800);
        ASSERT_TRUE(pending.WaitReached());
        EXPECT_GE(ShortestPeriod(), 40ms);
        EXPECT_LE(fake::LatestStep(GAIN_HANDLER_AUDIO_GAIN_OUT), 40ms);
        gain->ApplyPulseAudioGain(101, 4000);
        seam.Clear();
        EXPECT_GE(ShortestPeriod(), 40ms) << "a target above 100 leaves the period as it was";
        EXPECT_LE(fake::LatestStep(GAIN_HANDLER_AUDIO_GAIN_OUT), 40ms);
    }
    for (const int duration : {10, 19, -1000}) {
        ASSERT_TRUE(Waits(GAIN_HANDLER_PULSE_RAMP, SLEEP));
        ASSERT_TRUE(Waits(GAIN_HANDLER_AUDIO_GAIN_OUT, "I Sleep AudioGainOut"));
        seam.Clear();
        auto pending = seam.BlockNext(LOOK_AT_REQUEST);
        gain->ApplyPulseAudioGain(100, duration);
        ASSERT_TRUE(pending.WaitReached());
        EXPECT_LT(ShortestPeriod(20ms), 20ms) << "it does not wait at all";
        pending.Open();
    }
}

TEST_F(KVAudioGainHandlerPulseTest, AHardwareThatFailsDoesNotEndTheGainOutWorkersRounds) {
    Start();
    seam.Fail("AudioControl_getInstance", 0);
    gain->ApplyPulseAudioGain(0, 100);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of(OUT_WORKER).Texts(), Contains("E AudioControl_getInstance is failed"));
    EXPECT_EQ(journal.Of(OUT_WORKER).Texts().back(), "I Sleep AudioGainOut");
    EXPECT_THAT(PulseStores(), ElementsAre(90, 80, 70, 60, 50, 40, 30, 20, 10, 0));
    seam.Succeed("AudioControl_getInstance");
    gain->ApplyPulseAudioGain(10, 0);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(seam.MainGainValue(), 10);
}

// Destruction of the controller

TEST_F(KVAudioGainHandlerPulseTest, DestructionLetsARampTakeOnlyTheStepUnderWay) {
    for (const auto& [duration, timeout] : {std::pair{-1000, 4294967196U}, {600000, 60000U}}) {
        Start();
        gain->ApplyPulseAudioGain(20, duration);
        ASSERT_TRUE(
            Waits(GAIN_HANDLER_PULSE_RAMP, "I remain count is 10, timedwait " + std::to_string(timeout)));
        ASSERT_TRUE(journal.Of(OUT_WORKER).With("I AudioGainOut. Update(M:1/S:1)").Wait());
        seam.Clear();
        gain.reset();
        EXPECT_THAT(PulseLines(), ElementsAre("I Remain[9]. gain:92", "I PulseRampH is done"));
        EXPECT_EQ(journal.Of(OUT_WORKER).Texts().back(), "I AudioGainOutH is done");
        EXPECT_EQ(seam.MainGainValue(), 92) << "the gain-out worker finishes its loop";
        seam.Reset();
    }
}

TEST_F(KVAudioGainHandlerPulseTest, DestructionRightAfterARequestEnds) {
    Start();
    gain->ApplyPulseAudioGain(20, 1000);
    gain.reset();
    EXPECT_EQ(PulseLines().back(), "I PulseRampH is done");
    EXPECT_THAT(PulseLines(), Not(Contains("I Remain[0]. gain:20")));
}

}  // namespace
