// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Reports of changes: which callback hears one, when, and on which thread. Other processes share the TV.
 *
 * To show that a change is not reported no test waits for time to pass: notifications come in order, so once
 * a later change has been reported, every earlier one has been handled (see Settle).
 */
#include <audio_control.h>
#include <audio_hal.h>
#include <dlog.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <sys/inotify.h>
#include <system_info.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "HostTest.h"

namespace fs = std::filesystem;
using host_test::Ear;
using host_test::Folder;
using host_test::OtherProcess;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

/** Makes this process's TV: the platform looks at KAVREL_TV_DIR once. */
class TvEnvironment : public testing::Environment {
public:
    void SetUp() override {
        s_folder = std::make_unique<Folder>();
        setenv("KAVREL_TV_DIR", s_folder->Path().c_str(), 1);
        int volume = 0;
        ASSERT_EQ(audio_get_master_volume(&volume), 0);  // the first call fills the directory
    }
    void TearDown() override { s_folder.reset(); }

    static const Folder& Get() { return *s_folder; }

private:
    static inline std::unique_ptr<Folder> s_folder;
};

[[maybe_unused]] const auto* const environment =
    testing::AddGlobalTestEnvironment(std::make_unique<TvEnvironment>().release());

using Action = std::function<void()>;

/** The user data of a registration: it notes in `ear` what it hears, then it acts. */
struct Listener {
    Ear& ear;
    std::string name;
    Action act = nullptr;

    void Hear(const std::string& what) const {
        ear.Hear(name + what);
        if (act) {
            act();
        }
    }
};

/** A report that lasts until the thread that must wait for it sleeps, or has not waited. Its last act may be an action. */
class ReportInFlight {
public:
    explicit ReportInFlight(Listener& listener, const Action& last = nullptr) : m_listener(listener) {
        listener.act = [this, last] {
            m_running.count_down();
            while (m_caller == 0 || !(m_hasCalled || host_test::IsAsleep(m_caller))) {
                std::this_thread::yield();
            }
            if (last) {
                last();
            }
            m_hasReturned = true;
        };
    }
    ~ReportInFlight() { m_listener.act = nullptr; }
    ReportInFlight(const ReportInFlight&) = delete;
    ReportInFlight& operator=(const ReportInFlight&) = delete;

    /** Makes a call on another thread while the report is in flight, and expects it to return after the report. */
    void ExpectWait(const Action& call) {
        m_running.wait();
        std::thread thread([&] {
            m_caller = gettid();
            call();
            m_hasCalled = true;
            EXPECT_TRUE(m_hasReturned);
        });
        thread.join();
    }

private:
    Listener& m_listener;
    std::latch m_running{1};
    std::atomic<pid_t> m_caller = 0;
    std::atomic<bool> m_hasCalled = false;
    std::atomic<bool> m_hasReturned = false;
};

const Listener& From(void* data) {
    return *static_cast<Listener*>(data);
}

void OnValue(unsigned int value, void* data) {
    From(data).Hear(std::to_string(value));
}
void OnNumber(int value, void* data) {
    From(data).Hear(std::to_string(value));
}
void OnZoneRoute(int route, int zone, void* data) {
    From(data).Hear(std::to_string(zone) + ':' + std::to_string(route));
}
void OnKey(keynode_t* node, void* data) {
    From(data).Hear(vconf_keynode_get_str(node));
}
void OnKeyToo(keynode_t* node, void* data) {
    OnKey(node, data);
}
void OnMark(keynode_t* node, void* data) {
    OnKey(node, data);
}

std::string Text(const char* key) {
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key), &std::free);
    return text ? text.get() : "(null)";
}

/** Runs `meanwhile` inside a report on this thread: the platform thread cannot report until it returns. */
void WhileReporting(const Action& meanwhile) {
    Ear ignored;
    Listener busy{ignored, "", meanwhile};
    static int count = 0;
    ASSERT_EQ(vconf_notify_key_changed("memory/busy", OnKey, &busy), 0);
    ASSERT_EQ(vconf_set_int("memory/busy", ++count), 0);
    ASSERT_EQ(vconf_ignore_key_changed("memory/busy", OnKey), 0);
}

class ReportsTest : public testing::Test {
protected:
    static constexpr const char* KEY = "memory/key";
    static constexpr const char* OTHER = "memory/other";

    ReportsTest() {
        fs::remove(tv / "settings/memory/key");
        fs::remove(tv / "settings/memory/other");
        EXPECT_EQ(audio_set_master_volume(10, 0), 0);
    }
    ~ReportsTest() override {
        audio_unregister_master_volume_changed_cb();
        audio_unregister_master_mute_changed_cb();
        sound_manager_unset_speaker_changed_cb();
        sound_manager_unset_multiview_speaker_selection_changed_cb();
        sound_manager_unset_tv_master_mute_changed_cb();
        for (const std::string& key : m_keys) {
            vconf_ignore_key_changed(key.c_str(), OnKey);
            vconf_ignore_key_changed(key.c_str(), OnKeyToo);
        }
    }

    void HearVolume(Listener& listener) {
        ASSERT_EQ(audio_register_master_volume_changed_cb(OnValue, &listener), 0);
    }
    void HearKey(const std::string& key, Listener& listener, vconf_callback_fn callback = OnKey) {
        m_keys.insert(key);
        ASSERT_EQ(vconf_notify_key_changed(key.c_str(), callback, &listener), 0);
    }
    /**
     * Waits until the platform thread has handled everything that happened on the TV before. Each mark has a
     * key of its own, so that no older notification finds it too early. It takes three marks: when everything
     * is read again, the first one may be found before values that come after it, or before a new zone's route.
     */
    void Settle() {
        static int count = 0;
        for (int i = 0; i < 3; ++i) {
            const std::string key = "memory/mark" + std::to_string(++count);
            ASSERT_EQ(vconf_notify_key_changed(key.c_str(), OnMark, &m_mark), 0);
            ASSERT_EQ(other.Do("set-text " + key + ' ' + key), "0");
            m_markEar.WaitFor(key);
            ASSERT_EQ(vconf_ignore_key_changed(key.c_str(), OnMark), 0);
            fs::remove(tv / "settings" / key);
        }
    }
    /** Has the other process do what the line says. "focus N" is an echo: the seam has no call that sets it. */
    void Change(const std::string& what) {
        constexpr std::string_view FOCUS = "focus ";
        if (what.starts_with(FOCUS)) {
            tv.Echo("zones/focus", what.substr(FOCUS.size()));
        } else {
            ASSERT_EQ(other.Do(what), "0");
        }
    }
    /** Returns when the platform thread of a process has handled all that happened on its TV before. */
    void LetNotice(OtherProcess& process, const Folder& place) {
        ASSERT_EQ(process.Do("hear memory/mark"), "0");
        OtherProcess marker(place);
        const std::string mark = "memory/mark " + std::to_string(++m_marks);
        ASSERT_EQ(marker.Do("set-int " + mark), "0");
        ASSERT_EQ(process.Report(), mark + " platform");
    }
    void ExpectTheEchoWhenItIsClosed(const std::function<void()>& meanwhile) {
        HearVolume(listener);
        std::ofstream file(tv / "audio/master_volume");
        file << 4 << std::flush;
        meanwhile();
        Settle();
        EXPECT_THAT(ear.Heard(), IsEmpty());
        file << 2 << std::endl;
        file.close();
        Settle();
        EXPECT_THAT(ear.Heard(), ElementsAre("42"));
    }
    /** @return the platform thread of the process, as soon as it sleeps */
    static pid_t AwaitSleep(OtherProcess& process) {
        const pid_t thread = host_test::ThreadOf(process.Process(), "tv-platform");
        while (!host_test::IsAsleep(thread)) {
            std::this_thread::yield();
        }
        return thread;
    }
    /** Acts, and returns when that has woken the platform thread and it sleeps again. */
    static void ActAndAwaitSleep(OtherProcess& process, const std::function<void()>& act) {
        const pid_t thread = AwaitSleep(process);
        const int before = host_test::Sleeps(process.Process(), thread);
        act();
        while (host_test::Sleeps(process.Process(), thread) == before || !host_test::IsAsleep(thread)) {
            std::this_thread::yield();
        }
    }
    static void Unmount(OtherProcess& process, const std::string& folder) {
        // The platform thread may be reading. The watchdog ends an endless wait.
        while (process.Do("unmount " + folder) != "0") {
            std::this_thread::yield();
        }
    }
    /** Makes a listener that lives until the fixture has removed all registrations. */
    Listener& NewListener(const std::string& name, const Action& act = nullptr) {
        return m_listeners.emplace_back(Listener{ear, name, act});
    }

    const Folder& tv = TvEnvironment::Get();
    OtherProcess other{tv};
    Ear ear;
    Listener listener{ear, ""};

private:
    int m_marks = 0;
    std::deque<Listener> m_listeners;
    Ear m_markEar;
    Listener m_mark{m_markEar, ""};
    std::set<std::string> m_keys;
};

// --- Own changes and those of others

TEST_F(ReportsTest, AnOwnChangeIsReportedOnceBeforeTheCallReturnsOnItsThread) {
    HearVolume(listener);
    EXPECT_EQ(audio_set_master_volume(30, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("30"));
    EXPECT_THAT(ear.Threads(), ElementsAre(std::this_thread::get_id()));
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("30"));
}

TEST_F(ReportsTest, AnothersChangeIsReportedOnThePlatformThread) {
    Listener& route = NewListener("route ");
    HearVolume(listener);
    ASSERT_EQ(sound_manager_set_speaker_changed_cb(OnNumber, &route), 0);
    EXPECT_EQ(other.Do("set-volume 31"), "0");
    EXPECT_EQ(other.Do("set-route 7"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("31", "route 7"));
    EXPECT_NE(ear.Threads().front(), std::this_thread::get_id());
    EXPECT_THAT(ear.Threads(), Each(ear.Threads().front()));
    EXPECT_EQ(other.Do("set-route 0"), "0");
}

TEST_F(ReportsTest, EveryProcessHearsEveryOther) {
    OtherProcess second(tv);
    EXPECT_EQ(other.Do("hear volume"), "0");
    EXPECT_EQ(second.Do("hear volume"), "0");
    EXPECT_EQ(audio_set_master_volume(33, 0), 0);
    EXPECT_EQ(other.Report(), "volume 33 platform");
    EXPECT_EQ(second.Report(), "volume 33 platform");
    EXPECT_EQ(second.Do("set-volume 34"), "0");
    EXPECT_EQ(second.Report(), "volume 34 own");
    EXPECT_EQ(other.Report(), "volume 34 platform");
}

TEST_F(ReportsTest, AnEqualValueIsWrittenButNotReported) {
    HearVolume(listener);
    std::ofstream(tv / "audio/master_volume") << " 10";
    EXPECT_EQ(audio_set_master_volume(10, 0), 0);
    EXPECT_EQ(tv.Content("audio/master_volume"), "10\n");
    EXPECT_EQ(other.Do("set-volume 10"), "0");
    tv.Echo("audio/master_volume", "10 ");
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
}

TEST_F(ReportsTest, ReportsComeInTheOrderOfTheWrites) {
    HearVolume(listener);
    HearKey(KEY, listener);
    std::vector<std::string> expected;
    for (int i = 11; i < 100; ++i) {
        expected.push_back(std::to_string(i));
        expected.push_back("key " + std::to_string(i));
        EXPECT_EQ(audio_set_master_volume(i, 0), 0);
        EXPECT_EQ(vconf_set_str(KEY, expected.back().c_str()), 0);
    }
    EXPECT_EQ(ear.Heard(), expected);
}

TEST_F(ReportsTest, AnothersQuickChangesNeverGoBackAndEndWithTheLast) {
    HearVolume(listener);
    ASSERT_EQ(other.Do("volume-storm 101"), "0");  // 0, 1, 2 ... 100
    Settle();
    int last = -1;
    for (const std::string& value : ear.Heard()) {
        EXPECT_GT(std::stoi(value), last);
        last = std::stoi(value);
    }
    EXPECT_EQ(last, 100);
}

TEST_F(ReportsTest, OnlyChangesSinceTheRegistrationAreReported) {
    EXPECT_EQ(other.Do("set-volume 50"), "0");
    HearVolume(listener);
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
    EXPECT_EQ(other.Do("set-volume 10"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("10"));
}

TEST_F(ReportsTest, MasterMuteIsOneValueForBothInterfaces) {
    Listener& hal = NewListener("hal ");
    Listener& manager = NewListener("manager ");
    ASSERT_EQ(audio_set_master_mute(false), 0);
    ASSERT_EQ(audio_register_master_mute_changed_cb(OnValue, &hal), 0);
    ASSERT_EQ(sound_manager_set_tv_master_mute_changed_cb(OnValue, &manager), 0);
    EXPECT_EQ(audio_set_master_mute(true), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("hal 1", "manager 1"));
    EXPECT_EQ(audio_unregister_master_mute_changed_cb(), 0);
    EXPECT_EQ(other.Do("set-mute 0"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("hal 1", "manager 1", "manager 0"));
}

TEST_F(ReportsTest, ThePersonsEchoCountsWhenTheFileIsClosed) {
    ExpectTheEchoWhenItIsClosed([] {});
}

/** A part of the name, taken for a notification, would say that notifications were lost. */
TEST_F(ReportsTest, NotificationsOfOtherFilesHaveNoFileReadAgain) {
    ExpectTheEchoWhenItIsClosed([this] { tv.Echo("audio/a_file_of_nobody", "1"); });
    fs::remove(tv / "audio/a_file_of_nobody");
}

/** The platform looks at the file meanwhile for other reasons. */
TEST_F(ReportsTest, AnEchoAtWorkIsNoEmptyText) {
    EXPECT_EQ(vconf_set_str(KEY, "old"), 0);
    HearKey(KEY, listener);
    std::ofstream file(tv / "settings/memory/key");
    fs::create_directory(tv / "settings/memory/folder");
    fs::remove(tv / "settings/memory/folder");
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
    file << "new" << std::endl;
    file.close();
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("new"));
    testing::internal::CaptureStderr();
    WhileReporting([&] {
        tv.Echo("settings/memory/key", "one");
        file.open(tv / "settings/memory/key");
    });
    Settle();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E Cannot read " + (tv / "settings/memory/key").string() + ": No data available\n");
    file << "two" << std::endl;
    file.close();
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("new", "two"));
}

TEST_F(ReportsTest, AFileMovedIntoPlaceCounts) {
    HearVolume(listener);
    tv.Echo("audio/edited~", "43");
    fs::rename(tv / "audio/edited~", tv / "audio/master_volume");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("43"));
}

TEST_F(ReportsTest, JunkAndRemovalAreNotReportedNorIsAnEqualValueThatReturns) {
    HearVolume(listener);
    testing::internal::CaptureStderr();
    tv.Echo("audio/master_volume", "loud");
    Settle();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E Cannot read " + (tv / "audio/master_volume").string() + ": not a valid value\n");
    fs::remove(tv / "audio/master_volume");
    Settle();
    EXPECT_EQ(other.Do("set-volume 10"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
    fs::remove(tv / "audio/master_volume");
    EXPECT_EQ(audio_set_master_volume(10, 0), 0);
    EXPECT_THAT(ear.Heard(), IsEmpty());
    fs::remove(tv / "audio/master_volume");
    EXPECT_EQ(audio_set_master_volume(11, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("11"));
}

TEST_F(ReportsTest, AnErrorIsLoggedOnceHoweverOftenTheFileWasWrittenMeanwhile) {
    HearVolume(listener);
    HearKey(OTHER, listener);
    testing::internal::CaptureStderr();
    WhileReporting([&] {
        for (int i = 0; i < 3; ++i) {
            tv.Echo("audio/master_volume", "loud");
            tv.Echo("settings/memory/other", "1");  // so that the kernel does not merge the notifications
        }
    });
    Settle();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E Cannot read " + (tv / "audio/master_volume").string() + ": not a valid value\n");
}

TEST_F(ReportsTest, AFileThatWasWrittenIsLoggedThoughItWasToBeReadAgainAnyway) {
    const fs::path loop = tv / "settings/memory/loop";
    fs::create_directory_symlink("loop", loop);
    HearVolume(listener);
    HearKey("memory/loop/key", listener);
    HearKey(KEY, listener);
    testing::internal::CaptureStderr();
    WhileReporting([&] {
        fs::create_directory(tv / "settings/memory/folder");  // has all values read again, too
        tv.Echo("audio/master_volume", "loud");
        fs::remove(loop);
        // Finds the loop gone, and has all values read again.
        EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
    });
    Settle();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E Cannot read " + (tv / "audio/master_volume").string() + ": not a valid value\n");
    fs::remove(tv / "settings/memory/folder");
}

TEST_F(ReportsTest, ANodeGivesASettingAsTextAndAsInteger) {
    struct Node {
        std::string name, text;
        int number;
    } heard;
    const auto look = [](keynode_t* node, void* data) {
        *static_cast<Node*>(data) = {vconf_keynode_get_name(node), vconf_keynode_get_str(node),
                                     vconf_keynode_get_int(node)};
    };
    ASSERT_EQ(vconf_notify_key_changed(KEY, look, &heard), 0);
    EXPECT_EQ(vconf_set_int(KEY, -12), 0);
    EXPECT_EQ(heard.name, KEY);
    EXPECT_EQ(heard.text, "-12");
    EXPECT_EQ(heard.number, -12);
    testing::internal::CaptureStderr();
    EXPECT_EQ(vconf_set_str(KEY, "a\nb\n"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E No integer in " + (tv / "settings/memory/key").string() + '\n');
    EXPECT_EQ(heard.text, "a\nb\n");
    EXPECT_EQ(heard.number, -1);
    EXPECT_EQ(vconf_ignore_key_changed(KEY, look), 0);
    EXPECT_EQ(vconf_keynode_get_name(nullptr), nullptr);
    EXPECT_EQ(vconf_keynode_get_str(nullptr), nullptr);
    EXPECT_EQ(vconf_keynode_get_int(nullptr), -1);
}

TEST_F(ReportsTest, AnyTextComesBackAsItWas) {
    for (const std::string& text : {std::string(), std::string("\n"), std::string("\n\n a\t\n"),
                                    std::string("\xFF\xFE"), std::string(1024 * 1024, '\n')}) {
        ASSERT_EQ(vconf_set_str("db/text", text.c_str()), 0);
        EXPECT_TRUE(Text("db/text") == text);
    }
}

TEST_F(ReportsTest, ATextThatIsTooLongForAReaderIsRefused) {
    HearKey(KEY, listener);
    ASSERT_EQ(vconf_set_str(KEY, "short"), 0);
    Settle();
    testing::internal::CaptureStderr();
    EXPECT_EQ(vconf_set_str(KEY, std::string((1 << 20) + 1, 'x').c_str()), -1027);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "E Cannot write " + (tv / "settings/memory/key").string() + ": File too large\n");
    EXPECT_EQ(Text(KEY), "short");
    EXPECT_THAT(ear.Heard(), ElementsAre("short"));
    const std::string longest(1 << 20, 'x');
    EXPECT_EQ(vconf_set_str(KEY, longest.c_str()), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("short", longest));
}

TEST_F(ReportsTest, AnEventThatIsDoneIsFoundWhateverFailedBefore) {
    ASSERT_EQ(LwipcEventDone("event"), 0);
    errno = EACCES;
    EXPECT_EQ(LwipcIsDone("event"), 1);
}

TEST_F(ReportsTest, EveryZonesRouteIsReportedThatOfALaterZoneToo) {
    Listener& zones = NewListener("");
    fs::remove_all(tv / "sound/zones");
    tv.Echo("sound/zones/1/route", "4");
    ASSERT_EQ(sound_manager_set_multiview_speaker_selection_changed_cb(OnZoneRoute, &zones), 0);
    EXPECT_EQ(sound_manager_set_multiview_speaker_selection_with_zone_id(5, 1), 0);
    EXPECT_EQ(other.Do("set-zone-route 1 6"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1:5", "1:6"));
    ear.Forget();

    fs::create_directory(tv / "sound/zones/-2");
    EXPECT_EQ(sound_manager_set_multiview_speaker_selection_with_zone_id(7, -2), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("-2:7"));
    tv.Echo("sound/zones/30/route", "8");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("-2:7", "30:8"));
    ear.Forget();

    fs::remove_all(tv / "sound/zones");
    tv.Echo("sound/zones/30/route", "8");  // the last route that this process knows
    tv.Echo("sound/zones/1/route", "9");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1:9"));
}

TEST_F(ReportsTest, FocusHasAnyNumberOfRegistrations) {
    Listener& one = NewListener("one ");
    Listener& two = NewListener("two ");
    const int first = rc_register_audio_focus_changed_callback(OnNumber, &one);
    const int second = rc_register_audio_focus_changed_callback(OnNumber, &two);
    EXPECT_GT(first, 0);
    EXPECT_GT(second, 0);
    EXPECT_NE(first, second);
    tv.Echo("zones/focus", "1");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "two 1"));
    EXPECT_EQ(rc_unregister_audio_focus_changed_callback(first), 0);
    EXPECT_NE(rc_unregister_audio_focus_changed_callback(first), 0);
    tv.Echo("zones/focus", "2");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "two 1", "two 2"));
    EXPECT_EQ(rc_unregister_audio_focus_changed_callback(second), 0);
}

// --- Own changes that cross another's

TEST_F(ReportsTest, ASetterDeliversNothingElseThatIsPending) {
    HearVolume(listener);
    HearKey(KEY, listener);
    WhileReporting([&] {
        EXPECT_EQ(other.Do("set-volume 60"), "0");
        EXPECT_EQ(vconf_set_str(KEY, "own"), 0);
        EXPECT_THAT(ear.Heard(), ElementsAre("own"));
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("own", "60"));
    EXPECT_NE(ear.Threads().back(), std::this_thread::get_id());
}

TEST_F(ReportsTest, AnOwnChangeFromAPendingValueIsReportedThoughItEqualsTheLastOneHeard) {
    HearVolume(listener);
    WhileReporting([&] {
        EXPECT_EQ(other.Do("set-volume 20"), "0");
        EXPECT_EQ(audio_set_master_volume(10, 0), 0);
        EXPECT_THAT(ear.Heard(), ElementsAre("10"));
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("10"));
}

TEST_F(ReportsTest, AnOwnWriteOfAPendingValueLeavesItsReportToThePlatformThread) {
    HearVolume(listener);
    WhileReporting([&] {
        EXPECT_EQ(other.Do("set-volume 20"), "0");
        EXPECT_EQ(audio_set_master_volume(20, 0), 0);
        EXPECT_THAT(ear.Heard(), IsEmpty());
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("20"));
    EXPECT_NE(ear.Threads().front(), std::this_thread::get_id());
}

TEST_F(ReportsTest, AChangeAfterAnOwnOneIsReportedThoughItWasWrittenBeforeItsNotification) {
    HearVolume(listener);
    WhileReporting([&] {
        EXPECT_EQ(audio_set_master_volume(20, 0), 0);
        EXPECT_EQ(other.Do("set-volume 30"), "0");
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("20", "30"));
}

/** Another process on a TV of its own, which hears the volume, was quiet until now, and knows it as 20. */
class CrossingTest : public ReportsTest {
protected:
    CrossingTest() {
        EXPECT_EQ(process.Do("hear volume"), "0");
        EXPECT_EQ(process.Do("set-volume 20"), "0");
        EXPECT_EQ(process.Report(), "volume 20 own");
    }

    /** Lets a change fall right before or after the moment at which the process's next volume gets its place. */
    void Cross(const std::string& when, const std::string& what) {
        ASSERT_EQ(process.Do("cross " + when + " move " + file + ' ' + what), "0");
    }

    void LetItNotice() { LetNotice(process, place); }

    const Folder place;
    const std::string file = place / "audio/master_volume";
    OtherProcess process{place};
};

TEST_F(CrossingTest, AChangeBetweenAnOwnWriteAndItsNotificationIsReportedAfterIt) {
    for (const std::string how : {"move", "echo"}) {
        ASSERT_EQ(process.Do("cross after " + how + ' ' + file + " 40"), "0");
        EXPECT_EQ(process.Do("set-volume 30"), "0");
        EXPECT_EQ(process.Report(), "volume 30 own") << how;
        EXPECT_EQ(process.Report(), "volume 40 platform") << how;
    }
    EXPECT_EQ(process.Do("volume"), "0 40");
}

TEST_F(CrossingTest, AnOwnWriteIsNewsIfItDiffersFromTheTextThatItReplaced) {
    Cross("before", "40");
    EXPECT_EQ(process.Do("set-volume 20"), "0");
    EXPECT_EQ(process.Report(), "volume 20 own");
    EXPECT_EQ(process.Do("set-volume 21"), "0");
    EXPECT_EQ(process.Report(), "volume 21 own");
}

TEST_F(CrossingTest, AnOwnWriteOfTheTextThatItReplacedLeavesTheReportToThePlatformThread) {
    for (const std::string text : {"40", "41 "}) {  // a person may leave a blank behind the number
        Cross("before", text);
        EXPECT_EQ(process.Do("set-volume " + text), "0");
        EXPECT_EQ(process.Report(), "volume " + text.substr(0, 2) + " platform");
        LetItNotice();
    }
}

TEST_F(CrossingTest, WhatIsNoFileInTheValuesPlaceIsReplacedUnread) {
    ASSERT_EQ(process.Do("cross before pipe " + file), "0");
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_EQ(process.Report(), "volume 30 own");
    LetItNotice();
    ASSERT_EQ(process.Do("cross before link " + file + " 31"), "0");
    EXPECT_EQ(process.Do("set-volume 31"), "0");
    EXPECT_EQ(process.Report(), "volume 31 own");
}

TEST_F(CrossingTest, AFolderThatWasReplacedIsWrittenNoMore) {
    LetItNotice();
    ASSERT_EQ(process.Do("set-volume 21"), "0");
    EXPECT_EQ(process.Report(), "volume 21 own");
    place.Echo("next/master_volume", "40");
    ASSERT_EQ(
        renameat2(AT_FDCWD, (place / "next").c_str(), AT_FDCWD, (place / "audio").c_str(), RENAME_EXCHANGE),
        0);
    EXPECT_EQ(process.Report(), "volume 40 platform");
    LetItNotice();
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_EQ(process.Report(), "volume 30 own");
    EXPECT_EQ(place.Content("audio/master_volume"), "30\n");
    EXPECT_EQ(place.Content("next/master_volume"), "21\n");
}

/** The lines that begin so in the kernel's description of the open files of a process. */
std::vector<std::string> FileLines(pid_t process, std::string_view beginning) {
    std::vector<std::string> lines;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fdinfo")) {
        std::ifstream stream(entry.path());
        for (std::string line; std::getline(stream, line);) {
            if (line.starts_with(beginning)) {
                lines.push_back(line);
            }
        }
    }
    return lines;
}

/** How often somebody has woken the platform thread of a process since it looked last. */
std::string WakesOf(pid_t process) {
    const std::vector<std::string> lines = FileLines(process, "eventfd-count:");
    return lines.size() == 1 ? lines[0].substr(lines[0].find_last_of(" \t") + 1) : "no such file";
}

TEST_F(CrossingTest, AFolderThatWasReplacedIsWatchedNoMore) {
    LetItNotice();  // so that the folder of the mark is watched, too
    const std::size_t watches = FileLines(process.Process(), "inotify wd:").size();
    ASSERT_GT(watches, 0U);
    for (const std::string volume : {"30", "40"}) {
        fs::rename(place / "audio", place / ("with " + volume));
        place.Echo("audio/master_volume", volume);
        EXPECT_EQ(process.Report(), "volume " + volume + " platform");
        LetItNotice();
    }
    EXPECT_THAT(FileLines(process.Process(), "inotify wd:"), SizeIs(watches));
}

TEST_F(CrossingTest, ThePlatformThreadIsWokenOnceByEachWriterThatHasItLook) {
    Cross("after", "40");
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_EQ(process.Report(), "volume 30 own");
    EXPECT_EQ(process.Report(), "volume 40 platform");
    LetItNotice();
    EXPECT_EQ(WakesOf(process.Process()), "0");
}

TEST_F(CrossingTest, AFolderThatTakesTheValuesPlaceInTheLastMomentStays) {
    ASSERT_EQ(process.Do("cross before folder " + file), "0");
    EXPECT_EQ(process.Do("set-volume 30"), "-1021");
    EXPECT_TRUE(fs::is_directory(file));
    EXPECT_THAT(process.TakeReports(), IsEmpty());
    EXPECT_THAT(process.Log(), Contains("E Cannot write " + file + ": Is a directory"));
    EXPECT_THAT(place.Leftovers("."), IsEmpty());
    fs::remove(file);
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_EQ(process.Report(), "volume 30 own");
}

TEST_F(CrossingTest, AFolderInTheValuesPlaceStaysAtEveryWrite) {
    fs::remove(file);
    fs::create_directory(file);
    place.Echo("audio/master_volume/precious", "1");
    LetItNotice();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(process.Do("set-volume 30"), "-1021");
    }
    EXPECT_EQ(place.Content("audio/master_volume/precious"), "1\n");
    EXPECT_THAT(process.Log(), Each("E Cannot write " + file + ": Is a directory"));
    EXPECT_THAT(place.Leftovers("."), IsEmpty());
}

TEST_F(CrossingTest, AFileLinkedIntoTheValuesPlaceIsThePresentValue) {
    place.Echo("forty", "40");
    for (const std::string when : {"before", "after"}) {
        fs::remove(file);
        fs::create_hard_link(place / "forty", file);
        if (when == "after") {
            LetItNotice();
        }
        EXPECT_EQ(process.Do("set-volume 20"), "0");
        EXPECT_EQ(process.Report(), "volume 20 own") << when << " the platform thread has noticed";
        LetItNotice();
    }
    EXPECT_EQ(place.Content("forty"), "40\n");
}

TEST_F(CrossingTest, ALinkInTheValuesPlaceIsFollowedByReadsAndReplacedByAWrite) {
    place.Echo("audio/forty", "40");
    fs::remove(file);
    fs::create_symlink("forty", file);
    LetItNotice();
    EXPECT_EQ(process.Do("volume"), "0 40");
    EXPECT_EQ(process.Do("set-volume 20"), "0");
    EXPECT_EQ(process.Report(), "volume 20 own");
    EXPECT_FALSE(fs::is_symlink(file));
    EXPECT_EQ(place.Content("audio/forty"), "40\n");
}

TEST_F(CrossingTest, AnEqualOwnWriteIsNoNews) {
    LetItNotice();
    EXPECT_EQ(process.Do("set-volume 20"), "0");
    EXPECT_EQ(process.Do("set-volume 21"), "0");
    EXPECT_THAT(process.TakeReports(), ElementsAre("volume 21 own"));
}

TEST_F(CrossingTest, ThePresentValueOfALinkIsThatOfTheFileItLeadsTo) {
    LetItNotice();
    for (const std::string volume : {"21", "20"}) {
        EXPECT_EQ(process.Do("set-volume " + volume), "0");
        EXPECT_EQ(process.Report(), "volume " + volume + " own");
    }
    place.Echo("events/elsewhere", "40");
    fs::create_symlink("../events/elsewhere", place / "audio/link");
    fs::rename(place / "audio/link", file);
    EXPECT_EQ(process.Report(), "volume 40 platform");
    LetItNotice();
    place.Echo("events/elsewhere", "50");  // which nobody notices
    EXPECT_EQ(process.Do("set-volume 50"), "0");
    EXPECT_EQ(process.Report(), "volume 50 platform") << "the change was not this process's own";
}

TEST_F(CrossingTest, AFolderThatCannotBeReadStaysInTheValuesPlaceToo) {
    LetItNotice();
    ASSERT_EQ(process.Do("drop-capabilities"), "0");
    ASSERT_EQ(process.Do("cross before lock " + file), "0");
    EXPECT_NE(process.Do("set-volume 30"), "0");
    EXPECT_TRUE(fs::is_directory(file));
    EXPECT_THAT(process.TakeReports(), IsEmpty());
}

TEST_F(CrossingTest, AnUnfinishedFileThatWasReplacedSaysNothing) {
    ASSERT_EQ(process.Do("set-text memory/key a"), "0");
    ASSERT_EQ(process.Do("hear memory/key"), "0");
    LetItNotice();
    ASSERT_EQ(process.Do("cross before empty " + (place / "settings/memory/key").string()), "0");
    EXPECT_EQ(process.Do("set-text memory/key a"), "0");
    EXPECT_THAT(process.TakeReports(), IsEmpty());
}

TEST_F(CrossingTest, AFolderThatGoesInTheLastMomentIsMadeAgain) {
    ASSERT_EQ(process.Do("set-int memory/going/key 1"), "0");
    ASSERT_EQ(process.Do("cross before remove " + (place / "settings/memory/going/key").string()), "0");
    EXPECT_EQ(process.Do("set-int memory/going/key 2"), "0");
    EXPECT_EQ(place.Content("settings/memory/going/key"), "2\n");
    EXPECT_THAT(place.OwnFolders(), SizeIs(1));
}

TEST_F(CrossingTest, AZoneThatGoesInTheLastMomentIsNotMadeAgain) {
    place.Echo("sound/zones/1/route", "0");
    ASSERT_EQ(process.Do("cross before remove " + (place / "sound/zones/1/route").string()), "0");
    EXPECT_EQ(process.Do("set-zone-route 1 5"), "-1002");
    EXPECT_FALSE(fs::exists(place / "sound/zones/1"));
}

TEST_F(CrossingTest, AnOwnChangeThatCannotBeWrittenChangesNothing) {
    const std::string old(3000, 'o');
    ASSERT_EQ(process.Do("set-text memory/key " + old), "0");
    ASSERT_EQ(process.Do("hear memory/key"), "0");
    LetItNotice();
    ASSERT_EQ(process.Do("limit-files 4096"), "0");
    EXPECT_EQ(process.Do("set-text memory/key " + std::string(5000, 'n')), "-1027");
    EXPECT_EQ(process.Do("text memory/key"), "0 " + old);
    EXPECT_THAT(process.TakeReports(), IsEmpty());
    EXPECT_THAT(place.Leftovers("."), IsEmpty());
}

TEST_F(CrossingTest, ASignalThatInterruptsThePlatformThreadIsNothing) {
    ASSERT_EQ(process.Do("let-signals-interrupt"), "0");
    OtherProcess second(place);
    for (const std::string volume : {"31", "32"}) {
        ASSERT_EQ(tgkill(process.Process(), AwaitSleep(process), SIGUSR1), 0);
        ASSERT_EQ(second.Do("set-volume " + volume), "0");
        EXPECT_EQ(process.Report(), "volume " + volume + " platform");
    }
}

TEST_F(CrossingTest, AMissingTvIsWaitedFor) {
    LetItNotice();
    const fs::path away = place.Path().string() + ".away";
    ActAndAwaitSleep(process, [&] { fs::rename(place.Path(), away); });
    place.Echo("audio/master_volume", "44");
    EXPECT_EQ(process.Report(), "volume 44 platform");
    fs::remove_all(away);
}

TEST_F(CrossingTest, OwnChangesLeaveThePlatformThreadAsleep) {
    constexpr int CHANGES = 100;
    ASSERT_EQ(OtherProcess(place).Do("set-volume 50"), "0");
    ASSERT_EQ(process.Report(), "volume 50 platform");
    LetItNotice();
    const auto sleeps = [&, thread = AwaitSleep(process)] {
        return host_test::Sleeps(process.Process(), thread);
    };
    const int before = sleeps();
    for (int i = 0; i < CHANGES; ++i) {
        ASSERT_EQ(process.Do("set-volume " + std::to_string(21 + i % 2)), "0");
    }
    EXPECT_THAT(process.TakeReports(), SizeIs(CHANGES));
    // A rename anywhere on the machine in the same moment makes the writer have the thread look, too.
    EXPECT_LT(sleeps() - before, CHANGES / 2);
}

TEST_F(CrossingTest, AQueueThatTheKernelNoLongerWaitsForIsReplaced) {
    OtherProcess second(place);
    for (const std::string tens : {"3", "4"}) {
        // At the second time the next queue cannot be waited for either.
        ASSERT_EQ(process.Do(tens == "3" ? "refuse-waits 1" : "refuse-waits 2"), "0");
        EXPECT_EQ(process.Do("set-volume " + tens + '0'), "0");
        EXPECT_EQ(process.Report(), "volume " + tens + "0 own");
        ASSERT_EQ(process.Do("hear memory/" + tens), "0");  // has the platform thread try again at once
        LetItNotice();
        EXPECT_EQ(second.Do("set-volume " + tens + '1'), "0");
        EXPECT_EQ(process.Report(), "volume " + tens + "1 platform");
    }
    EXPECT_THAT(process.Log(), Each("E Cannot watch " + place.Path().string() + ": No space left on device"));
}

TEST_F(CrossingTest, AQueueThatTheKernelNoLongerWaitsForIsReplacedWithoutAnotherCall) {
    OtherProcess second(place);
    LetItNotice();
    ASSERT_EQ(process.Do("refuse-waits 1"), "0");
    // A rename anywhere on the machine lets a change take another way: then comes the next one.
    for (int volume = 30; volume <= 100 && process.Log().empty(); ++volume) {
        EXPECT_EQ(process.Do("set-volume " + std::to_string(volume)), "0");
        EXPECT_EQ(process.Report(), "volume " + std::to_string(volume) + " own");
    }
    ASSERT_THAT(process.Log(), Not(IsEmpty()));
    EXPECT_EQ(second.Do("set-volume 29"), "0");
    EXPECT_EQ(process.Report(), "volume 29 platform");
}

// --- Registrations

TEST_F(ReportsTest, ASlotHoldsOneRegistration) {
    Listener& first = NewListener("first ");
    Listener& second = NewListener("second ");
    HearVolume(first);
    HearVolume(second);
    EXPECT_EQ(audio_set_master_volume(1, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("second 1"));
    EXPECT_EQ(audio_unregister_master_volume_changed_cb(), 0);
    EXPECT_NE(audio_unregister_master_volume_changed_cb(), 0);
    EXPECT_EQ(audio_set_master_volume(2, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("second 1"));
}

TEST_F(ReportsTest, ASecondRegistrationLosesNoChangeThatIsPending) {
    Listener& one = NewListener("one ");
    Listener& two = NewListener("two ");
    HearKey(KEY, one);
    WhileReporting([&] {
        EXPECT_EQ(other.Do("set-int memory/key 5"), "0");
        HearKey(KEY, two, OnKeyToo);
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("one 5", "two 5"));
}

TEST_F(ReportsTest, ANewRegistrationOfASlotHearsTheChangeThatIsPending) {
    Listener& first = NewListener("first ");
    Listener& second = NewListener("second ");
    HearVolume(first);
    WhileReporting([&] {
        EXPECT_EQ(other.Do("set-volume 50"), "0");
        HearVolume(second);
    });
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("second 50"));
}

TEST_F(ReportsTest, TheRemovalOfAListenerLeavesTheValueKnownToTheOthers) {
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    HearKey(KEY, listener);
    HearKey(KEY, NewListener("two "), OnKeyToo);
    EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKeyToo), 0);
    tv.Echo("settings/memory/key", "1");
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
}

TEST_F(ReportsTest, AValueThatIsMissingAtTheRegistrationIsNewsWhateverItWasBefore) {
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    for (const std::string value : {"1", "2"}) {
        fs::remove(tv / "settings/memory/key");
        HearKey(KEY, listener);
        EXPECT_EQ(other.Do("set-int memory/key " + value), "0");
        Settle();
        EXPECT_EQ(vconf_set_int(KEY, 2), 0);
        EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
    }
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2", "2"));
    fs::remove(tv / "settings/memory/key");
    HearKey(KEY, listener);
    EXPECT_EQ(other.Do("set-text memory/key"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2", "2", "")) << "an empty text is a value, too";
}

TEST_F(ReportsTest, AListenerThatRemovesItselfSilencesNoOther) {
    HearKey(KEY, NewListener("one ", [] { EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0); }));
    HearKey(KEY, NewListener("two "), OnKeyToo);
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_EQ(vconf_set_int(KEY, 2), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "two 1", "two 2"));
}

TEST_F(ReportsTest, ARegistrationWaitsForAReportInFlightOnAnotherThread) {
    ReportInFlight report(listener);
    HearVolume(listener);
    Change("set-volume 70");
    int id = 0;
    report.ExpectWait([&] { id = rc_register_audio_focus_changed_callback(OnNumber, &listener); });
    EXPECT_EQ(rc_unregister_audio_focus_changed_callback(id), 0);
}

/** Both threads register the callback for the key; the later one replaces what the other has registered. */
TEST_F(ReportsTest, AKeysRegistrationWaitsForAReportThatMakesTheSameOne) {
    Listener& early = NewListener("early ");
    Listener& late = NewListener("late ");
    const auto hear = [](Listener& who) { EXPECT_EQ(vconf_notify_key_changed(KEY, OnKey, &who), 0); };
    ReportInFlight report(listener, [&] { hear(early); });
    HearVolume(listener);
    Change("set-volume 70");
    report.ExpectWait([&] { hear(late); });
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("70", "late 1"));
    EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
}

TEST_F(ReportsTest, TheEndOfARegistrationWaitsForAReportThatEndsIt) {
    const struct {
        std::string change;
        std::function<int()> end;
    } kinds[] = {
        {"set-volume 70", [] { return vconf_ignore_key_changed(KEY, OnKey); }},
        {"set-volume 71", audio_unregister_master_volume_changed_cb},
    };
    for (const auto& [change, end] : kinds) {
        SCOPED_TRACE(change);
        const auto expect = [&end = end](int result) { EXPECT_EQ(end(), result); };
        ReportInFlight report(listener, [&] { expect(0); });
        HearVolume(listener);
        HearKey(KEY, listener);
        Change(change);
        report.ExpectWait([&] { expect(-1002); });
    }
}

TEST_F(ReportsTest, AnOwnWriteInAReportIsMeasuredAgainstThePresentValue) {
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_EQ(vconf_set_int(OTHER, 1), 0);
    HearKey(KEY, NewListener("key ", [] { EXPECT_EQ(vconf_set_int(OTHER, 1), 0); }));
    HearKey(OTHER, NewListener("other "));
    tv.Echo("settings/next/key", "2");
    tv.Echo("settings/next/other", "5");
    Settle();
    HearKey("memory/third", listener);
    WhileReporting([&] {
        ASSERT_EQ(renameat2(AT_FDCWD, (tv / "settings/next").c_str(), AT_FDCWD,
                            (tv / "settings/memory").c_str(), RENAME_EXCHANGE),
                  0);
        // Removes the watch of the old folder now, so that its notification does not come during the own write.
        EXPECT_EQ(vconf_ignore_key_changed("memory/third", OnKey), 0);
    });
    ear.WaitFor("other 1");
    EXPECT_THAT(ear.Heard(), ElementsAre("key 2", "other 1"));
    fs::remove_all(tv / "settings/next");
}

TEST_F(ReportsTest, RemovingWhatIsNotRegisteredFails) {
    EXPECT_EQ(audio_unregister_master_volume_changed_cb(), -1002);
    EXPECT_EQ(audio_unregister_master_mute_changed_cb(), -1002);
    EXPECT_EQ(sound_manager_unset_speaker_changed_cb(), -1002);
    EXPECT_EQ(sound_manager_unset_multiview_speaker_selection_changed_cb(), -1002);
    EXPECT_EQ(sound_manager_unset_tv_master_mute_changed_cb(), -1002);
    HearVolume(listener);
    for (int id = -1; id < 1000; ++id) {
        EXPECT_EQ(rc_unregister_audio_focus_changed_callback(id), -1002);
    }
    HearKey(KEY, listener);
    EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKeyToo), -1002);
    EXPECT_EQ(vconf_ignore_key_changed(OTHER, OnKey), -1002);
    EXPECT_EQ(vconf_ignore_key_changed("../key", OnKey), -1022);
    EXPECT_EQ(audio_set_master_volume(1, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("1"));
}

TEST_F(ReportsTest, NullArgumentsFail) {
    EXPECT_EQ(vconf_get_int(KEY, nullptr), -1022);
    int number = 0;
    EXPECT_EQ(vconf_get_int(nullptr, &number), -1022);
    EXPECT_EQ(vconf_get_str(nullptr), nullptr);
    EXPECT_EQ(vconf_set_str(KEY, nullptr), -1022);
    EXPECT_EQ(vconf_notify_key_changed(KEY, nullptr, nullptr), -1022);
    EXPECT_EQ(audio_get_master_volume(nullptr), -1022);
    EXPECT_EQ(audio_get_master_mute(nullptr), -1022);
    EXPECT_EQ(audio_register_master_volume_changed_cb(nullptr, nullptr), -1022);
    EXPECT_EQ(audio_register_master_mute_changed_cb(nullptr, nullptr), -1022);
    EXPECT_EQ(sound_manager_get_speaker_selection(nullptr), -1022);
    EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(nullptr, 1), -1022);
    EXPECT_EQ(sound_manager_set_speaker_changed_cb(nullptr, nullptr), -1022);
    EXPECT_EQ(sound_manager_set_multiview_speaker_selection_changed_cb(nullptr, nullptr), -1022);
    EXPECT_EQ(sound_manager_set_tv_master_mute_changed_cb(nullptr, nullptr), -1022);
    EXPECT_EQ(system_info_get_custom_bool("a", nullptr), -1022);
    EXPECT_EQ(rc_get_zone_list(nullptr), -1022);
    rc_zone_h zone = nullptr;
    EXPECT_EQ(rc_get_next_zone(nullptr, &zone), -1022);
    EXPECT_EQ(rc_get_zone_id(nullptr, &number), -1022);
    EXPECT_EQ(rc_free_zone_list(nullptr), -1022);
    EXPECT_EQ(rc_get_audio_focus(nullptr), -1022);
    EXPECT_EQ(rc_register_audio_focus_changed_callback(nullptr, nullptr), 0);
    EXPECT_EQ(AudioControl_getInstance()->get_main_out_gain2(nullptr), -1022);
    EXPECT_EQ(LwipcEventDone(nullptr), -1022);
    EXPECT_EQ(LwipcResetEvent(nullptr), -1022);
    EXPECT_EQ(LwipcIsDone(nullptr), -1022);
}

TEST_F(ReportsTest, AFailedReadLeavesTheCallersValueAsItWas) {
    tv.Echo("audio/master_mute", "loud");
    tv.Echo("features/odd", "maybe");
    bool mute = true;
    EXPECT_EQ(audio_get_master_mute(&mute), -1022);
    EXPECT_TRUE(mute);
    bool flag = true;
    EXPECT_EQ(system_info_get_custom_bool("odd", &flag), -1022);
    EXPECT_TRUE(flag);
    int number = 7;
    EXPECT_EQ(vconf_get_int("memory/none", &number), -1002);
    EXPECT_EQ(number, 7);
    tv.Echo("audio/master_mute", "0");
}

TEST_F(ReportsTest, AListOfZonesHasAnEnd) {
    fs::remove_all(tv / "sound/zones");
    tv.Echo("sound/zones/3/route", "1");
    rc_zone_list_h list = nullptr;
    ASSERT_EQ(rc_get_zone_list(&list), 0);
    EXPECT_EQ(rc_get_next_zone(list, nullptr), -1022);
    rc_zone_h zone = nullptr;
    EXPECT_EQ(rc_get_next_zone(list, &zone), 0);
    EXPECT_EQ(rc_get_zone_id(zone, nullptr), -1022);
    EXPECT_EQ(rc_get_next_zone(list, &zone), -1002);
    EXPECT_EQ(rc_get_next_zone(list, &zone), -1002);
    EXPECT_EQ(rc_free_zone_list(list), 0);
    fs::remove_all(tv / "sound/zones/3");
}

TEST_F(ReportsTest, AFileInThePlaceOfTheFolderOfZonesIsAnError) {
    const Folder place;
    place.Echo("sound/zones", "a file");
    OtherProcess process(place);
    EXPECT_EQ(process.Do("zones"), "-1020");
    EXPECT_THAT(process.Log(),
                ElementsAre("E Cannot list " + (place / "sound/zones").string() + ": Not a directory"));
}

TEST_F(ReportsTest, ARegistrationThatFailedIsNone) {
    const Folder place;
    OtherProcess process(place);
    ASSERT_EQ(process.Do("volume"), "0 10");
    ASSERT_EQ(process.Do("refuse epoll_ctl 28"), "0");
    EXPECT_EQ(process.Do("hear memory/key"), "-1028");
    EXPECT_EQ(process.Do("hear memory/key"), "-1028");
    EXPECT_EQ(process.Do("hear focus"), "0");
    EXPECT_EQ(process.Do("set-int memory/key 1"), "0");
    EXPECT_THAT(process.TakeReports(), IsEmpty());
    EXPECT_THAT(process.Log(), testing::Contains("E Cannot watch the TV: No space left on device").Times(3));
}

TEST_F(ReportsTest, WithoutAThreadEachRegistrationFails) {
    const Folder place;
    OtherProcess process(place);
    // The first thread makes a sanitizer start one of its own.
    ASSERT_EQ(process.Do("start-and-end-a-thread"), "0");
    ASSERT_EQ(process.Do("refuse clone3 11"), "0");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(process.Do("hear volume"), "-1011");
    }
    EXPECT_THAT(process.Log(),
                ElementsAre("E Cannot start the platform thread: Resource temporarily unavailable",
                            "E Cannot start the platform thread: Resource temporarily unavailable"));
}

TEST_F(ReportsTest, KeyAndCallbackTogetherNameASettingsRegistration) {
    Listener& one = NewListener("one ");
    Listener& two = NewListener("two ");
    Listener& three = NewListener("three ");
    HearKey(KEY, one);
    HearKey(KEY, two, OnKeyToo);
    HearKey(OTHER, three);
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "two 1"));
    HearKey(KEY, three);  // replaces `one` and keeps its place
    EXPECT_EQ(vconf_set_int(KEY, 2), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "two 1", "three 2", "two 2"));
    EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
    EXPECT_NE(vconf_ignore_key_changed(KEY, OnKey), 0);
    EXPECT_EQ(vconf_set_int(OTHER, 3), 0);
    EXPECT_EQ(ear.Heard().back(), "three 3");
}

TEST_F(ReportsTest, RemovalWaitsForAReportInFlightOnAnotherThread) {
    int focus = 0;
    const struct {
        std::string change;
        Action add;
        std::function<int()> remove;
    } kinds[] = {
        {"set-volume 70", [&] { HearVolume(listener); }, audio_unregister_master_volume_changed_cb},
        {"set-text memory/key 70", [&] { HearKey(KEY, listener); },
         [] { return vconf_ignore_key_changed(KEY, OnKey); }},
        {"focus 70", [&] { focus = rc_register_audio_focus_changed_callback(OnNumber, &listener); },
         [&] { return rc_unregister_audio_focus_changed_callback(focus); }},
    };
    for (const auto& [change, add, remove] : kinds) {
        SCOPED_TRACE(change);
        ReportInFlight report(listener);
        add();
        Change(change);
        report.ExpectWait([&remove = remove] { EXPECT_EQ(remove(), 0); });
        Change(change.substr(0, change.size() - 1) + '1');
        Settle();
        EXPECT_THAT(ear.Heard(), ElementsAre("70"));
        ear.Forget();
    }
}

TEST_F(ReportsTest, ACallbackMayRemoveItselfAndOthersAndAddNewOnes) {
    Listener& one = NewListener("one ");
    Listener& two = NewListener("two ");
    Listener& added = NewListener("added ");
    HearKey(KEY, one);
    HearKey(KEY, two, OnKeyToo);
    one.act = [&] {
        EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
        EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKeyToo), 0);
        HearKey(KEY, added);
        HearVolume(added);
    };
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1"));
    EXPECT_EQ(vconf_set_int(KEY, 2), 0);
    EXPECT_EQ(audio_set_master_volume(3, 0), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "added 2", "added 3"));
}

TEST_F(ReportsTest, ANewRegistrationDoesNotHearTheReportUnderWay) {
    Listener& added = NewListener("added ");
    Listener& one = NewListener("one ", [&] { HearKey(KEY, added, OnKeyToo); });
    HearKey(KEY, one);
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1"));
    EXPECT_EQ(vconf_set_int(KEY, 2), 0);
    EXPECT_THAT(ear.Heard(), ElementsAre("one 1", "one 2", "added 2"));
}

/** The daemon does it when the route changes: on the platform thread it replaces one speaker's
 *  registrations by another's. */
TEST_F(ReportsTest, ACallbackOnThePlatformThreadMayChangeRegistrationsOfOtherValues) {
    Listener& route = NewListener("route ");
    Listener& later = NewListener("later ");
    HearVolume(listener);
    route.act = [&] {
        EXPECT_EQ(audio_unregister_master_volume_changed_cb(), 0);
        HearKey(OTHER, later);
        EXPECT_EQ(vconf_set_int(OTHER, 1), 0);
    };
    ASSERT_EQ(sound_manager_set_speaker_changed_cb(OnNumber, &route), 0);
    EXPECT_EQ(other.Do("set-route 3"), "0");
    EXPECT_EQ(other.Do("set-volume 80"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("route 3", "later 1"));
    EXPECT_EQ(other.Do("set-int memory/other 2"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("route 3", "later 1", "later 2"));
    EXPECT_EQ(sound_manager_unset_speaker_changed_cb(), 0);
    EXPECT_EQ(sound_manager_set_speaker_selection(0), 0);
}

TEST_F(ReportsTest, ACallbacksOwnWritesNest) {
    Listener& first = NewListener("first ");
    Listener& second = NewListener("second ");
    HearKey(KEY, first);
    HearKey(KEY, second, OnKeyToo);
    HearVolume(listener);
    first.act = [&] {
        if (Text(KEY) == "1") {
            EXPECT_EQ(audio_set_master_volume(90, 0), 0);
            EXPECT_EQ(vconf_set_int(KEY, 2), 0);
            EXPECT_EQ(vconf_set_int(KEY, 2), 0);
        }
    };
    EXPECT_EQ(vconf_set_int(KEY, 1), 0);
    // The report of 1 ends with the first listener, because the report of 2 has overtaken it.
    EXPECT_THAT(ear.Heard(), ElementsAre("first 1", "90", "first 2", "second 2"));
    Settle();
    EXPECT_THAT(ear.Heard(), SizeIs(4));
}

/** Another thread makes the calls while this one holds the delivery lock and waits for that thread. */
TEST_F(ReportsTest, GainsLogAndReadsNeverTakeTheDeliveryLock) {
    fs::create_directories(tv / "sound/zones/1");
    WhileReporting([] {
        std::thread([] {
            int number = 0;
            bool flag = false;
            AudioControl* const control = AudioControl_getInstance();
            EXPECT_EQ(control->set_main_out_gain2(55), 0);
            EXPECT_EQ(control->get_main_out_gain2(&number), 0);
            EXPECT_EQ(number, 55);
            EXPECT_EQ(control->set_sub_out_gain2(56), 0);
            EXPECT_EQ(control->get_sub_out_gain2(&number), 0);
            EXPECT_EQ(number, 56);
            EXPECT_EQ(__dlog_print(DLOG_DEBUG, "Test", "not written\n"), 0);
            EXPECT_EQ(__dlog_print(DLOG_INFO, "Test", "written\n"), 0);
            EXPECT_EQ(audio_get_master_volume(&number), 0);
            EXPECT_EQ(audio_get_master_mute(&flag), 0);
            EXPECT_EQ(sound_manager_get_speaker_selection(&number), 0);
            EXPECT_EQ(sound_manager_get_multiview_speaker_selection_with_zone_id(&number, 2), -26607612);
            EXPECT_EQ(vconf_get_int("memory/none", &number), -1002);
            EXPECT_EQ(Text("memory/none"), "(null)");
            EXPECT_EQ(system_info_get_custom_bool("none", &flag), -1002);
            EXPECT_THAT(rc_get_audio_focus(&number), AnyOf(0, -1002));
            rc_zone_list_h zones = nullptr;
            EXPECT_EQ(rc_get_zone_list(&zones), 0);
            EXPECT_EQ(rc_free_zone_list(zones), 0);
            EXPECT_EQ(LwipcIsDone("none"), 0);
        }).join();
    });
}

TEST_F(ReportsTest, AStormOfWritesAndRegistrationsOnManyThreads) {
    constexpr int ROUNDS = 300;
    std::atomic<int> running = 0;
    const Action count = [&] {
        EXPECT_EQ(++running, 1) << "two reports at once";
        --running;
    };
    listener.act = count;
    Listener& key = NewListener("key ", count);
    other.Tell("volume-storm " + std::to_string(ROUNDS));
    std::thread writer([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            EXPECT_EQ(audio_set_master_volume(i % 101, 0), 0);
        }
    });
    std::thread second([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            EXPECT_EQ(vconf_set_int(KEY, i), 0);
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        HearVolume(listener);
        HearKey(KEY, key);
        EXPECT_EQ(audio_unregister_master_volume_changed_cb(), 0);
        EXPECT_EQ(vconf_ignore_key_changed(KEY, OnKey), 0);
    }
    writer.join();
    second.join();
    EXPECT_EQ(other.Answer(), "0");
}

/**
 * The second thread fills the slot when the first has just removed the registration of before: with its second unlock,
 * after that of the look at the slot.
 */
TEST_F(CrossingTest, ASlotThatTwoThreadsFillAtOnceHoldsOneRegistration) {
    ASSERT_EQ(process.Do("cross-unlock 2 hear volume"), "0");
    EXPECT_EQ(process.Do("hear volume"), "0");
    EXPECT_EQ(process.Do("end-aside"), "0");
    EXPECT_EQ(process.Do("ignore-volume"), "0");
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_THAT(process.TakeReports(), IsEmpty()) << "a registration that its slot has lost";
}

// --- Watches on files and folders that come and go

TEST_F(ReportsTest, AWatchMayBeSetBeforeTheFileAndItsFoldersExist) {
    HearKey("memory/later/deep/key", listener);
    EXPECT_EQ(other.Do("set-int memory/later/deep/key 1"), "0");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1"));
    tv.Echo("settings/memory/later/deep/key", "2");
    Settle();
    EXPECT_EQ(vconf_set_int("memory/later/deep/key", 3), 0);
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2", "3"));
    fs::remove_all(tv / "settings/memory/later");
}

TEST_F(ReportsTest, AWatchSurvivesItsFolder) {
    const std::string key = "memory/gone/key";
    const fs::path folder = tv / "settings/memory/gone";
    EXPECT_EQ(vconf_set_int(key.c_str(), 1), 0);
    HearKey(key, listener);
    for (int value = 2; value < 20; value += 2) {
        fs::remove_all(folder);
        EXPECT_EQ(other.Do("set-int " + key + ' ' + std::to_string(value)), "0");
        Settle();
        EXPECT_EQ(ear.Heard().back(), std::to_string(value));
        fs::rename(folder, tv / "settings/memory/away");
        tv.Echo("settings/" + key, std::to_string(value + 1));
        tv.Echo("settings/memory/away/key", "not this one");
        Settle();
        EXPECT_EQ(ear.Heard().back(), std::to_string(value + 1));
        EXPECT_EQ(vconf_set_int(key.c_str(), value), 0);
        Settle();
        EXPECT_EQ(vconf_set_int(key.c_str(), value + 1), 0);
        EXPECT_EQ(tv.Content("settings/" + key), std::to_string(value + 1) + '\n');
        EXPECT_EQ(tv.Content("settings/memory/away/key"), "not this one\n");
        fs::remove_all(tv / "settings/memory/away");
    }
    EXPECT_THAT(ear.Heard(), SizeIs(36));
    fs::remove_all(folder);
}

TEST_F(ReportsTest, AWatchSurvivesTheWholeTv) {
    HearKey(KEY, listener);
    const fs::path away = tv.Path().string() + ".away";
    for (const std::string value : {"1", "2"}) {
        fs::rename(tv.Path(), away);
        tv.Echo("settings/memory/key", value);
        Settle();
        EXPECT_EQ(ear.Heard().back(), value);
        fs::remove_all(tv.Path());
        fs::rename(away, tv.Path());
        Settle();
    }
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2"));
}

TEST_F(ReportsTest, TheFolderForDbMayBecomeALinkAndTheLinkMayLeadElsewhere) {
    const Folder one;
    const Folder two;
    EXPECT_EQ(vconf_set_int("db/key", 0), 0);
    HearKey("db/key", listener);
    fs::remove_all(tv / "settings/db");
    fs::create_directory_symlink(one.Path(), tv / "settings/db");
    EXPECT_EQ(other.Do("set-int db/key 1"), "0");
    Settle();
    two.Echo("key", "2");
    fs::create_directory_symlink(two.Path(), tv / "settings/link");
    fs::rename(tv / "settings/link", tv / "settings/db");
    Settle();
    two.Echo("key", "3");
    one.Echo("key", "not this one");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2", "3"));
    fs::remove(tv / "settings/db");
    fs::create_directory(tv / "settings/db");
}

TEST_F(ReportsTest, TheLinkForDbMayLeadToAFolderThatIsMadeLaterOrAnew) {
    const Folder outside;
    fs::remove_all(tv / "settings/db");
    fs::create_directory_symlink(outside / "to/come", tv / "settings/db");
    HearKey("db/deep/key", listener);
    EXPECT_LT(vconf_set_int("db/deep/key", 1), -1000);  // only its owner makes that folder
    for (const std::string value : {"1", "2"}) {
        outside.Echo("to/come/deep/key", value);
        Settle();
        EXPECT_EQ(ear.Heard().back(), value);
        fs::remove_all(outside / "to");
        Settle();
    }
    EXPECT_THAT(ear.Heard(), ElementsAre("1", "2"));
    fs::remove(tv / "settings/db");
    fs::create_directory(tv / "settings/db");
}

/** A process that hears a value in a folder that it may not read, and a second one that may. */
class PrivateFolderTest : public ReportsTest {
protected:
    PrivateFolderTest() {
        EXPECT_EQ(second.Do("set-int memory/private/key 1"), "0");
        fs::permissions(folder, fs::perms::owner_write | fs::perms::owner_exec);
        EXPECT_EQ(deaf.Do("drop-capabilities"), "0");
        EXPECT_EQ(deaf.Do("hear memory/private/key"), "0");
    }

    void ExpectOneErrorOfTheFolder() {
        EXPECT_THAT(deaf.Log(), ElementsAre("E Cannot watch " + folder.string() + ": Permission denied"));
    }

    const Folder place;
    const fs::path folder = place / "settings/memory/private";
    OtherProcess deaf{place};
    OtherProcess second{place};
};

TEST_F(PrivateFolderTest, ItSilencesItsOwnValuesAlone) {
    EXPECT_EQ(deaf.Do("hear volume"), "0");
    EXPECT_EQ(second.Do("set-volume 20"), "0");
    EXPECT_EQ(deaf.Report(), "volume 20 platform");
    EXPECT_EQ(deaf.Do("set-int memory/private/key 2"), "0");
    EXPECT_EQ(deaf.Report(), "memory/private/key 2 own");
    EXPECT_EQ(second.Do("set-int memory/private/key 3"), "0");
    EXPECT_EQ(second.Do("set-volume 30"), "0");
    EXPECT_EQ(deaf.Report(), "volume 30 platform");
    fs::permissions(folder, fs::perms::owner_all);
    EXPECT_EQ(deaf.Report(), "memory/private/key 3 platform");  // once the watch is tried again
    EXPECT_EQ(second.Do("set-int memory/private/key 4"), "0");
    EXPECT_EQ(deaf.Report(), "memory/private/key 4 platform");
    ExpectOneErrorOfTheFolder();
}

TEST_F(PrivateFolderTest, ItIsNotLoggedAgainWhenItCannotBeWatchedForAnotherReason) {
    ASSERT_EQ(deaf.Do("refuse-watches-of memory/private"), "0");
    fs::permissions(folder, fs::perms::owner_all);
    LetNotice(deaf, place);  // by then the platform thread has tried again, and no watch was left
    EXPECT_EQ(second.Do("set-int memory/private/key 2"), "0");
    ASSERT_EQ(deaf.Do("refuse-watches-of"), "0");
    EXPECT_EQ(deaf.Report(), "memory/private/key 2 platform");
    ExpectOneErrorOfTheFolder();
}

/** A process that hears the volume and a value in a folder for which no watch is left, and a second one. */
class NoWatchLeftTest : public ReportsTest {
protected:
    NoWatchLeftTest() {
        EXPECT_EQ(second.Do("set-int memory/late/key 1"), "0");
        EXPECT_EQ(deaf.Do("refuse-watches-of memory/late"), "0");
        EXPECT_EQ(deaf.Do("hear memory/late/key"), "0");
        EXPECT_EQ(deaf.Do("hear volume"), "0");
    }

    const Folder place;
    OtherProcess deaf{place};
    OtherProcess second{place};
};

TEST_F(NoWatchLeftTest, ItsFolderSilencesItsOwnValuesUntilThereIsOne) {
    EXPECT_EQ(second.Do("set-int memory/late/key 2"), "0");
    EXPECT_EQ(second.Do("set-volume 20"), "0");
    EXPECT_EQ(deaf.Report(), "volume 20 platform");
    EXPECT_EQ(deaf.Do("set-int memory/late/key 3"), "0");
    EXPECT_EQ(deaf.Report(), "memory/late/key 3 own");
    EXPECT_EQ(second.Do("set-int memory/late/key 4"), "0");
    ASSERT_EQ(deaf.Do("refuse-watches-of"), "0");
    EXPECT_EQ(deaf.Report(), "memory/late/key 4 platform");  // once the watch is tried again
    EXPECT_EQ(second.Do("set-int memory/late/key 5"), "0");
    EXPECT_EQ(deaf.Report(), "memory/late/key 5 platform");
    EXPECT_EQ(deaf.Do("set-int memory/late/key 6"), "0");
    EXPECT_EQ(deaf.Report(), "memory/late/key 6 own");
    ASSERT_EQ(deaf.Do("refuse-watches-of memory/late"), "0");
    EXPECT_EQ(deaf.Do("hear memory/late/second"), "0");
    EXPECT_THAT(deaf.Log(),
                AllOf(SizeIs(2), Each("E Cannot watch " + (place / "settings/memory/late").string() +
                                      ": No space left on device")))
        << "again when a watch has been there meanwhile";
}

TEST_F(NoWatchLeftTest, TheErrorIsLoggedOnceForAllValuesOfTheFolder) {
    EXPECT_EQ(deaf.Do("hear memory/late/second"), "0");
    EXPECT_EQ(deaf.Do("hear memory/late/third"), "0");
    EXPECT_THAT(deaf.Log(), SizeIs(1));
}

TEST_F(ReportsTest, AWatchIsTriedAgainEachSecondThoughNothingElseHappens) {
    const Folder place;
    OtherProcess deaf(place);
    OtherProcess second(place);
    ASSERT_EQ(second.Do("set-int memory/late/key 1"), "0");
    ASSERT_EQ(deaf.Do("refuse-watches-of memory/late"), "0");
    EXPECT_EQ(deaf.Do("hear memory/late/key"), "0");
    EXPECT_EQ(deaf.Do("next-timeout"), "-1");
    EXPECT_EQ(deaf.Do("next-timeout"), "1000");
    ASSERT_EQ(deaf.Do("refuse-watches-of"), "0");
    EXPECT_EQ(second.Do("set-int memory/late/key 2"), "0");
    EXPECT_EQ(deaf.Report(), "memory/late/key 2 platform");
    EXPECT_EQ(deaf.Do("next-timeout"), "-1")
        << "the platform thread tries on though nothing is left to watch";
}

TEST_F(ReportsTest, WithoutAQueueOwnChangesAreReportedAndTheErrorIsLogged) {
    const Folder place;
    OtherProcess deaf(place);
    ASSERT_EQ(deaf.Do("refuse inotify_init1 24"), "0");
    EXPECT_EQ(deaf.Do("hear volume"), "0");
    EXPECT_EQ(deaf.Do("set-volume 20"), "0");
    EXPECT_EQ(deaf.Report(), "volume 20 own");
    EXPECT_THAT(deaf.Log(), ElementsAre("E Cannot watch " + place.Path().string() + ": Too many open files"));
}

TEST_F(ReportsTest, AMissingFolderOrAFileInItsPlaceIsWaitedForWithoutAnError) {
    const Folder place;
    OtherProcess process(place);
    place.Echo("settings/memory/file", "no folder");
    EXPECT_EQ(process.Do("hear memory/none/deep/key"), "0");
    EXPECT_EQ(process.Do("hear memory/file/key"), "0");
    fs::remove(place / "settings/memory/file");
    place.Echo("settings/memory/file/key", "1");
    EXPECT_EQ(process.Report(), "memory/file/key 1 platform");
    EXPECT_THAT(process.Log(), IsEmpty());
}

TEST_F(ReportsTest, ZonesThatCannotBeListedAreOneError) {
    const Folder place;
    place.Echo("sound/zones", "a file");
    OtherProcess process(place);
    EXPECT_EQ(process.Do("hear zones"), "0");
    EXPECT_THAT(process.Log(),
                ElementsAre("E Cannot watch " + (place / "sound/zones").string() + ": Not a directory"));
}

TEST_F(ReportsTest, TheFirstZoneIsNoticedToo) {
    fs::remove_all(tv / "sound/zones");
    fs::create_directories(tv / "sound/zones");
    ASSERT_EQ(sound_manager_set_multiview_speaker_selection_changed_cb(OnZoneRoute, &listener), 0);
    tv.Echo("sound/zones/1/route", "4");
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("1:4"));
    fs::remove_all(tv / "sound/zones");
}

TEST_F(ReportsTest, AMountIsHeededByAWriteRightAfterIt) {
    const Folder place;
    OtherProcess process(place);
    ASSERT_EQ(process.Do("own-mounts"), "0");
    ASSERT_EQ(process.Do("set-volume 11"), "0");
    ASSERT_EQ(process.Do("hear volume"), "0");
    const std::string folder = place / "audio";
    for (int round = 0; round < 20; ++round) {
        LetNotice(process, place);
        for (const std::string volume : {"12", "11"}) {  // so that the folder is kept
            ASSERT_EQ(process.Do("set-volume " + volume), "0");
        }
        ASSERT_EQ(process.Do("mount " + folder), "0");
        ASSERT_EQ(process.Do("set-volume 15"), "0");
        EXPECT_EQ(process.Do("volume"), "0 15");
        Unmount(process, folder);
        EXPECT_EQ(process.Do("volume"), "0 11");
        while (process.Report() != "volume 11 platform") {
        }
        process.TakeReports();
    }
}

/** A process with mounts of its own that hears two values. Their folder is kept when somebody mounts another there. */
class MountTest : public ReportsTest {
protected:
    MountTest() {
        EXPECT_EQ(process.Do("own-mounts"), "0");
        for (const std::string key : {"memory/a", "memory/b"}) {
            EXPECT_EQ(process.Do("set-int " + key + " 1"), "0");
            EXPECT_EQ(process.Do("hear " + key), "0");
        }
        LetNotice(process, place);
        for (const std::string key : {"memory/a", "memory/b"}) {
            EXPECT_EQ(process.Do("set-int " + key + " 2"), "0");
            EXPECT_EQ(process.Report(), key + " 2 own");
        }
    }

    /** Has the process mount and do the lines while the platform thread cannot act. Returns when they pause. */
    void MountAnd(const std::string& lines) {
        ASSERT_EQ(process.Do("cross before do " + (place / "audio/master_volume").string() + " mount " +
                             (place / "settings/memory").string() + "; " + lines),
                  "0");
        process.Tell("set-volume 30");
    }

    const Folder place;
    OtherProcess process{place};
};

TEST_F(MountTest, AWriterSeesTheMountThoughThePlatformThreadHasSeenIt) {
    LetNotice(process, place);
    ActAndAwaitSleep(process, [this] {  // the platform thread waits for the lock then
        MountAnd("pause; set-int memory/a 3");
        EXPECT_EQ(process.Report(), "paused own");
    });
    EXPECT_EQ(process.Do("go on"), "0");
    EXPECT_EQ(process.Do("int memory/a"), "0 3");
}

TEST_F(MountTest, ThePlatformThreadTakesNoNotificationsWhileAnOwnChangeIsUnderWay) {
    const std::string volume = place / "audio/master_volume";
    LetNotice(process, place);
    // The platform thread waits for notifications. An older one would make it wait for the lock too early.
    AwaitSleep(process);
    ASSERT_EQ(process.Do("cross before do " + volume + " pause; report-queue"), "0");
    process.Tell("set-volume 30");
    EXPECT_EQ(process.Report(), "paused own");
    ActAndAwaitSleep(process, [this] { fs::create_symlink("nowhere", place / "settings/memory/unheard"); });
    EXPECT_EQ(process.Do("go on"), "0");
    EXPECT_EQ(process.Report(), "queued own");
}

TEST_F(MountTest, ASecondWriterKnowsOfTheMountThatTheFirstHasSeen) {
    ASSERT_EQ(process.Do("hold-waits"), "0");
    // One notification wakes the platform thread, which then wants to wait again.
    fs::create_symlink("nowhere", place / "settings/memory/unheard");
    ASSERT_EQ(process.Do("await-held-wait"), "0");
    MountAnd("set-int memory/a 3; end-held-wait; pause; set-int memory/b 4");
    EXPECT_EQ(process.Report(), "memory/a 3 own");
    EXPECT_EQ(process.Report(), "paused own");
    while (WakesOf(process.Process()) != "0") {
        std::this_thread::yield();  // until the platform thread has been woken by the first writer
    }
    EXPECT_EQ(process.Do("go on"), "0");
    EXPECT_EQ(process.Do("int memory/a"), "0 3");
    EXPECT_EQ(process.Do("int memory/b"), "0 4");
}

TEST_F(ReportsTest, WithoutATableOfMountsNoFolderIsKeptAndTheEndOfAMountIsNoticed) {
    const Folder place;
    const std::string folder = place / "audio";
    OtherProcess process(place);
    ASSERT_EQ(process.Do("own-mounts"), "0");
    ASSERT_EQ(process.Do("hide-file /proc/self/mountinfo"), "0");
    ASSERT_EQ(process.Do("set-volume 11"), "0");
    ASSERT_EQ(process.Do("mount " + folder), "0");
    ASSERT_EQ(process.Do("echo " + folder + "/master_volume 20"), "0");
    ASSERT_EQ(process.Do("hear volume"), "0");
    Unmount(process, folder);
    EXPECT_EQ(process.Report(), "volume 11 platform");
    LetNotice(process, place);
    ASSERT_EQ(process.Do("set-volume 12"), "0");
    ASSERT_EQ(process.Do("mount " + folder), "0");
    ASSERT_EQ(process.Do("set-volume 15"), "0");
    EXPECT_EQ(process.Do("volume"), "0 15");
}

TEST_F(NoWatchLeftTest, AChangeMeanwhileIsReportedEvenIfARemovalFindsTheWatch) {
    EXPECT_EQ(second.Do("set-int memory/late/key 2"), "0");
    ASSERT_EQ(deaf.Do("refuse-watches-of"), "0");
    EXPECT_EQ(deaf.Do("ignore-volume"), "0");  // which watches all that is still heard anew
    EXPECT_EQ(deaf.Report(), "memory/late/key 2 platform");
}

TEST_F(ReportsTest, AWriteFollowsALinkOfSeveralPartsThatMovedWhereNobodyWatches) {
    const Folder place;
    OtherProcess process(place);
    ASSERT_EQ(process.Do("volume"), "0 10");
    fs::create_directories(place / "deep/other");
    fs::rename(place / "audio", place / "deep/other/audio");
    fs::create_directory_symlink("deep/other/audio", place / "audio");
    ASSERT_EQ(process.Do("hear volume"), "0");
    for (const std::string volume : {"20", "21"}) {
        EXPECT_EQ(process.Do("set-volume " + volume), "0");
        EXPECT_EQ(process.Report(), "volume " + volume + " own");
    }
    // When this comes, the platform thread has looked at the two writes, and expects nothing more.
    ASSERT_EQ(process.Do("hear memory/mark"), "0");
    ASSERT_EQ(OtherProcess(place).Do("set-int memory/mark 1"), "0");
    ASSERT_EQ(process.Report(), "memory/mark 1 platform");
    fs::rename(place / "deep/other", place / "deep/gone");
    place.Echo("deep/other/audio/master_volume", "5");
    EXPECT_EQ(process.Do("set-volume 30"), "0");
    EXPECT_EQ(process.Report(), "volume 30 own");
    EXPECT_EQ(place.Content("deep/other/audio/master_volume"), "30\n");
    EXPECT_EQ(place.Content("deep/gone/audio/master_volume"), "21\n");
}

TEST_F(ReportsTest, ALoopOfLinksSilencesItsOwnValuesAlone) {
    const Folder place;
    OtherProcess deaf(place);
    OtherProcess second(place);
    ASSERT_EQ(second.Do("volume"), "0 10");
    fs::create_directory_symlink("loop", place / "settings/memory/loop");
    EXPECT_EQ(deaf.Do("hear memory/loop/key"), "0");
    EXPECT_EQ(deaf.Do("hear volume"), "0");
    EXPECT_EQ(second.Do("set-volume 20"), "0");
    EXPECT_EQ(deaf.Report(), "volume 20 platform");
    fs::remove(place / "settings/memory/loop");
    EXPECT_EQ(second.Do("set-int memory/loop/key 3"), "0");
    EXPECT_EQ(deaf.Report(), "memory/loop/key 3 platform");
}

TEST_F(ReportsTest, AMountIsNoticedLikeAFolderThatWasReplaced) {
    const Folder place;
    OtherProcess process(place);
    ASSERT_EQ(process.Do("own-mounts"), "0");
    ASSERT_EQ(process.Do("volume"), "0 10");
    ASSERT_EQ(process.Do("hear volume"), "0");
    ASSERT_EQ(process.Do("set-volume 11"), "0");
    EXPECT_EQ(process.Report(), "volume 11 own");
    const std::string folder = place / "audio";
    for (const std::string value : {"20", "30"}) {
        ASSERT_EQ(process.Do("mount " + folder), "0");
        ASSERT_EQ(process.Do("echo " + folder + "/master_volume " + value), "0");
        EXPECT_EQ(process.Report(), "volume " + value + " platform");
        for (const std::string own : {"15", "16"}) {  // at the second one the folder could be kept open
            ASSERT_EQ(process.Do("set-volume " + own), "0");
            EXPECT_EQ(process.Report(), "volume " + own + " own");
            LetNotice(process, place);
        }
        Unmount(process, folder);
        EXPECT_EQ(process.Report(), "volume 11 platform");
    }
    EXPECT_EQ(place.Content("audio/master_volume"), "11\n");
}

/** The platform remembers the last route of a zone that is gone, so that its return is no news. */
class GoneZonesTest : public ReportsTest {
protected:
    static constexpr int MOST = 64;

    GoneZonesTest() { fs::remove_all(tv / "sound/zones"); }
    ~GoneZonesTest() override { fs::remove_all(tv / "sound/zones"); }

    void Add(int zone) { tv.Echo("sound/zones/" + std::to_string(zone) + "/route", "4"); }
    void Remove(int zone) { fs::remove_all(tv / "sound/zones" / std::to_string(zone)); }
    void AddAndHear(int first, int last) {
        for (int zone = first; zone <= last; ++zone) {
            Add(zone);
        }
        EXPECT_EQ(sound_manager_set_multiview_speaker_selection_changed_cb(OnZoneRoute, &listener), 0);
    }
};

TEST_F(GoneZonesTest, TheRoutesOfSixtyFourAreRemembered) {
    AddAndHear(1, MOST + 6);
    for (int zone = 1; zone <= MOST + 6; ++zone) {
        Remove(zone);
        Settle();
    }
    Add(MOST + 6);
    Add(7);
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
    Add(6);
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("6:4"));
}

TEST_F(GoneZonesTest, TheOneThatWentFirstIsForgottenFirst) {
    AddAndHear(9, 73);
    for (const int zone : {72, 9}) {
        Remove(zone);
        Settle();
    }
    Add(72);
    Settle();
    for (int zone = 10; zone <= 71; ++zone) {
        Remove(zone);
    }
    Settle();
    for (const int zone : {73, 72}) {  // the 65th zone that is gone makes the first one forgotten
        Remove(zone);
        Settle();
    }
    Add(72);
    Settle();
    EXPECT_THAT(ear.Heard(), IsEmpty());
    Add(9);
    Settle();
    EXPECT_THAT(ear.Heard(), ElementsAre("9:4"));
}

TEST_F(GoneZonesTest, OfMoreThatGoAtOnceSixtyFourAreRemembered) {
    AddAndHear(1, MOST + 26);
    fs::rename(tv / "sound/zones", tv / "sound/away");
    Settle();
    fs::rename(tv / "sound/away", tv / "sound/zones");
    Settle();
    EXPECT_THAT(ear.Heard(), SizeIs(26));
}

TEST_F(ReportsTest, AnOwnChangeIsAlwaysReportedHoweverShortlyAnothersCameBefore) {
    constexpr std::size_t ROUNDS = 300;
    HearVolume(listener);
    for (std::size_t round = 0; round < ROUNDS; ++round) {
        ASSERT_EQ(other.Do("set-volume 20"), "0");
        ASSERT_EQ(audio_set_master_volume(10, 0), 0);
    }
    const auto threads = ear.Threads();
    EXPECT_EQ(std::count(threads.begin(), threads.end(), std::this_thread::get_id()), ROUNDS);
    Settle();
    EXPECT_EQ(ear.Heard().back(), "10");
}

TEST_F(ReportsTest, ThePresentValueIsTheLastOneReportedWhoeverWroteIt) {
    constexpr int WRITES = 3000;
    HearVolume(listener);
    other.Tell("volume-storm " + std::to_string(WRITES));
    for (int i = 0; i < WRITES; ++i) {
        ASSERT_EQ(audio_set_master_volume(100 - i % 101, 0), 0);
    }
    EXPECT_EQ(other.Answer(), "0");
    Settle();
    EXPECT_EQ(ear.Heard().back() + '\n', tv.Content("audio/master_volume"));
}

// --- Load

TEST_F(ReportsTest, TenThousandWritesEachByTwoProcessesAreAllReadable) {
    constexpr int WRITES = 10'000;
    OtherProcess watcher(tv);
    ASSERT_EQ(watcher.Do("hear volume"), "0");
    OtherProcess second(tv);
    other.Tell("volume-storm " + std::to_string(WRITES));
    second.Tell("volume-storm " + std::to_string(WRITES));
    auto writers = std::async(std::launch::async, [&] {
        EXPECT_EQ(other.Answer(), "0");
        EXPECT_EQ(second.Answer(), "0");
    });
    while (writers.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        int volume = -1;
        ASSERT_EQ(audio_get_master_volume(&volume), 0);
    }
    writers.get();
    int last = -1;
    ASSERT_EQ(audio_get_master_volume(&last), 0);
    ASSERT_EQ(watcher.Do("hear memory/end"), "0");
    ASSERT_EQ(other.Do("set-text memory/end " + std::to_string(getpid())), "0");
    std::vector<std::string> reports;
    do {
        reports.push_back(watcher.Report());
    } while (!reports.back().starts_with("memory/end"));
    ASSERT_GE(reports.size(), 2U);
    EXPECT_EQ(reports[reports.size() - 2], "volume " + std::to_string(last) + " platform");
    EXPECT_THAT(watcher.Log(), IsEmpty());
    EXPECT_THAT(tv.Leftovers("audio"), IsEmpty());
}

/** Watches a folder like the platform but never reads: it shows when such a queue overflows. */
class UnreadQueue {
public:
    explicit UnreadQueue(const fs::path& folder) {
        inotify_add_watch(m_inotify, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE);
    }
    ~UnreadQueue() { close(m_inotify); }
    UnreadQueue(const UnreadQueue&) = delete;
    UnreadQueue& operator=(const UnreadQueue&) = delete;

    bool HasOverflowed() const {
        alignas(inotify_event) std::array<char, 4096> buffer;
        ssize_t size = 0;
        while ((size = read(m_inotify, buffer.data(), buffer.size())) > 0) {
            for (const char* at = buffer.data(); at < buffer.data() + size;) {
                const auto& event = *reinterpret_cast<const inotify_event*>(at);
                if ((event.mask & IN_Q_OVERFLOW) != 0) {
                    return true;
                }
                at += sizeof(event) + event.len;
            }
        }
        return false;
    }

private:
    const int m_inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
};

TEST_F(ReportsTest, AfterAnOverflowOfTheQueueEverythingIsReadAgain) {
    int capacity = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> capacity;
    ASSERT_GT(capacity, 0);
    const UnreadQueue queue(tv / "settings/memory");
    std::latch running(1);
    std::latch written(1);
    Listener& busy = NewListener("busy ", [&] {
        running.count_down();
        written.wait();
    });
    HearKey(OTHER, busy);
    HearKey(KEY, listener);
    HearVolume(listener);
    ASSERT_EQ(other.Do("set-int memory/other 1"), "0");
    running.wait();
    ASSERT_EQ(other.Do("noise " + std::to_string(capacity + 1)), "0");
    ASSERT_TRUE(queue.HasOverflowed());
    ASSERT_EQ(other.Do("set-text memory/key last"), "0");
    ASSERT_EQ(other.Do("set-volume 99"), "0");
    written.count_down();
    ear.WaitFor("last");
    ear.WaitFor("99");
    EXPECT_THAT(ear.Heard(), Contains("busy 1").Times(1));
    EXPECT_THAT(ear.Heard(), SizeIs(3));
    Settle();
}

TEST_F(ReportsTest, AnIdleProcessIsNeverWoken) {
    const Folder quiet;
    OtherProcess idle(quiet);
    // A sanitizer may start a thread of its own with the first one, and that thread does wake up.
    ASSERT_EQ(idle.Do("start-and-end-a-thread"), "0");
    auto foreign = host_test::ContextSwitches(idle.Process());
    foreign.erase(idle.Process());
    const auto look = [&] {
        auto switches = host_test::ContextSwitches(idle.Process());
        for (const auto& [thread, counters] : foreign) {
            switches.erase(thread);
        }
        return switches;
    };
    ASSERT_EQ(idle.Do("set-volume 30"), "0");
    EXPECT_THAT(look(), SizeIs(1)) << "a thread that nobody needs";
    ASSERT_EQ(idle.Do("hear volume"), "0");
    ASSERT_EQ(idle.Do("hear memory/key"), "0");
    ASSERT_EQ(idle.Do("set-volume 20"), "0");
    // Its last answer may be out before it waits for the next line. Threads that sleep, and did not run from one look
    // to the next, have slept all that time.
    const auto isAsleep = [](const auto& thread) { return host_test::IsAsleep(thread.first); };
    auto before = look();
    while (!std::ranges::all_of(before, isAsleep) || look() != before) {
        std::this_thread::yield();
        before = look();
    }
    EXPECT_THAT(before, SizeIs(2));
    std::this_thread::sleep_for(std::chrono::seconds(2));  // only time can show that nothing happens
    EXPECT_EQ(look(), before);
}

}  // namespace
