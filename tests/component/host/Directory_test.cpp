// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** What the files hold, and how they are written: by other processes, each on a TV directory of its own. */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Tv.h"

namespace fs = std::filesystem;
using host_test::Folder;
using host_test::Peer;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class DirectoryTest : public testing::Test {
protected:
    Folder tv;
};

// --- The default TV

TEST_F(DirectoryTest, AnEmptyDirectoryBecomesTheDefaultTv) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("flag com.norvik/featureconf/internal_speaker_supported"), "0 1");
    EXPECT_EQ(peer.Do("flag com.norvik/featureconf/multiview.support"), "0 1");
    EXPECT_EQ(peer.Do("flag com.norvik/featureconf/projector_feature_support"), "0 0");
    EXPECT_EQ(peer.Do("text memory/multiscreen/info"), R"(0 {"mode":"off"})");
    EXPECT_EQ(peer.Do("route"), "0 0");
    EXPECT_EQ(peer.Do("volume"), "0 10");
    EXPECT_EQ(peer.Do("mute"), "0 0");
    EXPECT_EQ(peer.Do("zones"), "0 ");
    EXPECT_EQ(peer.Do("gain"), "0 100");
    EXPECT_EQ(peer.Do("sub-gain"), "0 100");
    EXPECT_EQ(tv.Content("audio/master_volume"), "10\n");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
}

TEST_F(DirectoryTest, AMissingDirectoryIsMade) {
    Peer peer(tv, {{"KAVREL_TV_DIR", tv / "a/b"}});
    EXPECT_EQ(peer.Do("volume"), "0 10");
    EXPECT_TRUE(fs::exists(tv / "a/b/audio/master_volume"));
}

TEST_F(DirectoryTest, ADirectoryThatHoldsSomethingIsLeftAsItIs) {
    tv.Echo("audio/master_volume", "55");
    Peer peer(tv);
    EXPECT_EQ(peer.Do("volume"), "0 55");
    EXPECT_EQ(peer.Do("route"), "-1002");
    EXPECT_EQ(peer.Do("flag com.norvik/featureconf/multiview.support"), "-1002");
    EXPECT_EQ(peer.Do("zones"), "0 ");
    EXPECT_THAT(peer.Log(), IsEmpty());
}

TEST_F(DirectoryTest, AKilledFillingIsFinishedByTheNextProcess) {
    tv.Echo("audio/master_volume", "55");
    tv.Put(".filling", "");
    Peer peer(tv);
    EXPECT_EQ(peer.Do("volume"), "0 55");
    EXPECT_EQ(peer.Do("route"), "0 0");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
}

TEST_F(DirectoryTest, ProcessesThatStartAtOnceFindAWholeTvAndOverwriteNothing) {
    for (int round = 0; round < 10; ++round) {
        const Folder folder;
        std::vector<std::unique_ptr<Peer>> peers;
        for (int i = 0; i < 6; ++i) {
            peers.push_back(std::make_unique<Peer>(folder));
            peers.back()->Tell("set-volume 77");
            peers.back()->Tell("flag com.norvik/featureconf/multiview.support");
            peers.back()->Tell("route");
        }
        for (const auto& peer : peers) {
            EXPECT_EQ(peer->Answer(), "0");
            EXPECT_EQ(peer->Answer(), "0 1");
            EXPECT_EQ(peer->Answer(), "0 0");
        }
        EXPECT_EQ(folder.Content("audio/master_volume"), "77\n");
        EXPECT_THAT(folder.Leftovers("."), IsEmpty());
    }
}

TEST_F(DirectoryTest, AnUnusableDirectoryIsOneErrorAndNoCrash) {
    tv.Echo("file", "");
    Peer peer(tv, {{"KAVREL_TV_DIR", tv / "file/tv"}});
    EXPECT_THAT(peer.Do("volume"), StartsWith("-10"));
    EXPECT_THAT(peer.Log().front(), AllOf(StartsWith("E "), HasSubstr(tv / "file/tv")));
    EXPECT_EQ(tv.Content("file"), "\n");
}

// --- Values

TEST_F(DirectoryTest, EveryValueComesBackFromAnotherProcess) {
    fs::create_directories(tv / "sound/zones/-3");
    tv.Echo("zones/focus", "2147483647");
    Peer one(tv);
    Peer two(tv);
    const std::vector<std::array<std::string, 4>> values = {
        {"set-volume 0", "volume", "0 0", "audio/master_volume"},
        {"set-volume 100", "volume", "0 100", "audio/master_volume"},
        {"set-mute 1", "mute", "0 1", "audio/master_mute"},
        {"set-mute 0", "mute", "0 0", "audio/master_mute"},
        {"set-route -2147483648", "route", "0 -2147483648", "sound/route"},
        {"set-route 2147483647", "route", "0 2147483647", "sound/route"},
        {"set-zone-route -3 12", "zone-route -3", "0 12", "sound/zones/-3/route"},
        {"set-gain -7", "gain", "0 -7", "audio/main_out_gain2"},
        {"set-sub-gain 101", "sub-gain", "0 101", "audio/sub_out_gain2"},
        {"set-int memory/a/b -1", "int memory/a/b", "0 -1", "settings/memory/a/b"},
        {"set-text db/a {\"b\": 1}", "text db/a", "0 {\"b\": 1}", "settings/db/a"},
    };
    for (const auto& [set, get, answer, file] : values) {
        EXPECT_EQ(one.Do(set), "0");
        EXPECT_EQ(two.Do(get), answer);
        EXPECT_EQ("0 " + tv.Content(file), answer + '\n');
    }
    EXPECT_EQ(two.Do("focus"), "0 2147483647");
    EXPECT_THAT(one.Log(), IsEmpty());
    EXPECT_THAT(two.Log(), IsEmpty());
}

TEST_F(DirectoryTest, AVolumeOutsideItsRangeChangesNothing) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("set-volume 101"), "-1034");
    EXPECT_EQ(peer.Do("set-volume -1"), "-1034");
    EXPECT_EQ(peer.Do("volume"), "0 10");
}

TEST_F(DirectoryTest, AnIntegerMayHaveBlanksAround) {
    Peer peer(tv);
    tv.Put("audio/master_volume", "  42\t \n");
    EXPECT_EQ(peer.Do("volume"), "0 42");
    tv.Put("audio/master_volume", "7");
    EXPECT_EQ(peer.Do("volume"), "0 7");
    EXPECT_THAT(peer.Log(), IsEmpty());
}

struct Junk {
    const char* file;
    const char* get;
    std::string content;
    const char* answer;
};

class JunkTest : public DirectoryTest, public testing::WithParamInterface<Junk> {};

TEST_P(JunkTest, FailsWithOneErrorLineThatNamesTheFile) {
    fs::create_directories(tv / "sound/zones/1");
    tv.Put(GetParam().file, GetParam().content);
    Peer peer(tv);
    EXPECT_EQ(peer.Do(GetParam().get), GetParam().answer);
    EXPECT_THAT(peer.Log(),
                ElementsAre(AllOf(StartsWith("E "), HasSubstr((tv / GetParam().file).string() + ": "))));
}

constexpr const char* VOLUME = "audio/master_volume";
constexpr const char* KEY = "settings/memory/key";

INSTANTIATE_TEST_SUITE_P(
    , JunkTest,
    testing::Values(Junk{VOLUME, "volume", "", "-1022"}, Junk{VOLUME, "volume", "\n", "-1022"},
                    Junk{VOLUME, "volume", "loud\n", "-1022"}, Junk{VOLUME, "volume", "12 13\n", "-1022"},
                    Junk{VOLUME, "volume", "12x\n", "-1022"}, Junk{VOLUME, "volume", "1.5\n", "-1022"},
                    Junk{VOLUME, "volume", "0x10\n", "-1022"}, Junk{VOLUME, "volume", "12\n\n", "-1022"},
                    Junk{VOLUME, "volume", "101\n", "-1034"}, Junk{VOLUME, "volume", "-1\n", "-1034"},
                    Junk{VOLUME, "volume", "99999999999999999999\n", "-1034"},
                    Junk{"audio/master_mute", "mute", "2\n", "-1034"},
                    Junk{"audio/master_mute", "mute", "true\n", "-1022"},
                    Junk{"sound/route", "route", "2147483648\n", "-1034"},
                    Junk{"sound/zones/1/route", "zone-route 1", "tv\n", "-1022"},
                    Junk{"zones/focus", "focus", "-2147483649\n", "-1034"},
                    Junk{"audio/main_out_gain2", "gain", std::string(3, '\0'), "-1022"},
                    Junk{"features/a", "flag a", "TRUE\n", "-1022"},
                    Junk{"features/a", "flag a", "1\n", "-1022"},
                    Junk{KEY, "int memory/key", "one\n", "-1022"},
                    Junk{KEY, "text memory/key", std::string("a\0b\n", 4), "null"},
                    Junk{KEY, "text memory/key", std::string(1024 * 1024 + 1, 'a'), "null"}));

TEST_F(DirectoryTest, AFolderOrAPipeInAValuesPlaceFailsAtOnce) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("text memory"), "null");
    ASSERT_EQ(mkfifo((tv / KEY).c_str(), 0600), 0);
    EXPECT_EQ(peer.Do("text memory/key"), "null");
    EXPECT_THAT(peer.Log(), ElementsAre(HasSubstr("settings/memory: Is a directory"), HasSubstr(KEY)));
}

TEST_F(DirectoryTest, WhatIsMissingFailsWithoutAnErrorLine) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("int memory/none"), "-1002");
    EXPECT_EQ(peer.Do("text memory/none"), "null");
    EXPECT_EQ(peer.Do("flag com.norvik/none"), "-1002");
    EXPECT_EQ(peer.Do("focus"), "-1002");
    EXPECT_THAT(peer.Log(), IsEmpty());
}

TEST_F(DirectoryTest, AKeyThatCouldLeaveTheDirectoryIsRefused) {
    tv.Echo("secret", "1");
    Peer peer(tv, {{"KAVREL_TV_DIR", tv / "tv"}});
    const std::vector<std::string> keys = {
        "../secret",  "memory/../../../secret", "/etc/passwd", "memory//a", "memory/", "memory/.hid", ".",
        "memory/a/.."};
    for (const std::string& key : keys) {
        EXPECT_EQ(peer.Do("int " + key), "-1022") << key;
        EXPECT_EQ(peer.Do("flag " + key), "-1022") << key;
        EXPECT_EQ(peer.Do("set-int " + key + " 5"), "-1022") << key;
        EXPECT_EQ(peer.Do("hear " + key), "-1022") << key;
    }
    EXPECT_EQ(peer.Do("int"), "-1022");  // the empty key
    EXPECT_THAT(peer.Log(), SizeIs(4 * keys.size() + 1));
    EXPECT_EQ(tv.Content("secret"), "1\n");
}

TEST_F(DirectoryTest, ZonesAreTheFoldersInAscendingOrder) {
    for (const char* const name : {"10", "9", "-1", "01", "1x", "x", "+2", "-0", "2147483648", ".3", " 4"})
        fs::create_directories(tv / "sound/zones" / name);
    tv.Echo("sound/zones/5", "a file");
    Peer peer(tv);
    EXPECT_EQ(peer.Do("zones"), "0 -1,9,10");
    EXPECT_EQ(peer.Do("zone-route 9"), "-1002");
    EXPECT_EQ(peer.Do("zone-route 1"), "-26607612");
    EXPECT_EQ(peer.Do("set-zone-route 1 2"), "-26607612");
    EXPECT_EQ(peer.Do("zone-route 5"), "-26607612");
    EXPECT_FALSE(fs::exists(tv / "sound/zones/1"));
    fs::remove_all(tv / "sound");
    EXPECT_EQ(peer.Do("zones"), "0 ");
}

TEST_F(DirectoryTest, AnEventIsAFileWithAnEscapedName) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("is-done /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(peer.Do("done /tmp/.kavrel_ready"), "0");
    EXPECT_TRUE(fs::exists(tv / "events/%2Ftmp%2F%2Ekavrel_ready"));
    EXPECT_EQ(peer.Do("is-done /tmp/.kavrel_ready"), "1");
    EXPECT_EQ(peer.Do("reset /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(peer.Do("reset /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(peer.Do("is-done /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(peer.Do("done .."), "0");
    EXPECT_EQ(peer.Do("done a-Z_0%\xC3\xA4"), "0");
    EXPECT_TRUE(fs::exists(tv / "events/%2E%2E"));
    EXPECT_TRUE(fs::exists(tv / "events/a-Z_0%25%C3%A4"));
    EXPECT_EQ(peer.Do("done"), "-1022");
    EXPECT_EQ(peer.Do("is-done"), "-1022");
}

TEST_F(DirectoryTest, TheFolderForDbMayBeALink) {
    const Folder persistent;
    fs::create_directories(tv / "settings");
    fs::create_directory_symlink(persistent.Path(), tv / "settings/db");
    Peer peer(tv);
    EXPECT_EQ(peer.Do("set-int db/usb/level 4"), "0");
    EXPECT_EQ(persistent.Content("usb/level"), "4\n");
    EXPECT_EQ(peer.Do("int db/usb/level"), "0 4");
    EXPECT_TRUE(fs::is_symlink(tv / "settings/db"));
}

TEST_F(DirectoryTest, AMissingFolderIsMadeForAValue) {
    tv.Echo("sound/route", "0");
    Peer peer(tv);
    EXPECT_EQ(peer.Do("set-volume 1"), "0");
    EXPECT_EQ(peer.Do("done ready"), "0");
    EXPECT_EQ(peer.Do("set-int memory/a/b/c 1"), "0");
    EXPECT_EQ(tv.Content("settings/memory/a/b/c"), "1\n");
}

// --- Writing

TEST_F(DirectoryTest, ALeftoverIsRemovedByTheNextWriterOfThatValueOnly) {
    Peer peer(tv);
    ASSERT_EQ(peer.Do("volume"), "0 10");
    tv.Put("audio/.master_volume.aB3-_9", "5");
    tv.Put("audio/.master_mute.aB3-_9", "1");
    tv.Put("audio/.master_volume.longer1", "5");
    EXPECT_EQ(peer.Do("set-volume 20"), "0");
    EXPECT_THAT(tv.Leftovers("audio"), ElementsAre(".master_mute.aB3-_9", ".master_volume.longer1"));
}

TEST_F(DirectoryTest, ALiveWritersFileIsNoLeftover) {
    Peer peer(tv);
    ASSERT_EQ(peer.Do("volume"), "0 10");
    tv.Put("audio/.master_volume.writer", "5");
    const int writer = open((tv / "audio/.master_volume.writer").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    EXPECT_EQ(peer.Do("set-volume 20"), "0");
    EXPECT_THAT(tv.Leftovers("audio"), ElementsAre(".master_volume.writer"));
    close(writer);  // as when it is killed
    EXPECT_EQ(peer.Do("set-volume 20"), "0");
    EXPECT_THAT(tv.Leftovers("audio"), IsEmpty());
}

TEST_F(DirectoryTest, WritersOfOneValueNeverDisturbEachOther) {
    Peer one(tv);
    Peer two(tv);
    ASSERT_EQ(one.Do("volume"), "0 10");
    one.Tell("storm memory/key 3000 1");
    two.Tell("storm memory/key 3000 1");
    EXPECT_EQ(one.Answer(), "0");
    EXPECT_EQ(two.Answer(), "0");
    EXPECT_THAT(one.Log(), IsEmpty());
    EXPECT_THAT(two.Log(), IsEmpty());
    EXPECT_THAT(tv.Leftovers("settings/memory"), IsEmpty());
}

TEST_F(DirectoryTest, AWriterKilledAtAnyMomentLeavesAWholeValue) {
    constexpr int KILLS = 500;
    constexpr std::size_t SIZE = 100'000;
    Peer reader(tv);
    ASSERT_EQ(reader.Do("set-text memory/key a"), "0");
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::size_t leftovers = 0;
    for (int i = 0; i < KILLS; ++i) {
        Peer writer(tv);
        ASSERT_EQ(writer.Do("set-text memory/begun " + std::to_string(i)), "0");
        writer.Tell("storm memory/key 0 " + std::to_string(SIZE));
        // Later and later until one has met a writer at its work, which begins late on a busy machine.
        const unsigned int latest = leftovers > 0 ? 2000U : 2000U + static_cast<unsigned int>(i) * 100U;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % latest));
        writer.Kill();
        const std::string text = tv.Content(KEY);
        ASSERT_EQ(text.back(), '\n');
        ASSERT_TRUE(text == "a\n" || text == std::string(SIZE, text.front()) + '\n');
        leftovers += tv.Leftovers("settings/memory").size();
        ASSERT_LE(tv.Leftovers("settings/memory").size(), 1U);  // each writer removes that of the one before
    }
    EXPECT_GT(leftovers, 0U) << "no kill met a writer at its work";
    EXPECT_EQ(reader.Do("set-text memory/key end"), "0");
    EXPECT_EQ(reader.Do("text memory/key"), "0 end");
    EXPECT_THAT(tv.Leftovers("settings/memory"), IsEmpty());
}

TEST_F(DirectoryTest, AFullDiskIsAClearErrorAndTheOldValueStands) {
    Peer peer(tv);
    const std::string old(3000, 'o');
    const std::string wanted(5000, 'n');
    for (const std::string folder : {"memory", "db"}) {
        ASSERT_EQ(peer.Do("set-text " + folder + "/key " + old), "0");
        ASSERT_EQ(peer.Do("limit-files 4096"), "0");
        EXPECT_EQ(peer.Do("set-text " + folder + "/key " + wanted), "-1027");
        EXPECT_EQ(peer.Do("text " + folder + "/key"), "0 " + old);
        EXPECT_THAT(tv.Leftovers("settings/" + folder), IsEmpty());
        EXPECT_THAT(peer.Log().back(), AllOf(StartsWith("E Cannot write "),
                                             HasSubstr("settings/" + folder + "/key: File too large")));
    }
    EXPECT_THAT(peer.Log(), SizeIs(2));
}

TEST_F(DirectoryTest, AReadOnlyFolderIsAClearErrorAndTheOldValueStands) {
    Peer peer(tv);
    ASSERT_EQ(peer.Do("set-volume 20"), "0");
    ASSERT_EQ(peer.Do("drop-capabilities"), "0");
    fs::permissions(tv / "audio", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(peer.Do("set-volume 30"), "-1013");
    EXPECT_EQ(peer.Do("volume"), "0 20");
    EXPECT_THAT(peer.Log(), ElementsAre("E Cannot write " + (tv / VOLUME).string() + ": Permission denied"));
    fs::permissions(tv / "audio", fs::perms::owner_all);
    EXPECT_EQ(peer.Do("set-volume 30"), "0");
}

TEST_F(DirectoryTest, TextLongerThanAMebibyteIsRefused) {
    Peer peer(tv);
    ASSERT_EQ(peer.Do("set-text memory/key a"), "0");
    EXPECT_EQ(peer.Do("storm memory/key 1 1048577"), "-1027");
    EXPECT_EQ(peer.Do("text memory/key"), "0 a");
    EXPECT_EQ(peer.Do("storm memory/key 1 1048576"), "0");
    EXPECT_EQ(peer.Do("text memory/key"), "0 " + std::string(1048576, 'a'));
}

}  // namespace
