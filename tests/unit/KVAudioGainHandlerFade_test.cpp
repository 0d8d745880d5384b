// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the four fade-in workers. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <ranges>

#include "GainFixture.h"

using fake::MainGain;
using fake::SubGain;
using KVDefine::GAIN_SRC_PLAYER;
using KVDefine::GAIN_SRC_UNMUTE;
using NKavrel::eKVGainHandlerType;
using NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT;
using NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT;
using NKavrel::GAIN_HANDLER_PLAYER_SUB_OUT;
using NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT;
using NKavrel::GAIN_HANDLER_UNMUTE_SUB_OUT;
using NKavrel::GainHandlerName;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

using namespace std::chrono_literals;

constexpr const char* ASK_POPUP = "LwipcIsDone(\"FadeInPopup\")";

constexpr std::array FADE_WORKERS = {GAIN_HANDLER_PLAYER_MAIN_OUT, GAIN_HANDLER_PLAYER_SUB_OUT,
                                     GAIN_HANDLER_UNMUTE_MAIN_OUT, GAIN_HANDLER_UNMUTE_SUB_OUT};

constexpr std::array WHOLE_FADE = {5,  10, 15, 20, 25, 30, 35, 40, 45, 50,
                                   55, 60, 65, 70, 75, 80, 85, 90, 95, 100};

class KVAudioGainHandlerFadeTest : public fake::GainFixture {
protected:
    /**
     * Matches the log lines and calls of a worker during one whole fade, from its wake-up until it sleeps
     * again.
     */
    static auto FadesFromTo(eKVGainHandlerType worker, int from, int to) {
        const std::string& name = GainHandlerName[worker];
        return ElementsAre("I Wake " + name + ". gain:" + std::to_string(from),
                           "I handlerGainType:" + std::to_string(worker) + ", LastGain:" + std::to_string(to),
                           ASK_POPUP, "I Sleep " + name);
    }

    /** Starts a fade-in from the given gain. */
    void FadeFrom(eKVGainHandlerType worker, int from) {
        EXPECT_EQ(gain->_ApplyAudioGain(worker, 3, from, false), 0);
    }

    fake::Clock::duration Between(const std::string& thread, const std::string& first,
                                  const std::string& second) {
        return journal.Of(thread).With(second).First().time - journal.Of(thread).With(first).First().time;
    }
};

TEST_F(KVAudioGainHandlerFadeTest, FourFadesAtOnceRaiseTheirGainsInTwentySteps) {
    Start();
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 2), 0);
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 1), 0) << "one request for both outputs";
    ASSERT_TRUE(Rest());

    for (const auto worker : FADE_WORKERS) {
        const std::string& name = GainHandlerName[worker];
        EXPECT_THAT(journal.Of(name).Texts(), FadesFromTo(worker, 0, 100));
        EXPECT_THAT(StoredGains(worker), ElementsAreArray(WHOLE_FADE));
        EXPECT_GE(Between(name, "I Wake " + name + ". gain:0",
                          "I handlerGainType:" + std::to_string(worker) + ", LastGain:100"),
                  1500ms);

        const std::vector<fake::Store> stores = Stores(worker);
        auto shortest = fake::Clock::duration::max();
        for (std::size_t i = 1; i < stores.size(); ++i) {
            shortest = std::min(shortest, stores[i].time - stores[i - 1].time);
        }
        EXPECT_GE(shortest, 75ms);
        EXPECT_LE(fake::LongestStep(worker), 75ms);
    }
    EXPECT_EQ(seam.MainGainValue(), 100);
    EXPECT_EQ(seam.SubGainValue(), 100);
}

TEST_F(KVAudioGainHandlerFadeTest, TheGainOutWorkerWritesTheOutputThatFadesAndOnlyThat) {
    Start();
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
    ASSERT_TRUE(Rest());

    const std::vector<fake::Entry> writes = journal.Gains().Entries();
    ASSERT_GE(writes.size(), 3U);
    EXPECT_EQ(writes.front().text, MainGain(0));
    EXPECT_EQ(writes.back().text, MainGain(100));
    EXPECT_NE(writes.front().threadName, "AudioGainOutH") << "the request itself writes the 0";
    for (std::size_t i = 1; i < writes.size(); ++i) {
        EXPECT_EQ(writes[i].out, fake::Out::MAIN);
        EXPECT_EQ(writes[i].threadName, "AudioGainOutH");
        EXPECT_GT(writes[i].gain, writes[i - 1].gain);
        EXPECT_EQ(writes[i].gain % 5, 0);
    }
    const std::vector<std::string> lines = journal.Of("AudioGainOutH").Texts();
    EXPECT_EQ(lines.front(), "I AudioGainOut. Update(M:1/S:0)");
    EXPECT_THAT(lines, Contains(StartsWith("I AudioGainOut.")).Times(1))
        << "it writes until the fade is over";
    EXPECT_GT(fake::LongestStep(GAIN_HANDLER_AUDIO_GAIN_OUT), 0ms) << "its waits can be cut short";
    EXPECT_LE(fake::LongestStep(GAIN_HANDLER_AUDIO_GAIN_OUT), 60ms);
    EXPECT_THAT(lines, Contains("I Path:2 player:100 pulse:100 unmute:100 Total:100").Times(1))
        << "the sub output is looked at once, at the end";
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeOfTheSubOutputLeavesTheMainOutputAlone) {
    seam.SetInt("memory/org.olvane.btapp/sub_audio_zoneid", 1);
    Start();
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 2), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("UnMuteSubOutH").Texts(), FadesFromTo(GAIN_HANDLER_UNMUTE_SUB_OUT, 0, 100));
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(), IsEmpty());
    EXPECT_THAT(journal.Gains(fake::Out::MAIN).Numbers(), IsEmpty());
    EXPECT_EQ(journal.Gains().Texts().back(), SubGain(100));
    const std::vector<std::string> lines = journal.Of("AudioGainOutH").Texts();
    EXPECT_EQ(lines.front(), "I AudioGainOut. Update(M:0/S:1)");
    EXPECT_THAT(lines, Contains(StartsWith("I AudioGainOut.")).Times(1))
        << "it writes until the fade is over";
}

TEST_F(KVAudioGainHandlerFadeTest, WithASubBluetoothZoneAnUnmuteFadeOfBothOutputsIsTheMainOutputs) {
    seam.SetInt("memory/org.olvane.btapp/sub_audio_zoneid", 1);
    Start();
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 3), 0);
    ASSERT_TRUE(journal.With("I Wake UnMuteMainOutH. gain:0").Wait());
    EXPECT_THAT(journal.Of("UnMuteSubOutH").Texts(), IsEmpty());
    EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_SUB_OUT), 100);
    EXPECT_THAT(journal.Gains(fake::Out::SUB).Numbers(), IsEmpty());
}

TEST_F(KVAudioGainHandlerFadeTest, APlayerFadeOfBothOutputsIsTheMainOutputsWrittenToBoth) {
    Start();
    seam.SetGain(1, 1);
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 3), 0);
    ASSERT_TRUE(journal.With("I Wake PlayerMainOutH. gain:0").Wait());
    EXPECT_THAT(journal.Of("PlayerSubOutH").Texts(), IsEmpty());
    EXPECT_EQ(journal.Gains().Texts()[0], MainGain(0));
    EXPECT_EQ(journal.Gains().Texts()[1], SubGain(100));
}

TEST_F(KVAudioGainHandlerFadeTest, AStepNeverGoesAboveFullGain) {
    Start();
    for (const auto worker : FADE_WORKERS) {
        FadeFrom(worker, 97);
    }
    ASSERT_TRUE(Rest());
    for (const auto worker : FADE_WORKERS) {
        EXPECT_THAT(journal.Of(GainHandlerName[worker]).Texts(), FadesFromTo(worker, 97, 100));
        EXPECT_THAT(StoredGains(worker), ElementsAre(100));
    }
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeAtFullGainStoresNothing) {
    Start();
    for (const auto worker : FADE_WORKERS) {
        FadeFrom(worker, 100);
    }
    ASSERT_TRUE(Rest());
    for (const auto worker : FADE_WORKERS) {
        EXPECT_THAT(journal.Of(GainHandlerName[worker]).Texts(), FadesFromTo(worker, 100, 100));
        EXPECT_THAT(StoredGains(worker), IsEmpty());
    }
    EXPECT_THAT(journal.Of("AudioGainOutH").Texts(), Contains(testing::StartsWith("I AudioGainOut. Update(")))
        << "the gain-out worker is woken all the same";
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeFromTheLowestIntStepsUpFromThere) {
    constexpr int LOWEST = std::numeric_limits<int>::min();
    Start();
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, LOWEST + 10,
               [this] { gain->SetSrcGain(GAIN_HANDLER_PLAYER_MAIN_OUT, -2); });
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 3,
               [this] { gain->SetSrcGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 98); });
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, LOWEST);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(LOWEST + 5, LOWEST + 10, 3, 100));
}

// Requests during a fade

TEST_F(KVAudioGainHandlerFadeTest, ASecondRequestStartsTheFadeUnderWayAnewWithoutAnotherWakeLine) {
    Start();
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 30,
               [this] { EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0); });
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT),
                ElementsAre(5, 10, 15, 20, 25, 30, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 65, 70, 75,
                            80, 85, 90, 95, 100));
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 0, 100));
    EXPECT_THAT(journal.Gains(fake::Out::MAIN).Numbers(), Contains(0).Times(2));
}

TEST_F(KVAudioGainHandlerFadeTest, ANotificationEndsTheStepUnderWayAndIsNotRemembered) {
    constexpr const char* FIXTURE_READ_THE_STORE =
        "D \t[OUT]void NKavrel::KVAudioGainHandler::GetSrcGain(NKavrel::eKVGainHandlerType, int&)";
    Start();
    const fake::EndlessSteps endless(GAIN_HANDLER_PLAYER_MAIN_OUT);
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 80);
    for (int step = 0; step < 4; ++step) {
        ASSERT_TRUE(Waits(GAIN_HANDLER_PLAYER_MAIN_OUT, FIXTURE_READ_THE_STORE));
        fake::NotifyWorker(GAIN_HANDLER_PLAYER_MAIN_OUT);
    }
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(85, 90, 95, 100));
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 80, 100));
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeThatBeginsDuringThatOfTheOtherOutputIsWrittenAsItGoes) {
    Start();
    for (const bool isMainSecond : {true, false}) {
        const auto first = isMainSecond ? GAIN_HANDLER_PLAYER_SUB_OUT : GAIN_HANDLER_PLAYER_MAIN_OUT;
        const auto second = isMainSecond ? GAIN_HANDLER_PLAYER_MAIN_OUT : GAIN_HANDLER_PLAYER_SUB_OUT;
        const auto out = isMainSecond ? fake::Out::MAIN : fake::Out::SUB;
        seam.Clear();
        bool isWritten = false;
        {
            const fake::EndlessSteps endless(first);
            FadeFrom(first, 50);
            ASSERT_TRUE(journal
                            .With(isMainSecond ? "I AudioGainOut. Update(M:0/S:1)"
                                               : "I AudioGainOut. Update(M:1/S:0)")
                            .Wait());
            AfterStore(second, 95, [&] { isWritten = journal.Of("AudioGainOutH").Gains(out).Wait(); });
            FadeFrom(second, 90);
            ASSERT_TRUE(journal.With("I Sleep " + GainHandlerName[second]).Wait());
        }
        ASSERT_TRUE(Rest());
        EXPECT_TRUE(isWritten);
    }
}

TEST_F(KVAudioGainHandlerFadeTest, AGainSetDuringAFadeIsWhereItGoesOn) {
    Start();
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 10,
               [this] { EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, -8, 1), 0); });
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 2,
               [this] { EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 81, 1), 0); });
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 86,
               [this] { EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 100, 1), 0); });
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(5, 10, -3, 2, 86))
        << "full gain ends the fade";
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 0, 100));
}

TEST_F(KVAudioGainHandlerFadeTest, AnInterruptionKeepsUnmuteFadesWhereTheyAreAndLetsPlayerFadesRun) {
    Start();
    gain->SetFadeInInterruptable(true);
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 3), 0);
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 80);
    FadeFrom(GAIN_HANDLER_PLAYER_SUB_OUT, 80);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(),
                ElementsAre("I Wake UnMuteMainOutH. gain:0", "I Interruptable status[type:4]. gain:0",
                            "I handlerGainType:4, LastGain:0", ASK_POPUP, "I Sleep UnMuteMainOutH"));
    EXPECT_THAT(journal.Of("UnMuteSubOutH").Texts(),
                ElementsAre("I Wake UnMuteSubOutH. gain:0", "I Interruptable status[type:5]. gain:0",
                            "I handlerGainType:5, LastGain:0", ASK_POPUP, "I Sleep UnMuteSubOutH"));
    EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_MAIN_OUT), 0);
    EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_SUB_OUT), 0);
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(85, 90, 95, 100));
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_SUB_OUT), ElementsAre(85, 90, 95, 100));
}

TEST_F(KVAudioGainHandlerFadeTest, AnUnmuteFadeUnderWayStopsWhereItIs) {
    Start();
    AfterStore(GAIN_HANDLER_UNMUTE_MAIN_OUT, 30, [this] { gain->SetFadeInInterruptable(true); });
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 1), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_UNMUTE_MAIN_OUT), ElementsAre(5, 10, 15, 20, 25, 30));
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(), Contains("I Interruptable status[type:4]. gain:30"));
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(), Contains("I handlerGainType:4, LastGain:30"));
    EXPECT_THAT(journal.Of("UnMuteSubOutH").Texts(),
                Contains(testing::StartsWith("I Interruptable status[type:5]. gain:")));
    EXPECT_EQ(seam.MainGainValue(), 30);

    seam.Clear();
    gain->SetFadeInInterruptable(false);
    FadeFrom(GAIN_HANDLER_UNMUTE_MAIN_OUT, 95);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_UNMUTE_MAIN_OUT, 95, 100));
}

TEST_F(KVAudioGainHandlerFadeTest, AnOutputIsUpdatingUntilItsWorkerSleepsAgain) {
    Start();
    for (const auto worker : FADE_WORKERS) {
        const bool isMain = worker == GAIN_HANDLER_PLAYER_MAIN_OUT || worker == GAIN_HANDLER_UNMUTE_MAIN_OUT;
        auto askingForPopup = seam.BlockNext(ASK_POPUP);
        FadeFrom(worker, 97);
        ASSERT_TRUE(askingForPopup.WaitReached());
        EXPECT_EQ(gain->IsMainOutUpdating(), isMain);
        EXPECT_EQ(gain->IsSubOutUpdating(), !isMain);
        bool isSleepingWorkerUpdating = true;
        seam.BeforeNext("I Sleep " + GainHandlerName[worker], [&] {
            isSleepingWorkerUpdating = gain->IsMainOutUpdating() || gain->IsSubOutUpdating();
        });
        askingForPopup.Open();
        ASSERT_TRUE(Rest());
        EXPECT_FALSE(isSleepingWorkerUpdating);
        EXPECT_FALSE(gain->IsMainOutUpdating());
        EXPECT_FALSE(gain->IsSubOutUpdating());
    }
}

// Failures

TEST_F(KVAudioGainHandlerFadeTest, ARequestAfterAFadeAndBeforeItsWorkerWaitsIsLostAndKeepsItsGain) {
    Start();
    for (const char* moment : {ASK_POPUP, "I Sleep PlayerMainOutH"}) {
        SCOPED_TRACE(moment);
        seam.Clear();
        auto fadeIsOver = seam.BlockNext(moment);
        FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 97);
        ASSERT_TRUE(fadeIsOver.WaitReached());
        EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
        fadeIsOver.Open();
        ASSERT_TRUE(Rest());
        EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 97, 100));
        EXPECT_EQ(Gain(GAIN_HANDLER_PLAYER_MAIN_OUT), 0);
        EXPECT_EQ(seam.MainGainValue(), 0) << "until the next request";

        seam.Clear();
        FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 95);
        ASSERT_TRUE(Rest());
        EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 95, 100));
    }
}

TEST_F(KVAudioGainHandlerFadeTest, AnUnmuteFadeWhoseSubOutputFailsRunsOnTheMainOutputOnly) {
    Start();
    seam.Fail("set_sub_out_gain2", -9, 1);
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_UNMUTE, 3), -1);
    EXPECT_THAT(journal.Logs().Texts(), Contains("E Failed to set SetAudioGain(type:5) path:2. gain:0"));
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("UnMuteMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_UNMUTE_MAIN_OUT, 0, 100));
    EXPECT_THAT(journal.Of("UnMuteSubOutH").Texts(), IsEmpty());
    EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_SUB_OUT), 0) << "until the next request";
}

TEST_F(KVAudioGainHandlerFadeTest, AHardwareThatFailsDuringAFadeStopsOnlyTheWrites) {
    Start();
    AfterStore(GAIN_HANDLER_PLAYER_MAIN_OUT, 90, [this] { seam.Fail("set_main_out_gain2", -9); });
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 80);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAre(85, 90, 95, 100));
    EXPECT_THAT(journal.Of("AudioGainOutH").Texts(), Contains("E Failed to set gain2(100). ret:-9"));
    EXPECT_EQ(Gain(GAIN_HANDLER_PLAYER_MAIN_OUT), 100);
    seam.Succeed("set_main_out_gain2");
    EXPECT_EQ(gain->SetAudioGain(1), 0);
    EXPECT_EQ(seam.MainGainValue(), 100);
}

TEST_F(KVAudioGainHandlerFadeTest, WithGainControlDisabledAFadeMovesTheStoredGainOnly) {
    seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
    Start();
    FadeFrom(GAIN_HANDLER_UNMUTE_MAIN_OUT, 80);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(StoredGains(GAIN_HANDLER_UNMUTE_MAIN_OUT), ElementsAre(85, 90, 95, 100));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
    EXPECT_THAT(journal.Of("AudioGainOutH").Texts(), Contains("E Disable Gain Control"));
}

// The popup after a fade; this program has no bus to send its message on.

TEST_F(KVAudioGainHandlerFadeTest, APopupThatCannotBeSentIsOnlyLogged) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    seam.SetEvent("FadeInPopup", true);
    Start();
    const auto before = std::chrono::system_clock::now();
    FadeFrom(GAIN_HANDLER_PLAYER_SUB_OUT, 65);
    ASSERT_TRUE(Rest());
    const std::chrono::duration<double> whole = std::chrono::system_clock::now() - before;
    const std::string message = journal.Of("PlayerSubOutH").BeginningWith("I MSG ").First().text;
    EXPECT_LE(std::stod(message.substr(message.rfind(':') + 1)), whole.count());
    EXPECT_THAT(journal.Of("PlayerSubOutH").Texts(),
                ElementsAre("I Wake PlayerSubOutH. gain:65", "I handlerGainType:3, LastGain:100", ASK_POPUP,
                            MatchesRegex("I MSG :Gain Source:PlayerSubOutH<br> Duration\\(sec\\):[0-9.]+"),
                            "I Signal 'PopupNoti'", testing::StartsWith("E g_bus_get_sync() error ("),
                            "E Failed to get GDBus Connection", "I Sleep PlayerSubOutH"));
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeOfLessThanHalfASecondIsNotAnnounced) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    for (const double seconds : {0.499, 0.4999999, 0.0, -3.0}) {
        NKavrel::KVAudioGainHandler::SendPopupMsg(GAIN_HANDLER_PLAYER_MAIN_OUT,
                                                  std::chrono::duration<double>(seconds));
    }
    EXPECT_THAT(journal.Texts(),
                ElementsAre("E Time(0.499000) is under (0.500000)", "E Time(0.500000) is under (0.500000)",
                            "E Time(0.000000) is under (0.500000)", "E Time(-3.000000) is under (0.500000)"));
    NKavrel::KVAudioGainHandler::SendPopupMsg(GAIN_HANDLER_PLAYER_MAIN_OUT, 500ms);
    EXPECT_THAT(journal.Texts(), Contains("I MSG :Gain Source:PlayerMainOutH<br> Duration(sec):0.5"));
}

TEST_F(KVAudioGainHandlerFadeTest, AnUnreadablePopupEventMeansNoPopup) {
    Start();
    seam.Fail("LwipcIsDone", -1);
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 97);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), FadesFromTo(GAIN_HANDLER_PLAYER_MAIN_OUT, 97, 100));
}

// Destruction of the controller

TEST_F(KVAudioGainHandlerFadeTest, DestructionLetsAFadeUnderWayFinishFirst) {
    Start();
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), 0);
    ASSERT_TRUE(journal.With("I AudioGainOut. Update(M:1/S:0)").Wait());
    gain.reset();
    EXPECT_THAT(StoredGains(GAIN_HANDLER_PLAYER_MAIN_OUT), ElementsAreArray(WHOLE_FADE));
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(),
                ElementsAre("I Wake PlayerMainOutH. gain:0", "I handlerGainType:2, LastGain:100", ASK_POPUP,
                            "I PlayerMainOutH is done"));
    EXPECT_THAT(journal.Of("AudioGainOutH").Texts(), Not(Contains("I Sleep AudioGainOut")));
    EXPECT_EQ(journal.Of("AudioGainOutH").Texts().back(), "I AudioGainOutH is done");
    EXPECT_EQ(seam.MainGainValue(), 100) << "the gain-out worker finishes its loop, too";
    const std::string ignore = "vconf_ignore_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")";
    const auto unhooked = journal.Here().With(ignore).First().time;
    EXPECT_LE(journal.Of("PlayerMainOutH").With("I PlayerMainOutH is done").First().time, unhooked);
    EXPECT_LE(journal.Of("AudioGainOutH").With("I AudioGainOutH is done").First().time, unhooked);
}

TEST_F(KVAudioGainHandlerFadeTest, AFadeThatFinishesDuringThePauseOfTheDestructionEndsItsWorker) {
    Start();
    auto last = seam.BlockNext("I handlerGainType:2, LastGain:100");
    FadeFrom(GAIN_HANDLER_PLAYER_MAIN_OUT, 95);
    ASSERT_TRUE(last.WaitReached());
    seam.Clear();
    fake::AtPause([&] {
        last.Open();
        EXPECT_TRUE(journal.With("I PlayerMainOutH is done").Wait());
    });
    gain.reset();
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), Not(Contains("I Sleep PlayerMainOutH")));
}

}  // namespace
