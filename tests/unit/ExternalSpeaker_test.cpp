// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ExternalSpeaker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "FakeSeam.h"

using fake::FakeSeam;
using NKavrel::ExternalSpeaker;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int UNTOUCHED = 12345;

constexpr const char* SET_LEVEL_KEY = "memory/menu/network/screenmirroring/set_volume_level";
constexpr const char* SET_MUTE_KEY = "memory/menu/network/screenmirroring/set_volume_mute";

/** A speaker class and the three settings keys that it uses. */
struct OutputKeys {
    std::string name;
    std::function<std::unique_ptr<ExternalSpeaker>()> make;
    std::string supportKey;
    std::string levelKey;
    std::string muteKey;
};

void PrintTo(const OutputKeys& output, std::ostream* out) {
    *out << output.name;
}

template <typename Speaker>
OutputKeys MirroringOutput(const std::string& name, const std::string& ending) {
    const std::string folder = "memory/menu/network/screenmirroring/";
    return {name, [] { return std::make_unique<Speaker>(); }, folder + "volume_support_" + ending,
            folder + "get_volume_level_" + ending, folder + "get_volume_mute_" + ending};
}

const std::vector<OutputKeys> OUTPUTS = {
    MirroringOutput<NKavrel::HDMISpeaker>("HDMISpeaker", "hdmi"),
    MirroringOutput<NKavrel::OpticalSpeaker>("OpticalSpeaker", "optical"),
    MirroringOutput<NKavrel::WifiSpeaker>("WifiSpeaker", "mlr"),
    MirroringOutput<NKavrel::BTSpeaker>("BTSpeaker", "bt"),
    MirroringOutput<NKavrel::AuracastSpeaker>("AuracastSpeaker", "auracast"),
    {"USBSpeaker", [] { return std::make_unique<NKavrel::USBSpeaker>(); }, "db/usbsound/volume_capability",
     "db/usbsound/volume_level", "db/usbsound/volume_mute_status"},
};

std::string Quoted(const std::string& function, const std::string& key) {
    return function + "(\"" + key + "\")";
}
std::string Get(const std::string& key) {
    return Quoted("vconf_get_int", key);
}
std::string Notify(const std::string& key) {
    return Quoted("vconf_notify_key_changed", key);
}
std::string Ignore(const std::string& key) {
    return Quoted("vconf_ignore_key_changed", key);
}

class ExternalSpeakerTest : public testing::TestWithParam<OutputKeys> {
protected:
    void SetSupport(int word) { seam.SetInt(keys.supportKey, word); }

    void SetHandlers() {
        speaker->SetEventHandler([this](int volume) { heard.push_back("volume " + std::to_string(volume)); },
                                 [this](int mute) { heard.push_back("mute " + std::to_string(mute)); });
    }

    const OutputKeys& keys = GetParam();
    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::vector<std::string> heard;
    std::unique_ptr<ExternalSpeaker> speaker = keys.make();
};

INSTANTIATE_TEST_SUITE_P(All, ExternalSpeakerTest, testing::ValuesIn(OUTPUTS),
                         [](const auto& param) { return param.param.name; });

// Values

TEST_P(ExternalSpeakerTest, ReadsItsOwnKeysAndWritesTheTwoThatAllShare) {
    SetSupport(0xf);
    seam.SetInt(keys.levelKey, 17);
    seam.SetInt(keys.muteKey, 1);
    int volume = 0;
    bool mute = false;
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_EQ(speaker->SetVolume(30), 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_EQ(volume, 17);
    EXPECT_TRUE(mute);
    EXPECT_THAT(journal.Calls().Texts(),
                ElementsAre(Get(keys.supportKey), Get(keys.levelKey), Get(keys.muteKey),
                            "vconf_set_int(\"memory/menu/network/screenmirroring/set_volume_level\", 30)",
                            "vconf_set_int(\"memory/menu/network/screenmirroring/set_volume_mute\", 1)"));
    EXPECT_THAT(journal.Logs().Texts(), Contains("I current Ext Speaker volume [17]"));
    EXPECT_THAT(journal.Logs().Texts(), Contains("I current mute [1]"));
}

TEST_P(ExternalSpeakerTest, EachOperationNeedsItsOwnBitOnly) {
    seam.SetInt(keys.levelKey, 17);
    seam.SetInt(keys.muteKey, 1);
    for (const int bit : {1, 2, 4, 8}) {
        SetSupport(bit);
        speaker = keys.make();
        int volume = 0;
        bool mute = false;
        EXPECT_EQ(speaker->GetVolume(volume), bit == 1 ? 0 : -4);
        EXPECT_EQ(speaker->SetVolume(30), bit == 2 ? 0 : -4);
        EXPECT_EQ(speaker->GetVolumeMute(mute), bit == 4 ? 0 : -4);
        EXPECT_EQ(speaker->SetVolumeMute(true), bit == 8 ? 0 : -4);
    }
}

TEST_P(ExternalSpeakerTest, LevelsPassThroughUnscaled) {
    SetSupport(0xf);
    for (const int level : {0, 100, 101, -7, 2147483647, -2147483647 - 1}) {
        seam.SetInt(keys.levelKey, level);
        int volume = UNTOUCHED;
        EXPECT_EQ(speaker->GetVolume(volume), 0);
        EXPECT_EQ(volume, level);
        EXPECT_EQ(speaker->SetVolume(level), 0);
        EXPECT_EQ(seam.Value(SET_LEVEL_KEY), std::to_string(level));
    }
}

TEST_P(ExternalSpeakerTest, MuteIsWrittenAsZeroOrOneAndEveryOtherNumberReadsAsMuted) {
    SetSupport(0xf);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_EQ(seam.Value(SET_MUTE_KEY), "1");
    EXPECT_EQ(speaker->SetVolumeMute(false), 0);
    EXPECT_EQ(seam.Value(SET_MUTE_KEY), "0");
    for (const int state : {0, 1, 2, -1}) {
        seam.SetInt(keys.muteKey, state);
        bool mute = state == 0;
        EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
        EXPECT_EQ(mute, state != 0);
        EXPECT_EQ(journal.Logs().Texts().back(), "I current mute [" + std::to_string(state) + "]");
    }
}

TEST_P(ExternalSpeakerTest, AFailedReadLeavesTheCallersValue) {
    SetSupport(0xf);
    int volume = UNTOUCHED;
    bool mute = true;
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(speaker->GetVolumeMute(mute), -1);
    seam.SetStr(keys.levelKey, "junk");
    EXPECT_EQ(speaker->GetVolume(volume), -1);
    EXPECT_EQ(volume, UNTOUCHED);
    EXPECT_TRUE(mute);
    EXPECT_THAT(journal.Logs(DLOG_ERROR).Texts(),
                ElementsAre("E Failed to get key " + keys.levelKey, "E Failed to get volume",
                            "E Failed to get key " + keys.muteKey, "E Failed to get mute",
                            "E Failed to get key " + keys.levelKey, "E Failed to get volume"));
    EXPECT_EQ(journal.With("E Failed to get mute").Function(), "GetVolumeMute");
}

TEST_P(ExternalSpeakerTest, AFailedWriteIsMinusOneWhateverThePlatformsCode) {
    SetSupport(0xf);
    seam.Fail("vconf_set_int", -1028);
    EXPECT_EQ(speaker->SetVolume(30), -1);
    EXPECT_EQ(speaker->SetVolumeMute(true), -1);
    EXPECT_THAT(journal.Logs(DLOG_ERROR).Texts(),
                ElementsAre(std::string("E Failed to set key ") + SET_LEVEL_KEY, "E Failed to set volume",
                            std::string("E Failed to set key ") + SET_MUTE_KEY, "E Failed to set mute"));
    EXPECT_EQ(journal.Calls("vconf_set_int").Texts().size(), 2U) << "nothing is tried again";
}

// The support word

TEST_P(ExternalSpeakerTest, AMissingBitRefusesTheOperationAndNamesTheWord) {
    SetSupport(0x5);
    seam.SetInt(keys.levelKey, 17);
    seam.SetInt(keys.muteKey, 0);
    int volume = 0;
    bool mute = true;
    EXPECT_EQ(speaker->GetVolume(volume), 0);
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    seam.Clear();
    EXPECT_EQ(speaker->SetVolume(30), -4);
    EXPECT_EQ(speaker->SetVolumeMute(true), -4);
    EXPECT_THAT(journal.Texts(),
                ElementsAre("E SET VOLUME is not supported. 0x0005", "E SET MUTE is not supported. 0x0005"));
    EXPECT_EQ(journal.With("E SET MUTE is not supported. 0x0005").Function(), "SetVolumeMute");
}

TEST_P(ExternalSpeakerTest, AMissingReadBitLeavesTheCallersValue) {
    SetSupport(0xa);
    int volume = UNTOUCHED;
    bool mute = true;
    EXPECT_EQ(speaker->GetVolume(volume), -4);
    EXPECT_EQ(speaker->GetVolumeMute(mute), -4);
    EXPECT_EQ(volume, UNTOUCHED);
    EXPECT_TRUE(mute);
    EXPECT_THAT(journal.Logs(DLOG_ERROR).Texts(),
                ElementsAre("E GET VOLUME is not supported. 0x000a", "E GET MUTE is not supported. 0x000a"));
    EXPECT_EQ(speaker->SetVolume(30), 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
}

TEST_P(ExternalSpeakerTest, ASupportWordOfZeroIsReadAgainAndAnotherOneIsNot) {
    SetSupport(0);
    int volume = 0;
    bool mute = false;
    EXPECT_EQ(speaker->GetVolume(volume), -4);
    EXPECT_EQ(speaker->SetVolume(1), -4);
    EXPECT_EQ(speaker->GetVolumeMute(mute), -4);
    EXPECT_EQ(speaker->SetVolumeMute(true), -4);
    EXPECT_EQ(journal.With(Get(keys.supportKey)).Count(), 4);

    SetSupport(0x2);
    EXPECT_EQ(speaker->SetVolume(1), 0);
    SetSupport(0xf);
    EXPECT_EQ(speaker->SetVolume(1), 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), -4) << "the word is not read again";
    EXPECT_EQ(journal.With(Get(keys.supportKey)).Count(), 5);
}

TEST_P(ExternalSpeakerTest, AnUnreadableSupportWordRefusesEverythingAndIsReadAgain) {
    int volume = UNTOUCHED;
    bool mute = true;
    int word = UNTOUCHED;
    EXPECT_EQ(speaker->GetVolume(volume), -4);
    EXPECT_EQ(speaker->SetVolume(1), -4);
    EXPECT_EQ(speaker->GetVolumeMute(mute), -4);
    EXPECT_EQ(speaker->SetVolumeMute(true), -4);
    EXPECT_EQ(speaker->GetVolumeSupportType(word), -1);
    const std::string unread = "E Failed to get key " + keys.supportKey;
    const std::string failed = "E Failed to get volume support status";
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre(unread, failed, "E GET VOLUME is not supported. 0x0000", unread, failed,
                            "E SET VOLUME is not supported. 0x0000", unread, failed,
                            "E GET MUTE is not supported. 0x0000", unread, failed,
                            "E SET MUTE is not supported. 0x0000", unread, failed));
    EXPECT_EQ(volume, UNTOUCHED);
    EXPECT_TRUE(mute);
    EXPECT_EQ(word, UNTOUCHED);
    SetSupport(0xf);
    EXPECT_EQ(speaker->SetVolume(1), 0);
}

TEST_P(ExternalSpeakerTest, GettingTheSupportWordAlwaysReadsItAndRenewsTheCachedOne) {
    SetSupport(0x5);
    EXPECT_EQ(speaker->SetVolume(1), -4);
    SetSupport(0x12347);
    int word = 0;
    EXPECT_EQ(speaker->GetVolumeSupportType(word), 0);
    EXPECT_EQ(word, 0x12347) << "higher bits are carried along";
    EXPECT_EQ(journal.Logs().Texts().back(), "I current spk support [0x12347]");
    EXPECT_EQ(speaker->SetVolume(1), 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), -4);
    EXPECT_EQ(journal.Logs().Texts().back(), "E SET MUTE is not supported. 0x12347");

    seam.RemoveKey(keys.supportKey);
    EXPECT_EQ(speaker->GetVolumeSupportType(word), -1);
    EXPECT_EQ(word, 0x12347);
    EXPECT_EQ(speaker->SetVolume(1), 0) << "a failed read leaves the cached word";

    SetSupport(-1);
    EXPECT_EQ(speaker->GetVolumeSupportType(word), 0);
    EXPECT_EQ(word, -1);
    EXPECT_EQ(journal.Logs().Texts().back(), "I current spk support [0xffffffff]");
    seam.RemoveKey(keys.supportKey);
    EXPECT_TRUE(speaker->CheckSupport(0xF)) << "a negative word is remembered, too";
}

TEST_P(ExternalSpeakerTest, CheckSupportAsksForAllBits) {
    SetSupport(0x5);
    EXPECT_TRUE(speaker->CheckSupport(0x5));
    EXPECT_TRUE(speaker->CheckSupport(0x1));
    EXPECT_TRUE(speaker->CheckSupport(0));
    EXPECT_FALSE(speaker->CheckSupport(0x7));
    EXPECT_FALSE(speaker->CheckSupport(0x10));
}

// Changes

TEST_P(ExternalSpeakerTest, ChangesOfLevelAndMuteReachTheirHandlersAsTheyAre) {
    SetSupport(0xf);
    SetHandlers();
    speaker->SetChangedCB();
    EXPECT_EQ(seam.FireKey(keys.levelKey, 42), 1);
    EXPECT_EQ(seam.FireKey(keys.muteKey, 2), 1);
    EXPECT_EQ(seam.FireKey(keys.levelKey, "junk"), 1);
    EXPECT_THAT(heard, ElementsAre("volume 42", "mute 2", "volume -1"));
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("I KeyName:" + keys.levelKey + " val:42", "I KeyName:" + keys.muteKey + " val:2",
                            "I KeyName:" + keys.levelKey + " val:-1"));
    bool mute = false;
    EXPECT_EQ(speaker->GetVolumeMute(mute), 0);
    EXPECT_TRUE(mute);
}

TEST_P(ExternalSpeakerTest, AChangeOfTheSupportWordTakesEffectAtOnceAndCallsNoHandler) {
    SetSupport(0x5);
    SetHandlers();
    speaker->SetChangedCB();
    EXPECT_EQ(speaker->SetVolume(1), -4);
    seam.Clear();
    fake::OnPlatformThread([this] { seam.FireKey(keys.supportKey, 0xf); });
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("I KeyName:" + keys.supportKey + " val:15",
                                                    "I Volume support flag changed 0x0005 to 0x000f"));
    EXPECT_EQ(speaker->SetVolume(1), 0);
    EXPECT_EQ(journal.With(Get(keys.supportKey)).Count(), 0);
    EXPECT_THAT(heard, IsEmpty());
}

TEST_P(ExternalSpeakerTest, AChangeOfTheRequestKeysIsNotWatched) {
    SetSupport(0xf);
    SetHandlers();
    speaker->SetChangedCB();
    EXPECT_EQ(speaker->SetVolume(42), 0);
    EXPECT_EQ(speaker->SetVolumeMute(true), 0);
    EXPECT_THAT(heard, IsEmpty());
}

TEST_P(ExternalSpeakerTest, AChangeOfAStrangeKeyIsAnErrorAndChangesNothing) {
    SetHandlers();
    keynode_t node = {"memory/strange", 5, "5"};
    ExternalSpeaker::OnVolumeControlChanged(&node, speaker.get());
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("I KeyName:memory/strange val:5", "E Wrong key:memory/strange"));
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_FALSE(speaker->CheckSupport(0x1)) << "5 is not taken for the support word";
}

TEST_P(ExternalSpeakerTest, AChangeWithoutANodeDataOrNameIsRefused) {
    SetHandlers();
    keynode_t node = {keys.levelKey, 5, "5"};
    keynode_t nameless = {std::nullopt, 5, "5"};
    keynode_t emptyName = {"", 5, "5"};
    ExternalSpeaker::OnVolumeControlChanged(nullptr, nullptr);
    ExternalSpeaker::OnVolumeControlChanged(nullptr, speaker.get());
    ExternalSpeaker::OnVolumeControlChanged(&node, nullptr);
    ExternalSpeaker::OnVolumeControlChanged(&nameless, speaker.get());
    ExternalSpeaker::OnVolumeControlChanged(&emptyName, speaker.get());
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("E keyNode is NULL", "E keyNode is NULL", "E data is NULL",
                            "E Failed to get keyName", "E Failed to get keyName"));
    EXPECT_THAT(heard, IsEmpty());
}

TEST_P(ExternalSpeakerTest, AnEmptyHandlerIsCalledAllTheSame) {
    keynode_t level = {keys.levelKey, 5, "5"};
    keynode_t mute = {keys.muteKey, 1, "1"};
    EXPECT_THROW(ExternalSpeaker::OnVolumeControlChanged(&level, speaker.get()), std::bad_function_call);
    EXPECT_THROW(ExternalSpeaker::OnVolumeControlChanged(&mute, speaker.get()), std::bad_function_call);
}

// Registration

TEST_P(ExternalSpeakerTest, WatchesLevelMuteAndSupportOnceAndLeavesThemInReverse) {
    speaker->SetChangedCB();
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Calls().Texts(),
                ElementsAre(Notify(keys.levelKey), Notify(keys.muteKey), Notify(keys.supportKey)));
    EXPECT_EQ(seam.Watches(keys.levelKey).size(), 1U);
    EXPECT_EQ(seam.Watches(keys.levelKey)[0].data, speaker.get());
    seam.Clear();
    speaker->UnsetChangedCB();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Calls().Texts(),
                ElementsAre(Ignore(keys.supportKey), Ignore(keys.muteKey), Ignore(keys.levelKey)));
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_P(ExternalSpeakerTest, LeavesNothingThatItDoesNotWatch) {
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty());
}

TEST_P(ExternalSpeakerTest, AWatchThatFailsStopsThereAndKeepsThoseBefore) {
    const std::string failedAs = "E Failed to register vconf key ";
    seam.Fail(Notify(keys.levelKey), -1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(),
                ElementsAre(Notify(keys.levelKey), failedAs + keys.levelKey + " for notification",
                            "E get_volume_level callback set failed"));
    seam.Succeed(Notify(keys.levelKey));

    seam.Clear();
    seam.Fail(Notify(keys.muteKey), -1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(Notify(keys.levelKey), Notify(keys.muteKey),
                                             failedAs + keys.muteKey + " for notification",
                                             "E get_volume_mute callback set failed"));
    EXPECT_EQ(seam.Watches(keys.levelKey).size(), 1U);
    seam.Succeed(Notify(keys.muteKey));

    seam.Clear();
    seam.Fail(Notify(keys.supportKey), -1);
    speaker->SetChangedCB();
    EXPECT_THAT(journal.Texts(),
                ElementsAre(Notify(keys.levelKey), Notify(keys.muteKey), Notify(keys.supportKey),
                            failedAs + keys.supportKey + " for notification",
                            "E get_volume_support callback set failed"));
    seam.Clear();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), IsEmpty()) << "what failed half-way does not count as registered";

    seam.Succeed(Notify(keys.supportKey));
    speaker->SetChangedCB();
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Logs(DLOG_ERROR).Texts(), IsEmpty());
    EXPECT_THAT(seam.Watches(keys.levelKey), IsEmpty());
}

TEST_P(ExternalSpeakerTest, ALeavingThatFailsStopsThereAndMayBeTriedAgain) {
    const std::string failedAs = "E Failed to unregister vconf key ";
    speaker->SetChangedCB();
    seam.Clear();
    seam.Fail(Ignore(keys.supportKey), -1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(),
                ElementsAre(Ignore(keys.supportKey), failedAs + keys.supportKey + " for notification",
                            "E get_volume_mute callback unset failed"))
        << "the support key has no text of its own";
    seam.Succeed(Ignore(keys.supportKey));

    seam.Clear();
    seam.Fail(Ignore(keys.muteKey), -1);
    speaker->UnsetChangedCB();
    EXPECT_THAT(journal.Texts(), ElementsAre(Ignore(keys.supportKey), Ignore(keys.muteKey),
                                             failedAs + keys.muteKey + " for notification",
                                             "E get_volume_mute callback unset failed"));
    seam.Succeed(Ignore(keys.muteKey));

    speaker->SetChangedCB();
    EXPECT_THAT(seam.Watches(keys.supportKey), IsEmpty()) << "it still counts as registered";
    seam.SetInt(keys.supportKey, 1);
    vconf_notify_key_changed(keys.supportKey.c_str(), ExternalSpeaker::OnVolumeControlChanged, speaker.get());
    seam.Clear();
    seam.Fail(Ignore(keys.levelKey), -1);
    speaker->UnsetChangedCB();
    EXPECT_EQ(journal.Logs().Texts().back(), "E get_volume_level callback unset failed");
}

TEST_P(ExternalSpeakerTest, SpeakersOfDifferentOutputsHearTheirOwnKeysOnly) {
    const auto other = OUTPUTS[keys.name == OUTPUTS[0].name ? 1 : 0].make();
    other->SetEventHandler([this](int) { heard.push_back("other"); }, [](int) {});
    other->SetChangedCB();
    SetHandlers();
    speaker->SetChangedCB();
    EXPECT_EQ(seam.FireKey(keys.levelKey, 1), 1);
    other->UnsetChangedCB();
    EXPECT_EQ(seam.FireKey(keys.levelKey, 2), 1);
    EXPECT_THAT(heard, ElementsAre("volume 1", "volume 2"));
}

// Handlers, construction and end

TEST_P(ExternalSpeakerTest, TheFirstHandlersStayUntilTheyAreTakenBack) {
    speaker->UnsetEventHandler();
    SetHandlers();
    speaker->SetEventHandler([](int) { FAIL(); }, [](int) { FAIL(); });
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("E Already unset event handler", "E Already set event handler"));
    speaker->SetChangedCB();
    seam.FireKey(keys.levelKey, 3);
    seam.FireKey(keys.muteKey, 1);
    EXPECT_THAT(heard, ElementsAre("volume 3", "mute 1"));
    speaker->UnsetChangedCB();
    speaker->UnsetEventHandler();
    seam.Clear();
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already unset event handler"));
}

TEST_P(ExternalSpeakerTest, OnlyTheVolumeHandlerDecidesWhetherThereAreHandlersToTakeBack) {
    speaker->SetEventHandler([](int) {}, nullptr);
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
    speaker->SetEventHandler(nullptr, [](int) {});
    speaker->UnsetEventHandler();
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already unset event handler"));
}

TEST_P(ExternalSpeakerTest, DestructionTakesTheHandlersBackAndLeavesTheWatches) {
    SetHandlers();
    speaker->SetChangedCB();
    seam.Clear();
    speaker.reset();
    EXPECT_THAT(journal.Texts(), IsEmpty());
    EXPECT_EQ(seam.Watches(keys.levelKey).size(), 1U) << "the owner calls UnsetChangedCB before";
}

TEST_P(ExternalSpeakerTest, ConstructionAndDestructionAreTracedAndTouchNothing) {
    EXPECT_THAT(journal.Texts(), IsEmpty());
    const std::string of = "NKavrel::" + keys.name + "::";
    const std::vector<std::string> traces = journal.Traces().Texts();
    ASSERT_EQ(traces.size(), 4U);
    EXPECT_THAT(traces[0], testing::StartsWith("D \t[IN]NKavrel::ExternalSpeaker::ExternalSpeaker("));
    EXPECT_THAT(traces[1], testing::StartsWith("D \t[OUT]NKavrel::ExternalSpeaker::ExternalSpeaker("));
    EXPECT_EQ(traces[2], "D \t[IN]" + of + keys.name + "()");
    EXPECT_EQ(traces[3], "D \t[OUT]" + of + keys.name + "()");
    seam.Clear();
    speaker.reset();
    EXPECT_THAT(journal.Traces().Texts(),
                ElementsAre("D \t[IN]virtual " + of + "~" + keys.name + "()",
                            "D \t[OUT]virtual " + of + "~" + keys.name + "()",
                            "D \t[IN]virtual NKavrel::ExternalSpeaker::~ExternalSpeaker()",
                            "D \t[IN]virtual void NKavrel::ExternalSpeaker::UnsetEventHandler()",
                            "D \t[OUT]virtual void NKavrel::ExternalSpeaker::UnsetEventHandler()",
                            "D \t[OUT]virtual NKavrel::ExternalSpeaker::~ExternalSpeaker()"));
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Already unset event handler"));
}

}  // namespace
