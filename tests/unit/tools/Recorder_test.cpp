// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recorder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "Errors.h"
#include "LostNotifications.h"
#include "Platform.h"
#include "Player.h"
#include "TemporaryFolder.h"

namespace fs = std::filesystem;

namespace tv {
namespace {

using Lines = std::vector<std::string>;
using Clock = Recorder::Clock;

/** Has the TV of this process: a process has only one. */
class RecorderTest : public testing::Test {
protected:
    RecorderTest() {
        fs::create_directory(Tv());
        OpenTv(Tv());
        Set(host::MASTER_VOLUME, "10");
        Set(host::MASTER_MUTE, "0");
        Set(host::ROUTE, "0");
    }

    static const fs::path& Folder() {
        static const TemporaryFolder FOLDER;
        return FOLDER.Path();
    }
    static fs::path Tv() { return Folder() / "tv"; }
    static fs::path File() { return Folder() / "some\x1B.csv"; }  // a name that a terminal would obey
    static void Set(const host::Value& value, const std::string& text) {
        EXPECT_EQ(host::Write(value, text).number, 0);
    }

    /** Sets the value; then lets the recorder see it: the kernel has noted it already. */
    void Change(const host::Value& value, const std::string& text) {
        Set(value, text);
        Settle();
    }
    static void Settle() {
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }

    /** @return the lines recorded since the last call, without their times, which must not go back */
    Lines NewLines() {
        std::ifstream file(File());
        file.seekg(m_seen);
        Lines lines;
        for (std::string line; std::getline(file, line);) {
            m_seen += static_cast<std::streamoff>(line.size()) + 1;
            const std::size_t comma = line.find(',');
            if (line.starts_with("seconds")) {
                lines.push_back("header");
                continue;
            }
            EXPECT_GE(std::stod(line), m_time) << line;
            m_time = std::stod(line);
            lines.push_back(line.substr(comma + 1));
        }
        return lines;
    }

    /** @return the events of the new lines, of which no value may have changed */
    Lines NewEvents() {
        Lines events = NewLines();
        for (std::string& line : events) {
            EXPECT_TRUE(line.starts_with("100,100,10,0,tv,10,0,")) << line;
            line = line.substr(line.rfind(',') + 1);
        }
        return events;
    }

    tools::MainLoop m_loop;

private:
    std::streamoff m_seen = 0;
    double m_time = 0;
};

TEST_F(RecorderTest, AChangeOfAValueIsALineAtOnce) {
    std::ofstream(File()) << "old\n";
    const Recorder recorder(m_loop, File(), Recorder::Content::CHANGES);
    EXPECT_EQ(NewLines(), (Lines{"header", "100,100,10,0,tv,10,0,start"}));
    Change(host::MASTER_VOLUME, "20");
    Change(host::MASTER_VOLUME, "20");
    EXPECT_EQ(NewLines(), Lines{"100,100,20,0,tv,20,0,"});
    std::ofstream(Tv() / host::MASTER_VOLUME.path) << "150\n";
    Settle();
    EXPECT_EQ(NewLines(), Lines{"100,100,150,0,tv,150,0,"});
    Change(host::SUB_OUT_GAIN, "55");
    EXPECT_EQ(NewLines(), Lines{"100,55,150,0,tv,150,0,"});
    Change(host::SUB_OUT_GAIN, "100");
    EXPECT_EQ(NewLines(), Lines{"100,100,150,0,tv,150,0,"});
    Change(host::MAIN_OUT_GAIN, "45");
    EXPECT_EQ(NewLines(), Lines{"45,100,150,0,tv,150,0,"});
    Change(host::MAIN_OUT_GAIN, "100");
    Change(host::MASTER_MUTE, "1");
    Change(host::MASTER_MUTE, "0");
    EXPECT_EQ(NewLines(),
              (Lines{"100,100,150,0,tv,150,0,", "100,100,150,1,tv,150,1,", "100,100,150,0,tv,150,0,"}));
    std::ofstream(Tv() / host::ROUTE.path) << "loud\n";
    Settle();
    EXPECT_EQ(NewLines(), Lines{"100,100,150,0,,,,route loud"});
}

TEST_F(RecorderTest, TheVolumeOfTheTvIsNoEventWhileAnotherOutputPlays) {
    const DeviceKind& hdmi = *FindRoute(2)->device;
    Set(host::ROUTE, "2");
    Set(hdmi.level, "40");
    Set(hdmi.mute, "0");
    const Recorder recorder(m_loop, File(), Recorder::Content::CHANGES);
    EXPECT_EQ(NewLines(), (Lines{"header", "100,100,10,0,hdmi,40,0,start"}));
    Change(host::MASTER_VOLUME, "20");
    Change(host::MASTER_MUTE, "1");
    EXPECT_EQ(NewLines(), (Lines{"100,100,20,0,hdmi,40,0,", "100,100,20,1,hdmi,40,0,"}));
}

TEST_F(RecorderTest, AnEventHasItsNameAndItsValue) {
    const Recorder recorder(m_loop, File(), Recorder::Content::CHANGES);
    EXPECT_EQ(NewLines().size(), 2U);
    const DeviceKind& hdmi = *FindRoute(2)->device;
    for (const auto& [value, text, event] : std::vector<std::tuple<host::Value, std::string, std::string>>{
             {host::LEVEL_REQUEST, "40", "level request 40"},
             {host::MUTE_REQUEST, "1", "mute request 1"},
             {hdmi.support, "15", "hdmi support 15"},
             {hdmi.level, "40", "hdmi level 40"},
             {hdmi.mute, "1", "hdmi mute 1"},
             {host::OPTICAL_CABLE, "1", "cable in"},
             {host::OPTICAL_CABLE, "0", "cable out"},
             {{host::OPTICAL_CABLE.path, host::TEXT}, "2", "cable 2"},
             {{host::OPTICAL_CABLE.path, host::TEXT}, "loose", "cable loose"},
             {host::MOBILE_MIRRORING, "0", "mobile off"},
             {host::PROJECTOR_READY, "1", "projector ready"},
             {host::SUB_BLUETOOTH_ZONE, "-1", "sub-bt -1"},
             {host::MULTIVIEW_INFO, "{\"mode\":\"off\"}", "multiview off"},
             {host::MULTIVIEW_INFO, "{\"mode\":5}", "multiview unreadable"},
             {host::KeyValue(host::SETTINGS, "db/some/text"), "a b", "settings/db/some/text a b"}}) {
        Change(value, text);
        Lines events = NewEvents();
        ASSERT_FALSE(events.empty()) << event;
        EXPECT_EQ(events.back(), event);
    }
    fs::create_symlink("nowhere", Tv() / ".link");
    fs::rename(Tv() / ".link", Tv() / "sound/link");
    Settle();
    EXPECT_EQ(NewEvents().back(), "sound/link unreadable");
}

TEST_F(RecorderTest, LostNotificationsAreAnEvent) {
    const Recorder recorder(m_loop, File(), Recorder::Content::CHANGES);
    EXPECT_EQ(NewLines().size(), 2U);
    fake::LoseNotificationsOf(Tv() / "sound");
    Settle();
    EXPECT_EQ(NewEvents(), Lines{"notifications lost"});
}

TEST_F(RecorderTest, AChangeWaitsForTheSoundBeforeIt) {
    const auto early = Clock::now() - std::chrono::seconds(1);
    Recorder recorder(m_loop, File(), Recorder::Content::CHANGES_AND_SOUND);
    EXPECT_EQ(NewLines(), (Lines{"header", "100,100,10,0,tv,10,0,,start"}));
    recorder.Hear(early, 1.5);
    EXPECT_EQ(NewLines(), Lines{"100,100,10,0,tv,10,0,1.5000,"});
    const auto before = Clock::now();
    Change(host::MASTER_VOLUME, "20");
    EXPECT_EQ(NewLines(), Lines{});
    recorder.Hear(before, 2);
    EXPECT_EQ(NewLines(), Lines{"100,100,10,0,tv,10,0,2.0000,"});
    recorder.Hear(Clock::now(), 3);
    EXPECT_EQ(NewLines(), (Lines{"100,100,20,0,tv,20,0,,", "100,100,20,0,tv,20,0,3.0000,"}));
    Change(host::MASTER_VOLUME, "30");
    testing::internal::CaptureStdout();
    EXPECT_EQ(recorder.RunFor(0.001), tools::EXIT_DONE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "7 lines in " + Folder().string() + "/some?.csv\n");
    EXPECT_EQ(NewLines(), (Lines{"100,100,30,0,tv,30,0,,", "100,100,30,0,tv,30,0,,end"}));
}

TEST_F(RecorderTest, AFullDiskIsAnError) {
    EXPECT_THROW(Recorder(m_loop, "/dev/full", Recorder::Content::CHANGES), tools::ToolError);
}

// --- The right to play the devices

class PlayerTest : public RecorderTest {};

TEST_F(PlayerTest, TheLastProcessThatTookTheRightHasIt) {
    Player player;
    EXPECT_FALSE(player.IsThisProcess());
    player.Take();
    EXPECT_TRUE(player.IsThisProcess());
    EXPECT_EQ(player.Process(), getpid());
    EXPECT_EQ(player.Look(), Player::Change::NONE);
    Set(Player::File(), std::to_string(getppid()));
    EXPECT_EQ(player.Look(), Player::Change::TAKEN_AWAY);
    EXPECT_EQ(player.Process(), getppid());
    EXPECT_EQ(player.Look(), Player::Change::NONE);
    EXPECT_FALSE(player.IsThisProcess());
}

TEST_F(PlayerTest, OneThatWaitsLeavesTheMarkOfTheOther) {
    Set(Player::File(), std::to_string(getppid()));
    {
        Player waiting;
        EXPECT_EQ(waiting.Look(), Player::Change::NONE);
    }
    EXPECT_TRUE(fs::exists(Tv() / ".devices"));
    {
        Player player;
        player.Take();
    }
    EXPECT_FALSE(fs::exists(Tv() / ".devices"));
}

TEST_F(PlayerTest, AProcessOfAnotherUserPlaysOn) {
    Set(Player::File(), "1");
    const bool isRoot = getuid() == 0;
    if (isRoot) {  // who may signal each process
        fs::permissions(Folder(), fs::perms(0755));
        ASSERT_EQ(setresuid(65534, 65534, 0), 0);
    }
    Player player;
    EXPECT_EQ(player.Look(), Player::Change::NONE);
    EXPECT_EQ(player.Process(), 1);
    if (isRoot) {
        ASSERT_EQ(setresuid(0, 0, 0), 0);
    }
}

}  // namespace
}  // namespace tv
