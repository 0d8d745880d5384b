// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVAudioGainHandler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <limits>
#include <thread>
#include <type_traits>

#include "GainFixture.h"

using fake::MainGain;
using fake::SubGain;
using KVDefine::GAIN_SRC_PLAYER;
using KVDefine::GAIN_SRC_UNMUTE;
using NKavrel::eKVGainHandlerType;
using NKavrel::GAIN_HANDLER_AUDIO_GAIN_OUT;
using NKavrel::GAIN_HANDLER_NONE;
using NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT;
using NKavrel::GAIN_HANDLER_PLAYER_SUB_OUT;
using NKavrel::GAIN_HANDLER_PULSE_RAMP;
using NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT;
using NKavrel::GAIN_HANDLER_UNMUTE_SUB_OUT;
using NKavrel::KVAudioGainHandler;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

namespace {

using namespace std::chrono_literals;

constexpr const char* PROJECTOR_FEATURE = "com.norvik/featureconf/projector_feature_support";
constexpr const char* READY_KEY = "memory/projector/status/ready";
constexpr const char* SUB_BT_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";

constexpr const char* ASK_PROJECTOR =
    "system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")";
constexpr const char* WATCH_READY = "vconf_notify_key_changed(\"memory/projector/status/ready\")";
constexpr const char* READ_READY = "vconf_get_int(\"memory/projector/status/ready\")";
constexpr const char* IGNORE_READY = "vconf_ignore_key_changed(\"memory/projector/status/ready\")";
constexpr const char* WATCH_SUB_BT = "vconf_notify_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")";
constexpr const char* READ_SUB_BT = "vconf_get_int(\"memory/org.olvane.btapp/sub_audio_zoneid\")";
constexpr const char* IGNORE_SUB_BT =
    "vconf_ignore_key_changed(\"memory/org.olvane.btapp/sub_audio_zoneid\")";

constexpr int LOWEST = std::numeric_limits<int>::min();
constexpr int HIGHEST = std::numeric_limits<int>::max();

static_assert(std::is_same_v<std::underlying_type_t<eKVGainHandlerType>, int>);
static_assert(std::is_same_v<std::underlying_type_t<KVDefine::eKVGainSrcType>, int>);
static_assert(!std::is_copy_constructible_v<KVAudioGainHandler>);
static_assert(!std::is_copy_assignable_v<KVAudioGainHandler>);
static_assert(!std::is_polymorphic_v<KVAudioGainHandler>);

class KVAudioGainHandlerTest : public fake::GainFixture {
protected:
    void SetGains(eKVGainHandlerType player, int playerGain, eKVGainHandlerType unmute, int unmuteGain,
                  int pulse) {
        gain->SetSrcGain(player, playerGain);
        gain->SetSrcGain(unmute, unmuteGain);
        gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, pulse);
    }

    int Total(int path) {
        int total = 12345;
        gain->GetAudioGain(path, total);
        return total;
    }

    std::vector<int> AllGains() {
        std::vector<int> gains;
        for (int slot = GAIN_HANDLER_NONE; slot < NKavrel::GAIN_HANDLER_COUNT; ++slot) {
            gains.push_back(Gain(static_cast<eKVGainHandlerType>(slot)));
        }
        return gains;
    }
};

// Gains and totals

TEST_F(KVAudioGainHandlerTest, TheWorkersNamesStandInOrderOfTheirNumbers) {
    EXPECT_THAT(NKavrel::GainHandlerName, ElementsAre("", "PulseRampH", "PlayerMainOutH", "PlayerSubOutH",
                                                      "UnMuteMainOutH", "UnMuteSubOutH", "AudioGainOutH"));
    EXPECT_EQ(GAIN_HANDLER_PULSE_RAMP, 1);
    EXPECT_EQ(GAIN_HANDLER_PLAYER_MAIN_OUT, 2);
    EXPECT_EQ(GAIN_HANDLER_PLAYER_SUB_OUT, 3);
    EXPECT_EQ(GAIN_HANDLER_UNMUTE_MAIN_OUT, 4);
    EXPECT_EQ(GAIN_HANDLER_UNMUTE_SUB_OUT, 5);
    EXPECT_EQ(GAIN_HANDLER_AUDIO_GAIN_OUT, 6);
}

TEST_F(KVAudioGainHandlerTest, TheTotalIsTheProductOfTheThreeGainsInPercent) {
    Start();
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, 50, GAIN_HANDLER_UNMUTE_MAIN_OUT, 50, 100);
    EXPECT_EQ(Total(1), 25);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("I Path:1 player: 50 pulse:100 unmute: 50 Total: 25"));
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, 99, GAIN_HANDLER_UNMUTE_MAIN_OUT, 99, 99);
    EXPECT_EQ(Total(1), 97);
}

TEST_F(KVAudioGainHandlerTest, Paths1And3ReadTheMainOutputAndPath2TheSubOutput) {
    Start();
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, 10, GAIN_HANDLER_UNMUTE_MAIN_OUT, 90, 50);
    SetGains(GAIN_HANDLER_PLAYER_SUB_OUT, 40, GAIN_HANDLER_UNMUTE_SUB_OUT, 80, 50);
    EXPECT_EQ(Total(1), 4);
    EXPECT_EQ(Total(2), 16);
    EXPECT_EQ(Total(3), 4);
    EXPECT_EQ(Total(0), 16) << "every path without the bit of the main output reads the sub output";
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("I Path:1 player: 10 pulse: 50 unmute: 90 Total:  4",
                                                    "I Path:2 player: 40 pulse: 50 unmute: 80 Total: 16",
                                                    "I Path:3 player: 10 pulse: 50 unmute: 90 Total:  4",
                                                    "I Path:0 player: 40 pulse: 50 unmute: 80 Total: 16"));
}

TEST_F(KVAudioGainHandlerTest, AGainAboveTheMaximumIsIgnoredAndANegativeOneIsStored) {
    Start();
    for (const int type : {0, 1, 2, 3, 4, 5, 6}) {
        const auto slot = static_cast<eKVGainHandlerType>(type);
        gain->SetSrcGain(slot, 101);
        EXPECT_EQ(Gain(slot), 100);
        gain->SetSrcGain(slot, HIGHEST);
        EXPECT_EQ(Gain(slot), 100);
        gain->SetSrcGain(slot, -5);
        EXPECT_EQ(Gain(slot), -5);
        gain->SetSrcGain(slot, LOWEST);
        EXPECT_EQ(Gain(slot), LOWEST);
    }
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, ANegativeTotalIsTruncatedTowardZero) {
    Start();
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, -1, GAIN_HANDLER_UNMUTE_MAIN_OUT, 99, 100);
    EXPECT_EQ(Total(1), 0);
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, -5, GAIN_HANDLER_UNMUTE_MAIN_OUT, 50, 99);
    EXPECT_EQ(Total(1), -2);
}

TEST_F(KVAudioGainHandlerTest, ProductsWrapIn32Bits) {
    Start();
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, LOWEST, GAIN_HANDLER_UNMUTE_MAIN_OUT, -1, 1);
    EXPECT_EQ(Total(1), -214748);
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, LOWEST, GAIN_HANDLER_UNMUTE_MAIN_OUT, LOWEST, LOWEST);
    EXPECT_EQ(Total(1), 0);
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, -HIGHEST, GAIN_HANDLER_UNMUTE_MAIN_OUT, 3, 1);
    EXPECT_EQ(Total(1), -214748);
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, 100000 + LOWEST, GAIN_HANDLER_UNMUTE_MAIN_OUT, 50, 100);
    EXPECT_EQ(Total(1), 50000) << "what wraps off leaves a total above the maximum";
}

// Writing the outputs

TEST_F(KVAudioGainHandlerTest, AnOutputIsWrittenWhenItsBitIsSetAndTheHardwareHoldsAnotherTotal) {
    Start();
    SetGains(GAIN_HANDLER_PLAYER_MAIN_OUT, 60, GAIN_HANDLER_UNMUTE_MAIN_OUT, 100, 100);
    SetGains(GAIN_HANDLER_PLAYER_SUB_OUT, 30, GAIN_HANDLER_UNMUTE_SUB_OUT, 100, 100);
    EXPECT_EQ(gain->SetMainOutGain2(2), 0);
    EXPECT_EQ(gain->SetMainOutGain2(-4), 0);
    EXPECT_EQ(gain->SetSubOutGain2(1), 0);
    EXPECT_EQ(gain->SetSubOutGain2(-4), 0);
    EXPECT_THAT(journal.Here().Texts(), IsEmpty());

    EXPECT_EQ(gain->SetMainOutGain2(3), 0);
    EXPECT_EQ(gain->SetSubOutGain2(3), 0);
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("AudioControl_getInstance()", "I Path:1 player: 60 pulse:100 unmute:100 Total: 60",
                    "get_main_out_gain2()", "set_main_out_gain2(60)", "I [Path:01] gain2:60",
                    "AudioControl_getInstance()", "I Path:2 player: 30 pulse:100 unmute:100 Total: 30",
                    "get_sub_out_gain2()", "set_sub_out_gain2(30)", "I [Path:02] gain2:30"));
    seam.Clear();
    EXPECT_EQ(gain->SetMainOutGain2(-1), 0);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("AudioControl_getInstance()",
                            "I Path:1 player: 60 pulse:100 unmute:100 Total: 60", "get_main_out_gain2()"));
}

TEST_F(KVAudioGainHandlerTest, AnUnreadableHardwareGainIsTreatedAsZero) {
    Start();
    seam.Fail("get_main_out_gain2", -5);
    EXPECT_EQ(gain->SetMainOutGain2(1), 0);
    EXPECT_THAT(journal.Gains(fake::Out::MAIN).Numbers(), ElementsAre(100));
    gain->SetSrcGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 0);
    EXPECT_EQ(gain->SetMainOutGain2(1), 0);
    EXPECT_THAT(journal.Gains(fake::Out::MAIN).Numbers(), ElementsAre(100));
}

TEST_F(KVAudioGainHandlerTest, AFailedWriteIsLoggedAndLeavesTheStoredGains) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PLAYER_MAIN_OUT, 60);
    gain->SetSrcGain(GAIN_HANDLER_PLAYER_SUB_OUT, 30);
    seam.Fail("set_main_out_gain2", 7);
    EXPECT_EQ(gain->SetAudioGain(3), -1);
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("AudioControl_getInstance()", "I Path:1 player: 60 pulse:100 unmute:100 Total: 60",
                    "get_main_out_gain2()", "set_main_out_gain2(60)", "E Failed to set gain2(60). ret:7"));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 60, 30, 100, 100, 100));
    EXPECT_EQ(gain->SetAudioGain(2), 0) << "the sub output alone is written";

    seam.Succeed("set_main_out_gain2");
    EXPECT_EQ(gain->SetAudioGain(3), 0) << "the next write starts from the stored gains";
    EXPECT_EQ(seam.MainGainValue(), 60);
}

TEST_F(KVAudioGainHandlerTest, AFailedWriteOfTheSubOutputIsTheResult) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 60);
    seam.Fail("set_sub_out_gain2", -1022);
    EXPECT_EQ(gain->SetSubOutGain2(2), -1);
    EXPECT_EQ(gain->SetAudioGain(3), -1);
    EXPECT_THAT(journal.Here().Texts(), Contains("E Failed to set gain2(60). ret:-1022").Times(2));
    EXPECT_EQ(seam.MainGainValue(), 60);
    EXPECT_EQ(seam.SubGainValue(), 100);
}

TEST_F(KVAudioGainHandlerTest, WithoutTheAudioControlInstanceNothingIsWritten) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 60);
    seam.Fail("AudioControl_getInstance", 0);
    EXPECT_EQ(gain->SetMainOutGain2(1), -1);
    EXPECT_EQ(gain->SetSubOutGain2(2), -1);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("AudioControl_getInstance()", "E AudioControl_getInstance is failed",
                            "AudioControl_getInstance()", "E AudioControl_getInstance is failed"));
    EXPECT_EQ(journal.Here().With("E AudioControl_getInstance is failed").Function(), "SetMainOutGain2");
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 50, 1), -1);
    seam.Succeed("AudioControl_getInstance");
    EXPECT_EQ(gain->SetMainOutGain2(1), 0) << "the lock was given back";
    EXPECT_EQ(seam.MainGainValue(), 30);
}

// The hardware's setter blocks a write of an output. Meanwhile the writer keeps the gain-out worker's lock,
// which guards the writes of both outputs.
TEST_F(KVAudioGainHandlerTest, ABusyLockIsGivenUpAfterThreeSeconds) {
    Start();
    gain->SetSrcGain(GAIN_HANDLER_PULSE_RAMP, 60);
    auto blocked = seam.BlockNext("set_main_out_gain2");
    std::thread holder([this] { gain->SetMainOutGain2(1); });
    ASSERT_TRUE(blocked.WaitReached());
    seam.Clear();

    const auto begin = fake::Clock::now();
    int mainResult = 0;
    int subResult = 0;
    int slotGain = 12345;
    std::thread mainWriter([&] { mainResult = gain->SetMainOutGain2(1); });
    std::thread subWriter([&] { subResult = gain->SetSubOutGain2(2); });
    std::thread setter([&] { gain->SetSrcGain(GAIN_HANDLER_AUDIO_GAIN_OUT, 40); });
    gain->GetSrcGain(GAIN_HANDLER_AUDIO_GAIN_OUT, slotGain);
    EXPECT_GE(fake::Clock::now() - begin, 3s);
    mainWriter.join();
    subWriter.join();
    setter.join();
    blocked.Open();
    holder.join();

    EXPECT_EQ(mainResult, -1);
    EXPECT_EQ(subResult, -1);
    EXPECT_EQ(slotGain, 12345) << "a getter that cannot lock leaves the caller's variable alone";
    EXPECT_EQ(Gain(GAIN_HANDLER_AUDIO_GAIN_OUT), 100);
    std::vector<std::string> functions;
    for (const fake::Entry& entry : journal.All().Entries()) {
        if (entry.text == "E mutex lock failed") {
            functions.push_back(entry.site.function);
        }
    }
    EXPECT_THAT(functions, testing::UnorderedElementsAre("SetMainOutGain2", "SetSubOutGain2", "SetSrcGain",
                                                         "GetSrcGain"));
}

// Requests

TEST_F(KVAudioGainHandlerTest, APlayerGainOfBothOutputsIsTheMainOutputsWrittenToBoth) {
    Start();
    seam.SetGain(1, 1);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 3), 0);
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 40, 100, 100, 100, 100));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40), SubGain(100)));
}

TEST_F(KVAudioGainHandlerTest, APlayerGainOfOneOutputLeavesTheOtherAlone) {
    Start();
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 1), 0);
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40)));
    ASSERT_TRUE(Rest());
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 30, 2), 0);
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40), SubGain(30)));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 40, 30, 100, 100, 100));
}

TEST_F(KVAudioGainHandlerTest, AnUnmuteGainGoesToBothOutputsWhateverThePath) {
    Start();
    int value = 90;
    for (const int path : {1, 2, 3, -1}) {
        value -= 10;
        EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, value, path), 0);
        EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, value, value, 100));
        EXPECT_EQ(seam.MainGainValue(), value);
        EXPECT_EQ(seam.SubGainValue(), value);
    }
}

TEST_F(KVAudioGainHandlerTest, WithASubBluetoothZoneAnUnmuteGainGoesToItsOwnOutputOnly) {
    seam.SetInt(SUB_BT_KEY, 3);
    Start();
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 70, 2), 0);
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 100, 70, 100));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(SubGain(70)));
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 60, 1), 0);
    EXPECT_THAT(journal.Here().Calls("get_").Texts(),
                ElementsAre("get_sub_out_gain2()", "get_main_out_gain2()"));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 60, 70, 100));
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 50, 3), 0);
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 50, 70, 100)) << "path 3 is the main output";
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(SubGain(70), MainGain(60), MainGain(50)));
}

TEST_F(KVAudioGainHandlerTest, WithASubBluetoothZoneAPlayerGainOfBothOutputsIsStillWrittenToBoth) {
    seam.SetInt(SUB_BT_KEY, 3);
    Start();
    seam.SetGain(1, 1);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 3), 0);
    EXPECT_THAT(journal.Here().Gains().Texts(), ElementsAre(MainGain(40), SubGain(100)));
}

TEST_F(KVAudioGainHandlerTest, AGainAboveTheMaximumIsARequestThatChangesNothing) {
    Start();
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 101, 1), 0);
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 100, 100, 100));
    EXPECT_THAT(journal.Here().Texts(), Contains("get_main_out_gain2()")) << "it writes what is stored";
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, APathOfNoOutputIsRefusedWhateverTheSource) {
    Start();
    for (const int source : {2, 3, 0, LOWEST}) {
        seam.Clear();
        EXPECT_EQ(gain->ApplyAudioGain(static_cast<KVDefine::eKVGainSrcType>(source), 50, 4), -2);
        EXPECT_EQ(gain->ApplyVolumeFadeIn(static_cast<KVDefine::eKVGainSrcType>(source), 4), -2);
        EXPECT_THAT(journal.Here().Texts(), ElementsAre("E Invalid audioPath:4", "E Invalid audioPath:4"));
        EXPECT_EQ(journal.All().Here().Entries()[1].site.function, "ApplyAudioGain");
    }
    seam.Clear();
    for (const int path : {0, -4, LOWEST, 0x7ffffffc}) {
        EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 50, path), -2);
    }
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("E Invalid audioPath:0", "E Invalid audioPath:-4",
                            "E Invalid audioPath:-2147483648", "E Invalid audioPath:2147483644"));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 100, 100, 100));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, AnUnknownSourceIsRefused) {
    Start();
    for (const int source : {0, 1, 4, -1, LOWEST, HIGHEST}) {
        seam.Clear();
        const auto unknown = static_cast<KVDefine::eKVGainSrcType>(source);
        const std::string line = "E Invalid gainOut srcType:" + std::to_string(source);
        EXPECT_EQ(gain->ApplyAudioGain(unknown, 50, 3), -2);
        EXPECT_EQ(gain->ApplyVolumeFadeIn(unknown, 3), -2);
        EXPECT_THAT(journal.Here().Texts(), ElementsAre(line, line));
    }
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 100, 100, 100));
}

TEST_F(KVAudioGainHandlerTest, ARequestWhoseWriteFailsKeepsTheGainAndWakesNobody) {
    Start();
    seam.Fail("set_main_out_gain2", -9);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 3), -1);
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("AudioControl_getInstance()", "I Path:1 player: 40 pulse:100 unmute:100 Total: 40",
                    "get_main_out_gain2()", "set_main_out_gain2(40)", "E Failed to set gain2(40). ret:-9",
                    "E Failed to set SetAudioGain(type:2) path:3. gain:40"));
    EXPECT_EQ(gain->ApplyVolumeFadeIn(GAIN_SRC_PLAYER, 1), -1);
    EXPECT_EQ(Gain(GAIN_HANDLER_PLAYER_MAIN_OUT), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Of("AudioGainOutH").Texts(), IsEmpty());
    EXPECT_THAT(journal.Of("PlayerMainOutH").Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, AnUnmuteRequestEndsWithTheMainOutputThatFails) {
    Start();
    seam.Fail("set_main_out_gain2", -9);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 40, 3), -1);
    EXPECT_THAT(journal.Here().Texts(), Contains("E Failed to set SetAudioGain(type:4) path:1. gain:40"));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 40, 100, 100));
    EXPECT_THAT(journal.Calls("set_sub_out_gain2").Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, AnUnmuteRequestFailsWithTheSubOutput) {
    Start();
    seam.Fail("set_sub_out_gain2", -9);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 40, 1), -1);
    EXPECT_THAT(journal.Here().Texts(), Contains("E Failed to set SetAudioGain(type:5) path:2. gain:40"));
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 40, 40, 100));
    EXPECT_EQ(seam.MainGainValue(), 40);
}

TEST_F(KVAudioGainHandlerTest, TheTraceShowsTheWholeOfARequest) {
    Start();
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 100, 1), 0);
    std::vector<std::string> trace;
    for (const fake::Entry& entry : journal.All().Here().Entries()) {
        if (entry.IsTrace()) {
            trace.push_back(entry.text.substr(3));
        }
    }
    const std::string of = "NKavrel::KVAudioGainHandler::";
    const std::string get = "void " + of + "GetSrcGain(NKavrel::eKVGainHandlerType, int&)";
    EXPECT_THAT(
        trace,
        ElementsAre("[IN]int " + of + "ApplyAudioGain(KVDefine::eKVGainSrcType, int, int)",
                    "[IN]void " + of + "SetSrcGain(NKavrel::eKVGainHandlerType, int)",
                    "[OUT]void " + of + "SetSrcGain(NKavrel::eKVGainHandlerType, int)",
                    "[IN]int " + of + "SetAudioGain(int)", "[IN]int " + of + "SetMainOutGain2(int)",
                    "[IN]void " + of + "GetAudioGain(int, int&)", "[IN]" + get, "[OUT]" + get, "[IN]" + get,
                    "[OUT]" + get, "[IN]" + get, "[OUT]" + get, "[OUT]void " + of + "GetAudioGain(int, int&)",
                    "[OUT]int " + of + "SetMainOutGain2(int)", "[IN]int " + of + "SetSubOutGain2(int)",
                    "[OUT]int " + of + "SetSubOutGain2(int)", "[OUT]int " + of + "SetAudioGain(int)",
                    "[OUT]int " + of + "ApplyAudioGain(KVDefine::eKVGainSrcType, int, int)"))
        << "neither _ApplyAudioGain nor SetFadeInInterruptable is traced";
    seam.Clear();
    gain->SetFadeInInterruptable(true);
    EXPECT_THAT(journal.All().Here().Entries(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, RequestsFromManyThreadsAtOnceLeaveTheGainsOfTheLastOnes) {
    constexpr int ROUNDS = 50;
    Start();
    const auto work = [this](KVDefine::eKVGainSrcType source, int path) {
        for (int i = 0; i < ROUNDS; ++i) {
            EXPECT_EQ(gain->ApplyAudioGain(source, i, path), 0);
            gain->SetFadeInInterruptable(i % 2 == 0);
            seam.FireKey(SUB_BT_KEY, -1);
        }
    };
    std::thread one(work, GAIN_SRC_PLAYER, 1);
    std::thread two(work, GAIN_SRC_PLAYER, 2);
    std::thread three(work, GAIN_SRC_UNMUTE, 3);
    for (int i = 0; i < ROUNDS; ++i) {
        gain->ApplyPulseAudioGain(i, 0);
        gain->IsMainOutUpdating();
        gain->IsSubOutUpdating();
    }
    one.join();
    two.join();
    three.join();
    ASSERT_TRUE(Rest());
    // The worker may have taken the last of the quick requests for the one before it, so repeat it at rest.
    gain->ApplyPulseAudioGain(49, 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(AllGains(), ElementsAre(100, 49, 49, 49, 49, 49, 100));
    EXPECT_EQ(seam.MainGainValue(), 11);
    EXPECT_EQ(seam.SubGainValue(), 11);
}

// Construction and destruction

TEST_F(KVAudioGainHandlerTest, ConstructionWritesFullGainAndThenHooksTheKeys) {
    seam.SetGain(0, 0);
    seam.SetInt(SUB_BT_KEY, -1);
    gain.emplace();
    EXPECT_THAT(
        journal.Here().Texts(),
        ElementsAre("AudioControl_getInstance()", "I Path:1 player:100 pulse:100 unmute:100 Total:100",
                    "get_main_out_gain2()", "set_main_out_gain2(100)", "I [Path:01] gain2:100",
                    "AudioControl_getInstance()", "I Path:2 player:100 pulse:100 unmute:100 Total:100",
                    "get_sub_out_gain2()", "set_sub_out_gain2(100)", "I [Path:02] gain2:100",
                    "I Create AudioGainHandler. Reset AudioGain(MAX). ret:0", ASK_PROJECTOR, WATCH_SUB_BT,
                    READ_SUB_BT, "I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid",
                    "I SubBT :-1"));
    ASSERT_TRUE(Rest());
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 100, 100, 100, 100, 100));
    EXPECT_FALSE(gain->IsMainOutUpdating());
    EXPECT_FALSE(gain->IsSubOutUpdating());
    int target = 0;
    int duration = 1;
    gain->GetPulseTargetValue(target, duration);
    EXPECT_EQ(target, 100);
    EXPECT_EQ(duration, 0);
}

TEST_F(KVAudioGainHandlerTest, TheKeysAreReadAfterTheStartGainIsWritten) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    seam.SetInt(READY_KEY, 0);
    seam.SetInt(SUB_BT_KEY, 3);
    seam.SetGain(0, 0);
    gain.emplace();
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(100), SubGain(100)))
        << "neither the projector nor the sub zone keeps the start gain from an output";
    const std::vector<std::string> lines = journal.Here().Texts();
    const auto reset = std::ranges::find(lines, "I Create AudioGainHandler. Reset AudioGain(MAX). ret:0");
    EXPECT_THAT(std::vector<std::string>(reset, lines.end()),
                ElementsAre("I Create AudioGainHandler. Reset AudioGain(MAX). ret:0", ASK_PROJECTOR,
                            WATCH_READY, READ_READY, "I Successed to get key memory/projector/status/ready",
                            "I Key[memory/projector/status/ready] value:0, Disable Gain control",
                            WATCH_SUB_BT, READ_SUB_BT,
                            "I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid", "I SubBT :3"));
}

TEST_F(KVAudioGainHandlerTest, AStartGainThatCannotBeWrittenIsOnlyLogged) {
    seam.SetGain(0, 0);
    seam.Fail("set_main_out_gain2", -3);
    gain.emplace();
    EXPECT_THAT(journal.Here().Texts(),
                IsSupersetOf({"E Failed to set SetAudioGain(type:4) path:1. gain:100",
                              "I Create AudioGainHandler. Reset AudioGain(MAX). ret:-1", WATCH_SUB_BT}));
    seam.Succeed("set_main_out_gain2");
    EXPECT_EQ(gain->SetAudioGain(3), 0);
    EXPECT_EQ(seam.MainGainValue(), 100);
}

TEST_F(KVAudioGainHandlerTest, EachWorkerHasAThreadOfItsNameWhileTheControllerLives) {
    const std::vector<std::string> before = fake::ThreadNames();
    EXPECT_THAT(before, Not(Contains("PulseRampH")));
    gain.emplace();
    EXPECT_THAT(fake::ThreadNames(), IsSupersetOf({"PulseRampH", "PlayerMainOutH", "PlayerSubOutH",
                                                   "UnMuteMainOutH", "UnMuteSubOutH", "AudioGainOutH"}));
    EXPECT_EQ(fake::ThreadNames().size(), before.size() + 6);
    gain.reset();
    EXPECT_EQ(fake::ThreadNames(), before);
}

TEST_F(KVAudioGainHandlerTest, TheGainOutWorkersFirstRoundFollowsTheStartGain) {
    gain.emplace();
    ASSERT_TRUE(Rest());
    const std::vector<std::string> lines = journal.Of("AudioGainOutH").Texts();
    ASSERT_GE(lines.size(), 9U);
    EXPECT_THAT(
        std::vector<std::string>(lines.begin(), lines.begin() + 9),
        ElementsAre("I Sleep AudioGainOut", "I AudioGainOut. Update(M:0/S:0)", "AudioControl_getInstance()",
                    "I Path:1 player:100 pulse:100 unmute:100 Total:100", "get_main_out_gain2()",
                    "AudioControl_getInstance()", "I Path:2 player:100 pulse:100 unmute:100 Total:100",
                    "get_sub_out_gain2()", "I Sleep AudioGainOut"));
}

TEST_F(KVAudioGainHandlerTest, ConstructionGoesOnOnlyWhenEachWorkerWaits) {
    bool wentOn = true;
    seam.BeforeNext("I Sleep AudioGainOut",
                    [&] { wentOn = journal.With("get_main_out_gain2()").Wait(1, 50ms); });
    gain.emplace();
    EXPECT_FALSE(wentOn);
}

TEST_F(KVAudioGainHandlerTest, ARequestRightAfterConstructionIsNotLost) {
    for (const auto type : {GAIN_HANDLER_PLAYER_MAIN_OUT, GAIN_HANDLER_PLAYER_SUB_OUT,
                            GAIN_HANDLER_UNMUTE_MAIN_OUT, GAIN_HANDLER_UNMUTE_SUB_OUT}) {
        seam.Clear();
        gain.emplace();
        gain->_ApplyAudioGain(type, 3, 97, false);
        EXPECT_TRUE(journal.With("I Wake " + NKavrel::GainHandlerName[type] + ". gain:97").Wait());
        gain.reset();
    }
    gain.emplace();
    gain->ApplyPulseAudioGain(50, 0);
    EXPECT_TRUE(journal.With(MainGain(50)).Wait());
}

TEST_F(KVAudioGainHandlerTest, DestructionEndsTheWorkersAndThenUnhooksTheKeys) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    seam.SetInt(READY_KEY, 1);
    Start();
    fake::InterruptSleeps(1);  // so that the pause is not over as soon as all workers wait
    gain.reset();
    EXPECT_THAT(journal.Here().Texts(), ElementsAre(ASK_PROJECTOR, IGNORE_READY, IGNORE_SUB_BT));
    const auto unhooked = journal.Here().With(ASK_PROJECTOR).First().time;
    const auto begun =
        journal.Here().With("D \t[IN]NKavrel::KVAudioGainHandler::~KVAudioGainHandler()").First().time;
    for (const std::string& name : NKavrel::GainHandlerName) {
        if (name.empty()) {
            continue;
        }
        EXPECT_THAT(journal.Of(name).Texts(), ElementsAre("I " + name + " is done"));
        const auto done = journal.Of(name).With("I " + name + " is done").First().time;
        EXPECT_LE(done, unhooked);
        EXPECT_GE(done - begun, 200ms) << "a worker on its way to its wait must have come there";
    }
    EXPECT_THAT(seam.Watches(READY_KEY), IsEmpty());
    EXPECT_THAT(seam.Watches(SUB_BT_KEY), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, TheThreadBodysTraceEndsWithTheWorker) {
    Start();
    gain.reset();
    const std::string of = "static void NKavrel::KVAudioGainHandler::";
    const auto last = [this](const std::string& thread) {
        return journal.All().Of(thread).Entries().back().text;
    };
    EXPECT_EQ(last("PulseRampH"), "D \t[OUT]" + of + "PulseGainHandler(void*)");
    EXPECT_EQ(last("AudioGainOutH"), "D \t[OUT]" + of + "AudioGainOutHandler(void*)");
    EXPECT_EQ(last("UnMuteSubOutH"),
              "D \t[OUT]" + of + "FadeInGainHandler(NKavrel::eKVGainHandlerType, void*)");
}

TEST_F(KVAudioGainHandlerTest, TheDestructorsPauseIsNotCutShortBySignals) {
    Start();
    fake::InterruptSleeps(3);
    gain.reset();
    EXPECT_EQ(fake::InterruptionsToCome(), 0);
    EXPECT_GE(
        journal.Here().With(ASK_PROJECTOR).First().time -
            journal.Here().With("D \t[IN]NKavrel::KVAudioGainHandler::~KVAudioGainHandler()").First().time,
        200ms);
}

TEST_F(KVAudioGainHandlerTest, AKeyChangeDuringDestructionFindsACompleteObject) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    Start();
    seam.BeforeNext("I AudioGainOutH is done", [this] {
        EXPECT_EQ(seam.FireKey(READY_KEY, 1), 1);
        EXPECT_EQ(seam.FireKey(SUB_BT_KEY, 2), 1);
    });
    gain.reset();
    EXPECT_THAT(journal.Logs().Texts(),
                IsSupersetOf({"I Key[memory/projector/status/ready] Changed:1, gain control is Enabled",
                              "I Key[memory/org.olvane.btapp/sub_audio_zoneid] Changed to 2"}));
}

TEST_F(KVAudioGainHandlerTest, AThreadBodyWithoutAnObjectReturns) {
    const std::vector<std::string> before = fake::ThreadNames();
    KVAudioGainHandler::FadeInGainHandler(GAIN_HANDLER_PLAYER_MAIN_OUT, nullptr);
    KVAudioGainHandler::PulseGainHandler(nullptr);
    KVAudioGainHandler::AudioGainOutHandler(nullptr);
    EXPECT_THAT(journal.Texts(),
                ElementsAre("E Invalid userData", "E Invalid userData", "E Invalid userData"));
    EXPECT_EQ(journal.All().Here().Entries()[1].site.function, "FadeInGainHandler");
    EXPECT_EQ(fake::ThreadNames(), before) << "the calling thread keeps its name";
}

// Gain control switched on and off by the projector

TEST_F(KVAudioGainHandlerTest, WithoutTheProjectorFeatureTheReadyKeyIsNeitherReadNorWatched) {
    seam.SetInt(READY_KEY, 0);
    Start();
    EXPECT_THAT(seam.Watches(READY_KEY), IsEmpty());
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(READ_READY)));
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 1), 0);
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(gain->SetAudioGainControlChangedCb(), 0);
    EXPECT_EQ(gain->UnsetAudioGainControlChangedCb(), 0);
    EXPECT_THAT(seam.Watches(READY_KEY), IsEmpty());
    EXPECT_THAT(journal.Calls().Texts(), Not(Contains(IGNORE_READY)));
}

TEST_F(KVAudioGainHandlerTest, AnUnreadableFeatureLeavesGainControlEnabled) {
    seam.Fail("system_info_get_custom_bool", -1002);
    Create();
    EXPECT_THAT(journal.Logs().Texts(), Contains("E Failed to get Projector FMS Key. ret:-1002"));
    seam.Clear();
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 1), 0);
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(gain->SetAudioGainControlChangedCb(), -1);
    EXPECT_EQ(gain->UnsetAudioGainControlChangedCb(), -1);
    seam.Clear();
    gain.reset();
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre(ASK_PROJECTOR, "E Failed to get Projector FMS Key. ret:-1002", IGNORE_SUB_BT));
    EXPECT_EQ(journal.Here().With("E Failed to get Projector FMS Key. ret:-1002").Function(),
              "UnsetAudioGainControlChangedCb");
}

TEST_F(KVAudioGainHandlerTest, AProjectorThatIsNotReadyKeepsGainsFromTheHardware) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    seam.SetInt(READY_KEY, 0);
    Create();
    EXPECT_THAT(journal.Logs().Texts(),
                Contains("I Key[memory/projector/status/ready] value:0, Disable Gain control"));
    seam.Clear();
    EXPECT_EQ(gain->SetAudioGain(3), 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E Disable Gain Control"));
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 3), 0);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 30, 3), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(AllGains(), ElementsAre(100, 100, 40, 100, 30, 30, 100)) << "the stored gains are kept";
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVAudioGainHandlerTest, AReadyKeyThatCannotBeReadMeansNotReady) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    Create();
    EXPECT_THAT(journal.Logs().Texts(),
                IsSupersetOf({"E Failed to get key memory/projector/status/ready",
                              "I Key[memory/projector/status/ready] value:0, Disable Gain "
                              "control"}));
    seam.Clear();
    EXPECT_EQ(gain->SetAudioGain(3), 0);
    EXPECT_THAT(journal.Here().Texts(), ElementsAre("E Disable Gain Control"));
}

TEST_F(KVAudioGainHandlerTest, GainControlFollowsTheReadyKeyAndWritesAtTheNextRequestOnly) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    seam.SetInt(READY_KEY, -1);
    Create();
    EXPECT_THAT(journal.Logs().Texts(),
                Contains("I Key[memory/projector/status/ready] value:-1, Enable Gain control"));
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 30, 1), 0);
    EXPECT_EQ(seam.MainGainValue(), 30);
    ASSERT_TRUE(Rest());
    seam.Clear();
    EXPECT_EQ(seam.FireKey(READY_KEY, 0), 1);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 40, 1), 0);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());

    seam.Clear();
    EXPECT_EQ(seam.FireKey(READY_KEY, 5), 1);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("vconf_keynode_get_int()",
                            "I Key[memory/projector/status/ready] Changed:5, gain control is Enabled"));
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty()) << "the change itself re-applies nothing";
    EXPECT_EQ(gain->SetAudioGain(3), 0);
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(MainGain(40)));

    seam.Clear();
    seam.FireKey(READY_KEY, 0);
    EXPECT_THAT(journal.Here().Texts(),
                Contains("I Key[memory/projector/status/ready] Changed:0, gain control is Disabled"));
    seam.FireKey(READY_KEY, -1);
    EXPECT_EQ(gain->ApplyAudioGain(GAIN_SRC_PLAYER, 60, 1), 0);
    EXPECT_EQ(seam.MainGainValue(), 60);
}

TEST_F(KVAudioGainHandlerTest, TheSubBluetoothFlagFollowsItsKey) {
    seam.SetInt(SUB_BT_KEY, -1);
    Start();
    const auto subAlone = [this](int value) {
        gain->ApplyAudioGain(GAIN_SRC_UNMUTE, value, 2);
        return Gain(GAIN_HANDLER_UNMUTE_MAIN_OUT) != value;
    };
    EXPECT_FALSE(subAlone(90));
    seam.Clear();
    EXPECT_EQ(seam.FireKey(SUB_BT_KEY, 3), 1);
    EXPECT_THAT(journal.Here().Texts(),
                ElementsAre("vconf_keynode_get_int()",
                            "I Key[memory/org.olvane.btapp/sub_audio_zoneid] Changed to 3"))
        << "no gain is re-applied";
    EXPECT_TRUE(subAlone(80));
    seam.FireKey(SUB_BT_KEY, -1);
    EXPECT_FALSE(subAlone(70));
    seam.FireKey(SUB_BT_KEY, 0);
    EXPECT_TRUE(subAlone(60)) << "every zone but -1 is one";
    seam.FireKey(SUB_BT_KEY, -1);
    seam.FireKey(SUB_BT_KEY, -2);
    EXPECT_TRUE(subAlone(50));
}

TEST_F(KVAudioGainHandlerTest, AtTheStartEveryZoneButMinusOneIsASubBluetoothZone) {
    for (const int zone : {0, -2}) {
        SCOPED_TRACE(zone);
        seam.SetInt(SUB_BT_KEY, zone);
        Start();
        gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 70, 2);
        EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_MAIN_OUT), 100);
        gain.reset();
    }
}

TEST_F(KVAudioGainHandlerTest, ASubBluetoothKeyThatCannotBeReadMeansNoZone) {
    Create();
    EXPECT_THAT(journal.Logs().Texts(), Contains("E Failed to get subBT zone ID"));
    seam.Clear();
    gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 70, 2);
    EXPECT_EQ(Gain(GAIN_HANDLER_UNMUTE_MAIN_OUT), 70);
}

TEST_F(KVAudioGainHandlerTest, KeysThatCannotBeWatchedAreReadAllTheSame) {
    seam.SetFeature(PROJECTOR_FEATURE, true);
    seam.SetInt(READY_KEY, 1);
    seam.SetInt(SUB_BT_KEY, 3);
    seam.Fail("vconf_notify_key_changed", -1);
    Create();
    EXPECT_THAT(journal.Logs().Texts(),
                IsSupersetOf({"E Failed to register vconf key memory/projector/status/ready for notification",
                              "I Key[memory/projector/status/ready] value:1, Enable Gain control",
                              "E Failed to register vconf key memory/org.olvane.btapp/sub_audio_zoneid for "
                              "notification",
                              "I SubBT :3"}));
    seam.Clear();
    gain->ApplyAudioGain(GAIN_SRC_UNMUTE, 70, 2);
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(SubGain(70)));
    gain.reset();
    EXPECT_THAT(
        journal.Here().Texts(),
        IsSupersetOf({"E Failed to unregister vconf key memory/projector/status/ready for notification",
                      "E Failed to unregister vconf key memory/org.olvane.btapp/sub_audio_zoneid for "
                      "notification"}));
}

TEST_F(KVAudioGainHandlerTest, KeyCallbacksRefuseAMissingNodeAndMissingData) {
    keynode_t node = {READY_KEY, 0, "0"};
    for (const auto callback :
         {KVAudioGainHandler::AudioGainControlChangedCb, KVAudioGainHandler::SubBTChangedCb}) {
        seam.Clear();
        callback(nullptr, nullptr);
        callback(nullptr, &node);
        callback(&node, nullptr);
        EXPECT_THAT(journal.Texts(),
                    ElementsAre("E pKeyNode is NULL", "E pKeyNode is NULL", "E data is NULL"));
    }
    EXPECT_EQ(journal.With("E data is NULL").Function(), "SubBTChangedCb");
}

}  // namespace
