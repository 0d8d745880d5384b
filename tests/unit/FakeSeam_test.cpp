// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "FakeSeam.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using fake::FakeSeam;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** The values with which the callbacks below were called. */
struct ReceivedReports {
    std::vector<std::string> texts;
    std::thread::id thread;
};

void HearKey(keynode_t* node, void* data) {
    auto* heard = static_cast<ReceivedReports*>(data);
    const char* name = vconf_keynode_get_name(node);
    const char* text = vconf_keynode_get_str(node);
    heard->texts.push_back(std::string(name == nullptr ? "NULL" : name) + '=' +
                           std::to_string(vconf_keynode_get_int(node)) + '/' +
                           (text == nullptr ? "NULL" : text));
    heard->thread = std::this_thread::get_id();
}

void HearKeyToo(keynode_t* node, void* data) {
    HearKey(node, data);
}

void HearNumber(unsigned int value, void* data) {
    static_cast<ReceivedReports*>(data)->texts.push_back(std::to_string(value));
}

void HearRoute(sound_tv_output_route_e route, void* data) {
    static_cast<ReceivedReports*>(data)->texts.push_back("route " + std::to_string(route));
}

void HearZoneRoute(sound_tv_output_route_e route, int zone, void* data) {
    static_cast<ReceivedReports*>(data)->texts.push_back("zone " + std::to_string(zone) + " route " +
                                                         std::to_string(route));
}

void HearFocus(int zone, void* data) {
    static_cast<ReceivedReports*>(data)->texts.push_back("focus " + std::to_string(zone));
}

void SayAs(const char* function) {
    __dlog_print(DLOG_ERROR, "Kavrel", "%s: %s(%d) > [%s:%d] got %d: %s\n", "File.cpp", function, 12,
                 function, 12, -1, "a(b) > [c:d] e");
}

class FakeSeamTest : public testing::Test {
protected:
    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    ReceivedReports heard;
};

TEST_F(FakeSeamTest, CallsReadLikeSource) {
    int value = 0;
    audio_set_master_volume(30, 1);
    audio_set_master_mute(true);
    vconf_get_int("memory/a", &value);
    vconf_set_int("memory/a", -5);
    LwipcIsDone("FadeInPopup");
    AudioControl_getInstance()->set_main_out_gain2(25);
    EXPECT_THAT(
        journal.Calls().Texts(),
        ElementsAre("audio_set_master_volume(30, 1)", "audio_set_master_mute(true)",
                    "vconf_get_int(\"memory/a\")", "vconf_set_int(\"memory/a\", -5)",
                    "LwipcIsDone(\"FadeInPopup\")", "AudioControl_getInstance()", "set_main_out_gain2(25)"));
    EXPECT_THAT(journal.Calls("audio_").Texts(),
                ElementsAre("audio_set_master_volume(30, 1)", "audio_set_master_mute(true)"));
}

TEST_F(FakeSeamTest, LogLinesAreTakenApart) {
    SayAs("_Function");
    const auto entries = journal.All().Entries();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].text, "E got -1: a(b) > [c:d] e");
    EXPECT_EQ(entries[0].tag, "Kavrel");
    EXPECT_EQ(entries[0].priority, DLOG_ERROR);
    EXPECT_EQ(entries[0].site, (fake::Site{"File.cpp", "_Function", 12}));
    EXPECT_EQ(entries[0].siteAgain, entries[0].site);
    EXPECT_EQ(entries[0].raw, "File.cpp: _Function(12) > [_Function:12] got -1: a(b) > [c:d] e\n");
    EXPECT_EQ(entries[0].thread, std::this_thread::get_id());
}

TEST_F(FakeSeamTest, ALineOfAnotherFormStaysWhole) {
    __dlog_print(DLOG_INFO, "Other", "no prefix");
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("I no prefix"));
    EXPECT_EQ(journal.All().Entries()[0].site, fake::Site());
    seam.Clear();
}

TEST_F(FakeSeamTest, TheJournalCanBeEmptied) {
    SayAs("F");
    seam.Clear();
    EXPECT_THAT(journal.All().Entries(), IsEmpty());
}

TEST_F(FakeSeamTest, AQueryLeavesOutDebugLinesAndGainsUnlessItAsksForThem) {
    __dlog_print(DLOG_DEBUG, "Kavrel", "%s: %s(%d) > [%s:%d] \t[IN]%s\n", "H.h", "T", 1, "T", 1, "int f()");
    __dlog_print(DLOG_DEBUG, "Kavrel", "%s: %s(%d) > [%s:%d] \t[OUT]%s\n", "H.h", "T", 1, "T", 1, "int f()");
    __dlog_print(DLOG_DEBUG, "Kavrel", "%s: %s(%d) > [%s:%d] detail\n", "H.h", "T", 1, "T", 1);
    AudioControl_getInstance()->set_main_out_gain2(5);
    SayAs("F");
    const std::string error = "E got -1: a(b) > [c:d] e";
    EXPECT_THAT(journal.Texts(), ElementsAre("AudioControl_getInstance()", "set_main_out_gain2(5)", error));
    EXPECT_THAT(journal.Calls("set_").Texts(), ElementsAre("set_main_out_gain2(5)"));
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre(error));
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(),
                ElementsAre("D \t[IN]int f()", "D \t[OUT]int f()", "D detail", error));
    EXPECT_THAT(journal.Traces().Texts(), ElementsAre("D \t[IN]int f()", "D \t[OUT]int f()"));
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre("main 5"));
    EXPECT_THAT(journal.All().Texts(), testing::SizeIs(7));
    EXPECT_EQ(journal.With("D detail").Count(), 1);
    EXPECT_EQ(journal.Calls().With("D detail").Count(), 0);
    EXPECT_EQ(journal.With("main").Count(), 0);
    EXPECT_EQ(journal.BeginningWith("main").Count(), 1);
    EXPECT_EQ(journal.BeginningWith("D \t").Count(), 2);
    EXPECT_THAT(journal.AndScopes().Lines(),
                ElementsAre("int f()", "AudioControl_getInstance()", "set_main_out_gain2(5)", "F: " + error));
    EXPECT_THAT(journal.Logs().AndScopes().Lines(), ElementsAre("int f()", "F: " + error));
    EXPECT_THAT(journal.By("File.cpp").Texts(), journal.Texts());
    EXPECT_THAT(journal.By("H.h", "G.cpp").Texts(),
                ElementsAre("AudioControl_getInstance()", "set_main_out_gain2(5)"));
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).By("H.h").Texts(), testing::SizeIs(3));
    EXPECT_EQ(journal.Logs().First().raw, journal.Last().raw);
    EXPECT_EQ(journal.With("D detail").Function(), "T");
    EXPECT_EQ(journal.With("D other").Function(), "");
}

TEST_F(FakeSeamTest, TheFirstEntryOfNoneFailsTheTest) {
    EXPECT_NONFATAL_FAILURE(FakeSeam::Get().journal.First(), "the journal has no such entry");
    EXPECT_NONFATAL_FAILURE(FakeSeam::Get().journal.Last(), "the journal has no such entry");
}

TEST_F(FakeSeamTest, AQueryCanBeOfOneThread) {
    audio_set_master_mute(true);
    fake::OnPlatformThread([] {
        pthread_setname_np(pthread_self(), "Worker");
        audio_set_master_mute(false);
        SayAs("F");
    });
    SayAs("G");
    const fake::Query here = journal.Here();
    EXPECT_THAT(here.Texts(), ElementsAre("audio_set_master_mute(true)", "E got -1: a(b) > [c:d] e"));
    EXPECT_THAT(here.Calls().Texts(), ElementsAre("audio_set_master_mute(true)"));
    EXPECT_THAT(here.Logs().Lines(), ElementsAre("G: E got -1: a(b) > [c:d] e"));
    EXPECT_THAT(journal.Of("Worker").Texts(),
                ElementsAre("audio_set_master_mute(false)", "E got -1: a(b) > [c:d] e"));
    EXPECT_THAT(journal.Of("Worker").Logs().Lines(), ElementsAre("F: E got -1: a(b) > [c:d] e"));
    EXPECT_THAT(journal.Of(std::this_thread::get_id()).Texts(), here.Texts());
}

TEST_F(FakeSeamTest, TraceNamesLeaveOutTypesAndNamespace) {
    const auto trace = [](const char* signature) {
        __dlog_print(DLOG_DEBUG, "Kavrel", "%s: %s(%d) > [%s:%d] \t[OUT]%s\n", "H.h", "T", 1, "T", 1,
                     signature);
    };
    trace("static NKavrel::ISpeaker* NKavrel::ISpeaker::CreateSpeaker(int)");
    trace("virtual NKavrel::TVSpeaker::~TVSpeaker()");
    trace("int main(int, char**)");
    EXPECT_THAT(journal.Traces().Names(),
                ElementsAre("[OUT]ISpeaker::CreateSpeaker", "[OUT]TVSpeaker::~TVSpeaker", "[OUT]main"));
}

TEST_F(FakeSeamTest, AnyCallFailsAlwaysOrTheNthTimeWithAnyCode) {
    int value = 7;
    seam.Fail("audio_get_master_volume", -5, 2);
    EXPECT_EQ(audio_get_master_volume(&value), 0);
    EXPECT_EQ(value, 10);
    value = 7;
    EXPECT_EQ(audio_get_master_volume(&value), -5);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(audio_get_master_volume(&value), 0);

    seam.Fail("vconf_set_int(\"memory/a\", 3)", 99);
    EXPECT_EQ(vconf_set_int("memory/a", 3), 99);
    EXPECT_EQ(vconf_set_int("memory/a", 3), 99);
    EXPECT_FALSE(seam.Value("memory/a"));
    EXPECT_EQ(vconf_set_int("memory/a", 4), 0);
    seam.Succeed("vconf_set_int(\"memory/a\", 3)");
    EXPECT_EQ(vconf_set_int("memory/a", 3), 0);

    seam.Fail("AudioControl_getInstance", 0);
    EXPECT_EQ(AudioControl_getInstance(), nullptr);
}

TEST_F(FakeSeamTest, SettingsKeepTextAndNumbers) {
    int value = 1;
    EXPECT_NE(vconf_get_int("memory/a", &value), 0);
    EXPECT_EQ(vconf_get_str("memory/a"), nullptr);
    EXPECT_EQ(value, 1);
    seam.SetStr("memory/a", "junk");
    EXPECT_NE(vconf_get_int("memory/a", &value), 0);
    EXPECT_EQ(value, 1);
    seam.SetInt("memory/a", -2);
    EXPECT_EQ(vconf_get_int("memory/a", &value), 0);
    EXPECT_EQ(value, -2);
    char* text = vconf_get_str("memory/a");
    EXPECT_STREQ(text, "-2");
    free(text);
    seam.RemoveKey("memory/a");
    EXPECT_NE(vconf_get_int("memory/a", &value), 0);
}

TEST_F(FakeSeamTest, AChangedSettingIsReportedOnTheCallingThread) {
    vconf_notify_key_changed("memory/a", HearKey, &heard);
    vconf_set_int("memory/a", 3);
    vconf_set_int("memory/a", 3);
    vconf_set_str("memory/a", "text");
    EXPECT_THAT(heard.texts, ElementsAre("memory/a=3/3", "memory/a=-1/text"));
    EXPECT_EQ(heard.thread, std::this_thread::get_id());
    seam.ReportOwnChanges(false);
    vconf_set_int("memory/a", 4);
    EXPECT_EQ(heard.texts.size(), 2U);
}

TEST_F(FakeSeamTest, WatchesAreDistinguishedByKeyAndCallback) {
    ReceivedReports other;
    vconf_notify_key_changed("memory/a", HearKey, &other);
    vconf_notify_key_changed("memory/a", HearKeyToo, &other);
    vconf_notify_key_changed("memory/a", HearKey, &heard);
    EXPECT_EQ(seam.FireKey("memory/a", 5), 2);
    EXPECT_EQ(heard.texts.size(), 1U);
    EXPECT_EQ(other.texts.size(), 1U);
    EXPECT_EQ(vconf_ignore_key_changed("memory/a", HearKey), 0);
    EXPECT_NE(vconf_ignore_key_changed("memory/a", HearKey), 0);
    EXPECT_EQ(seam.FireKey("memory/a", 6), 1);
    EXPECT_EQ(heard.texts.size(), 1U);
}

TEST_F(FakeSeamTest, ATestMayReportANodeOfItsOwnMakingFromAnotherThread) {
    vconf_notify_key_changed("memory/a", HearKey, &heard);
    keynode_t nameless = {std::nullopt, 4, std::nullopt};
    fake::OnPlatformThread([&] { seam.FireNode("memory/a", &nameless); });
    EXPECT_THAT(heard.texts, ElementsAre("NULL=4/NULL"));
    EXPECT_NE(heard.thread, std::this_thread::get_id());
    EXPECT_FALSE(seam.Value("memory/a"));
}

TEST_F(FakeSeamTest, MuteReachesBothOfItsCallbacks) {
    ReceivedReports tv;
    audio_register_master_mute_changed_cb(HearNumber, &heard);
    sound_manager_set_tv_master_mute_changed_cb(HearNumber, &tv);
    audio_set_master_mute(true);
    audio_set_master_mute(true);
    EXPECT_THAT(heard.texts, ElementsAre("1"));
    EXPECT_THAT(tv.texts, ElementsAre("1"));
    seam.FireTvMasterMute(0);
    seam.FireMute(2);
    EXPECT_THAT(heard.texts, ElementsAre("1", "2"));
    EXPECT_THAT(tv.texts, ElementsAre("1", "0"));
    EXPECT_EQ(audio_unregister_master_mute_changed_cb(), 0);
    EXPECT_NE(audio_unregister_master_mute_changed_cb(), 0);
    EXPECT_EQ(seam.FireMute(0), 0);
}

TEST_F(FakeSeamTest, VolumeRouteAndZoneRouteAreReportedWhenTheyChange) {
    audio_register_master_volume_changed_cb(HearNumber, &heard);
    sound_manager_set_speaker_changed_cb(HearRoute, &heard);
    sound_manager_set_multiview_speaker_selection_changed_cb(HearZoneRoute, &heard);
    seam.SetZones({{1, 0}});
    audio_set_master_volume(10, 1);
    audio_set_master_volume(11, 1);
    sound_manager_set_speaker_selection(12);
    EXPECT_EQ(sound_manager_set_multiview_speaker_selection_with_zone_id(2, 1), 0);
    EXPECT_EQ(sound_manager_set_multiview_speaker_selection_with_zone_id(2, 9), -26607612);
    EXPECT_THAT(heard.texts, ElementsAre("11", "route 12", "zone 1 route 2"));
    int route = 0;
    EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, 1), 0);
    EXPECT_EQ(route, 2);
    EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, 9), -26607612);
}

TEST_F(FakeSeamTest, ZonesAreListedInOrderAndFocusFailsWithoutAZone) {
    seam.SetZones({{7, 0}, {2, 1}});
    rc_zone_list_h list = nullptr;
    ASSERT_EQ(rc_get_zone_list(&list), 0);
    std::vector<int> ids;
    for (rc_zone_h zone = nullptr; rc_get_next_zone(list, &zone) == 0;) {
        int id = -1;
        EXPECT_EQ(rc_get_zone_id(zone, &id), 0);
        ids.push_back(id);
    }
    rc_free_zone_list(list);
    EXPECT_THAT(ids, ElementsAre(2, 7));

    int focus = -1;
    EXPECT_NE(rc_get_audio_focus(&focus), 0);
    const int id = rc_register_audio_focus_changed_callback(HearFocus, &heard);
    EXPECT_GT(id, 0);
    seam.FireFocus(7);
    EXPECT_EQ(rc_get_audio_focus(&focus), 0);
    EXPECT_EQ(focus, 7);
    EXPECT_EQ(rc_unregister_audio_focus_changed_callback(id), 0);
    EXPECT_NE(rc_unregister_audio_focus_changed_callback(id), 0);
    EXPECT_THAT(heard.texts, ElementsAre("focus 7"));
}

TEST_F(FakeSeamTest, GainWritesAreKeptWithTheirTimesAndCanBeWaitedFor) {
    const auto begin = fake::Clock::now();
    std::thread writer([] {
        AudioControl* control = AudioControl_getInstance();
        control->set_main_out_gain2(5);
        control->set_sub_out_gain2(6);
    });
    EXPECT_TRUE(journal.With(fake::SubGain(6)).Wait());
    writer.join();
    EXPECT_THAT(journal.Gains().Texts(), ElementsAre(fake::MainGain(5), fake::SubGain(6)));
    EXPECT_GE(journal.Gains().First().time, begin);
    EXPECT_THAT(journal.Gains(fake::Out::SUB).Numbers(), ElementsAre(6));
    EXPECT_EQ(seam.MainGainValue(), 5);
    EXPECT_EQ(seam.SubGainValue(), 6);
    EXPECT_FALSE(journal.With(fake::MainGain(7)).Wait(1, std::chrono::milliseconds(1)));
}

TEST_F(FakeSeamTest, ACallCanBeHeldAndOthersGoOnMeanwhile) {
    auto blocked = seam.BlockNext("audio_set_master_volume(1, 1)");
    std::atomic<bool> done = false;
    std::thread caller([&] {
        audio_set_master_volume(1, 1);
        done = true;
    });
    ASSERT_TRUE(blocked.WaitReached());
    audio_set_master_volume(2, 1);
    EXPECT_EQ(seam.Volume(), 2);
    EXPECT_FALSE(done);
    blocked.Open();
    caller.join();
    EXPECT_EQ(seam.Volume(), 1);
    audio_set_master_volume(1, 1);
}

TEST_F(FakeSeamTest, CodeRunsInsideACallOrALogLineBeforeItTakesEffect) {
    std::vector<int> seen;
    seam.Before("audio_set_master_volume", [&] { seen.push_back(seam.Volume()); });
    seam.BeforeNext("E got -1: a(b) > [c:d] e", [&] { audio_set_master_volume(20, 1); });
    SayAs("F");
    SayAs("F");
    audio_set_master_volume(30, 1);
    EXPECT_THAT(seen, ElementsAre(10, 20));
    EXPECT_EQ(journal.With("E got -1: a(b) > [c:d] e").Count(), 2);
}

TEST_F(FakeSeamTest, WaitingForALogLineEndsWithItOrWithTheTime) {
    std::thread speaker([] { SayAs("F"); });
    EXPECT_TRUE(journal.With("E got -1: a(b) > [c:d] e").Wait());
    speaker.join();
    EXPECT_FALSE(journal.With("E never").Wait(1, std::chrono::milliseconds(1)));
    EXPECT_FALSE(journal.With("E got -1: a(b) > [c:d] e").Wait(2, std::chrono::milliseconds(1)));
}

TEST_F(FakeSeamTest, ACallOutsideTheSeamEntersTheJournalRunsHooksAndMayFail) {
    int hooks = 0;
    seam.Before("g_thing", [&] { ++hooks; });
    EXPECT_EQ(seam.Enter("g_thing", "1, x"), std::nullopt);
    seam.Fail("g_thing", -3, 1);
    EXPECT_EQ(seam.Enter("g_thing", ""), -3);
    EXPECT_THAT(journal.Calls().Texts(), ElementsAre("g_thing(1, x)", "g_thing()"));
    EXPECT_EQ(hooks, 2);
}

TEST_F(FakeSeamTest, LogLinesCanBeDropped) {
    journal.DropLogLines(true);
    SayAs("F");
    audio_set_master_mute(true);
    EXPECT_THAT(journal.Texts(), ElementsAre("audio_set_master_mute(true)"));
    journal.DropLogLines(false);
    SayAs("F");
    EXPECT_THAT(journal.Logs().Texts(), testing::SizeIs(1));
}

TEST_F(FakeSeamTest, EventsAreDoneUntilTheyAreReset) {
    EXPECT_EQ(LwipcIsDone("/tmp/.x"), 0);
    EXPECT_EQ(LwipcEventDone("/tmp/.x"), 0);
    EXPECT_EQ(LwipcIsDone("/tmp/.x"), 1);
    EXPECT_EQ(LwipcResetEvent("/tmp/.x"), 0);
    EXPECT_FALSE(seam.Event("/tmp/.x"));
    seam.SetEvent("/tmp/.x", true);
    EXPECT_EQ(LwipcIsDone("/tmp/.x"), 1);
    seam.Fail("LwipcIsDone", -7);
    EXPECT_EQ(LwipcIsDone("/tmp/.x"), -7);
}

TEST_F(FakeSeamTest, ManyThreadsMayUseItAtOnce) {
    constexpr int rounds = 200;
    vconf_notify_key_changed(
        "memory/a", [](keynode_t*, void*) { SayAs("F"); }, nullptr);
    const auto work = [] {
        for (int i = 1; i <= rounds; ++i) {
            vconf_set_int("memory/a", i);
            AudioControl_getInstance()->set_main_out_gain2(i);
            SayAs("F");
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    EXPECT_EQ(journal.Calls("set_main_out_gain2").Texts().size(), 2U * rounds);
    EXPECT_GE(journal.Logs().Texts().size(), 2U * rounds);
}

}  // namespace
