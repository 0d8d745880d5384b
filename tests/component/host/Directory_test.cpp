// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The contents of the files and how they are written. Each test runs processes on a TV directory of its own. */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "HostTest.h"

namespace fs = std::filesystem;
using host_test::Folder;
using host_test::OtherProcess;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* NO_SUCH_ZONE = "-26607612";
constexpr const char* VOLUME = "audio/master_volume";
constexpr const char* KEY = "settings/memory/key";

/** The files and folders of a TV, but for the writers' own. */
std::set<std::string> Below(const Folder& tv) {
    std::set<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(tv.Path())) {
        const std::string path = fs::relative(entry.path(), tv.Path());
        if (!path.starts_with(".tmp")) {
            paths.insert(path);
        }
    }
    return paths;
}

class DirectoryTest : public testing::Test {
protected:
    Folder tv;
};

// --- The default TV

TEST_F(DirectoryTest, AnEmptyDirectoryBecomesTheDefaultTv) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("flag com.norvik/featureconf/internal_speaker_supported"), "0 1");
    EXPECT_EQ(other.Do("flag com.norvik/featureconf/multiview.support"), "0 1");
    EXPECT_EQ(other.Do("flag com.norvik/featureconf/projector_feature_support"), "0 0");
    EXPECT_EQ(other.Do("text memory/multiscreen/info"), R"(0 {"mode":"off"})");
    EXPECT_EQ(other.Do("route"), "0 0");
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_EQ(other.Do("mute"), "0 0");
    EXPECT_EQ(other.Do("zones"), "0 ");
    EXPECT_EQ(other.Do("gain"), "0 100");
    EXPECT_EQ(other.Do("sub-gain"), "0 100");
    EXPECT_EQ(tv.Content("audio/master_volume"), "10\n");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
    EXPECT_THAT(Below(tv),
                UnorderedElementsAre("audio", "audio/main_out_gain2", "audio/master_mute",
                                     "audio/master_volume", "audio/sub_out_gain2", "events", "features",
                                     "features/com.norvik", "features/com.norvik/featureconf",
                                     "features/com.norvik/featureconf/internal_speaker_supported",
                                     "features/com.norvik/featureconf/multiview.support",
                                     "features/com.norvik/featureconf/projector_feature_support", "settings",
                                     "settings/db", "settings/memory", "settings/memory/multiscreen",
                                     "settings/memory/multiscreen/info", "sound", "sound/route",
                                     "sound/zones", "zones"));
}

TEST_F(DirectoryTest, AMissingDirectoryIsMade) {
    OtherProcess other(tv, {{"KAVREL_TV_DIR", tv / "a/b"}});
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_TRUE(fs::exists(tv / "a/b/audio/master_volume"));
}

TEST_F(DirectoryTest, ADirectoryThatHoldsSomethingIsLeftAsItIs) {
    tv.Echo("audio/master_volume", "55");
    fs::create_directory(tv / "settings");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 55");
    EXPECT_EQ(other.Do("route"), "-1002");
    EXPECT_EQ(other.Do("flag com.norvik/featureconf/multiview.support"), "-1002");
    EXPECT_EQ(other.Do("zones"), "0 ");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, AKilledFillingIsFinishedByTheNextProcess) {
    tv.Echo("audio/master_volume", "55");
    tv.Put(".filling", "");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 55");
    EXPECT_EQ(other.Do("route"), "0 0");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
}

TEST_F(DirectoryTest, ADirectoryWithNothingButTheLinkForDbIsEmpty) {
    const Folder persistent;
    fs::create_directories(tv / "settings");
    fs::create_directories(tv / ".hidden");
    fs::create_directories(tv / "settings/.hidden");
    fs::create_directory_symlink(persistent / "later", tv / "settings/db");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_TRUE(fs::is_symlink(tv / "settings/db"));
}

TEST_F(DirectoryTest, ADirectoryWithAnotherLinkInItsSettingsIsLeftAsItIs) {
    fs::create_directories(tv / "settings");
    fs::create_directory_symlink("nowhere", tv / "settings/memory");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "-1002");
}

TEST_F(DirectoryTest, AMarkThatIsNoFileNeitherHangsTheStartNorLeadsElsewhere) {
    const Folder outside;
    fs::create_symlink(outside / "made", tv / ".filling");
    EXPECT_EQ(OtherProcess(tv).Do("volume"), "0 10");
    EXPECT_FALSE(fs::exists(outside / "made"));
    const Folder second;
    ASSERT_EQ(mkfifo((second / ".filling").c_str(), 0600), 0);
    EXPECT_EQ(OtherProcess(second).Do("volume"), "0 10");
}

TEST_F(DirectoryTest, AMarkThatIsALinkToNothingIsAMark) {
    tv.Echo("audio/master_volume", "55");
    fs::create_symlink(tv / "nowhere", tv / ".filling");
    EXPECT_EQ(OtherProcess(tv).Do("route"), "0 0");
}

TEST_F(DirectoryTest, ATvThatCannotBeFilledIsAClearError) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    fs::permissions(tv.Path(), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_write);
    EXPECT_EQ(other.Do("volume"), "-1002");
    EXPECT_THAT(other.Log(),
                ElementsAre("E Cannot make " + (tv / ".filling").string() + ": Permission denied",
                            StartsWith("W Others than its owner")));
    fs::permissions(tv.Path(), fs::perms::owner_all);
}

TEST_F(DirectoryTest, AFolderWithTheNameOfTheMarkIsNoMark) {
    tv.Put(".filling/note", "");
    {
        OtherProcess first(tv);
        EXPECT_EQ(first.Do("volume"), "0 10");
        EXPECT_THAT(first.Log(), IsEmpty());
    }
    fs::remove(tv / "sound/route");
    OtherProcess second(tv);
    EXPECT_EQ(second.Do("route"), "-1002") << "the TV was filled again";
    EXPECT_TRUE(fs::exists(tv / ".filling/note"));
}

TEST_F(DirectoryTest, ADirectoryThatOthersMayWriteIsWarnedOfOnce) {
    fs::permissions(tv.Path(), fs::perms::all);
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(), ElementsAre("W Others than its owner and the group audio may write to " +
                                         tv.Path().string()));
}

TEST_F(DirectoryTest, AWarningNamesADirectoryWithAPercentSignAsItIs) {
    fs::create_directory(tv / "%d");
    fs::permissions(tv / "%d", fs::perms::all);
    OtherProcess other(tv, {{"KAVREL_TV_DIR", tv / "%d"}});
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(), ElementsAre(EndsWith("may write to " + (tv / "%d").string())));
}

TEST_F(DirectoryTest, ADirectoryThatAForeignGroupMayWriteIsWarnedOf) {
    constexpr gid_t FOREIGN = 54321;
    if (chown(tv.Path().c_str(), static_cast<uid_t>(-1), FOREIGN) != 0) {
        ASSERT_NE(getegid(),
                  0U);  // only root can give it to another group; this user's own group serves, too
    }
    {
        OtherProcess first(tv);
        EXPECT_EQ(first.Do("volume"), "0 10");
        EXPECT_THAT(first.Log(), IsEmpty()) << "the group may not write";
    }
    fs::permissions(tv.Path(), fs::perms::owner_all | fs::perms::group_all);
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(),
                ElementsAre(StartsWith("W Others than its owner and the group audio may write")));
}

TEST_F(DirectoryTest, TheGroupOfRootMayWriteToTheDirectory) {
    if (chown(tv.Path().c_str(), static_cast<uid_t>(-1), 0) != 0) {
        ASSERT_NE(geteuid(), 0U);
        return;  // only root can give the directory to that group
    }
    fs::permissions(tv.Path(), fs::perms::owner_all | fs::perms::group_all);
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, TheGroupAudioMayWriteToTheDirectory) {
    std::array<char, 4096> buffer{};
    group found{};
    group* audio = nullptr;
    ASSERT_EQ(getgrnam_r("audio", &found, buffer.data(), buffer.size(), &audio), 0);
    ASSERT_NE(audio, nullptr);
    if (chown(tv.Path().c_str(), static_cast<uid_t>(-1), audio->gr_gid) != 0) {
        ASSERT_NE(geteuid(), 0U);
        return;  // only root can give the directory to that group
    }
    fs::permissions(tv.Path(), fs::perms::owner_all | fs::perms::group_all);
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, ADirectoryThatCannotBeListedIsAnErrorAndNotFilled) {
    fs::permissions(tv.Path(), fs::perms::owner_write | fs::perms::owner_exec);
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    EXPECT_EQ(other.Do("volume"), "-1002");
    EXPECT_THAT(other.Log(), ElementsAre("E Cannot list " + tv.Path().string() + ": Permission denied"));
    fs::permissions(tv.Path(), fs::perms::owner_all);
    EXPECT_FALSE(fs::exists(tv / "audio"));
}

TEST_F(DirectoryTest, AFillingThatFailsAtAFolderIsAnErrorAndKeepsItsMark) {
    tv.Put(".filling", "");
    tv.Put("audio", "no folder");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("route"), "-1002");
    EXPECT_THAT(other.Log(), ElementsAre("E Cannot make " + (tv / "audio").string() + ": Not a directory"));
    EXPECT_TRUE(fs::exists(tv / ".filling"));
}

TEST_F(DirectoryTest, AFillingThatFailsAtAValueIsAnError) {
    tv.Put(".filling", "");
    fs::create_directories(tv / "sound");
    fs::create_directories(tv / "sound/zones");
    fs::permissions(tv / "sound", fs::perms::owner_read | fs::perms::owner_exec);
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    EXPECT_EQ(other.Do("volume"), "-1002");
    EXPECT_THAT(other.Log(),
                ElementsAre("E Cannot write " + (tv / "sound/route").string() + ": Permission denied"));
    fs::permissions(tv / "sound", fs::perms::owner_all);
}

TEST_F(DirectoryTest, WithoutTheVariableOrWithAnEmptyOneTheDirectoryIsThatOfTheSystem) {
    for (const auto& variable : {std::optional<std::string>(), std::optional<std::string>("")}) {
        OtherProcess other(tv, {{"KAVREL_TV_DIR", variable}});
        ASSERT_EQ(other.Do("own-mounts"), "0");
        ASSERT_EQ(other.Do("mount /run"), "0");  // the test shall not touch the machine's own
        EXPECT_EQ(other.Do("volume"), "0 10");
        EXPECT_EQ(other.Do("echo /run/kavrel/audio/master_volume 33"), "0");
        EXPECT_EQ(other.Do("volume"), "0 33");
    }
}

TEST_F(DirectoryTest, ARelativeDirectoryStaysWhereItWasAtTheStart) {
    fs::create_directory(tv / "elsewhere");
    OtherProcess other(tv, {{"KAVREL_TV_DIR", "relative"}});
    ASSERT_EQ(other.Do("change-directory " + tv.Path().string()), "0");
    ASSERT_EQ(other.Do("volume"), "0 10");
    ASSERT_EQ(other.Do("change-directory elsewhere"), "0");
    EXPECT_EQ(other.Do("set-volume 20"), "0");
    EXPECT_EQ(tv.Content("relative/audio/master_volume"), "20\n");
}

TEST_F(DirectoryTest, ProcessesThatStartAtOnceFindAWholeTvAndOverwriteNothing) {
    for (int round = 0; round < 10; ++round) {
        const Folder folder;
        std::vector<std::unique_ptr<OtherProcess>> others;
        for (int i = 0; i < 6; ++i) {
            others.push_back(std::make_unique<OtherProcess>(folder));
            others.back()->Tell("set-volume 77");
            others.back()->Tell("flag com.norvik/featureconf/multiview.support");
            others.back()->Tell("route");
        }
        for (const auto& other : others) {
            EXPECT_EQ(other->Answer(), "0");
            EXPECT_EQ(other->Answer(), "0 1");
            EXPECT_EQ(other->Answer(), "0 0");
        }
        EXPECT_EQ(folder.Content("audio/master_volume"), "77\n");
        EXPECT_THAT(folder.Leftovers("."), IsEmpty());
    }
}

TEST_F(DirectoryTest, AnUnusableDirectoryFailsEachCallButThatOfARegistration) {
    const std::vector<std::pair<std::string, std::string>> calls = {
        {"volume", "Cannot read T/audio/master_volume"},
        {"set-mute 1", "Cannot write T/audio/master_mute"},
        {"set-route 2", "Cannot write T/sound/route"},
        {"zones", "Cannot list T/sound/zones"},
        {"focus", "Cannot read T/zones/focus"},
        {"set-gain 3", "Cannot write T/audio/main_out_gain2"},
        {"flag com.norvik/x", "Cannot read T/features/com.norvik/x"},
        {"int memory/x", "Cannot read T/settings/memory/x"},
        {"set-int db/x 1", "Cannot write T/settings/db/x"},
        {"done event", "Cannot write T/events/event"},
        {"is-done event", "Cannot look for T/events/event"},
        {"reset event", "Cannot remove T/events/event"},
    };
    tv.Echo("file", "");
    for (const auto& place : {tv / "file", tv / "file/tv"}) {
        OtherProcess other(tv, {{"KAVREL_TV_DIR", place}});
        std::vector<std::string> lines = {"E Cannot make the TV in " + place.string() + ": Not a directory"};
        for (const auto& [call, error] : calls) {
            EXPECT_EQ(other.Do(call), "-1020") << call;
            const auto root = error.find('T');
            lines.push_back("E " + error.substr(0, root) + place.string() + error.substr(root + 1) +
                            ": Not a directory");
        }
        EXPECT_THAT(other.Log(), ElementsAreArray(lines));
        EXPECT_EQ(other.Do("zone-route 1"), NO_SUCH_ZONE);
        EXPECT_EQ(other.Do("hear volume"), "0");
    }
    EXPECT_EQ(tv.Content("file"), "\n");
}

// --- Values

TEST_F(DirectoryTest, EveryValueComesBackFromAnotherProcess) {
    fs::create_directories(tv / "sound/zones/-3");
    tv.Echo("zones/focus", "2147483647");
    OtherProcess one(tv);
    OtherProcess two(tv);
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
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-volume 101"), "-1034");
    EXPECT_EQ(other.Do("set-volume -1"), "-1034");
    EXPECT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, WhatIsWrongWithAValueIsSaid) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    tv.Echo(VOLUME, "101");
    EXPECT_EQ(other.Do("volume"), "-1034");
    tv.Echo(VOLUME, "loud");
    EXPECT_EQ(other.Do("volume"), "-1022");
    const std::string cannot = "E Cannot read " + (tv / VOLUME).string() + ": ";
    EXPECT_THAT(other.Log(), ElementsAre(cannot + "out of range", cannot + "not a valid value"));
}

TEST_F(DirectoryTest, AnIntegerMayHaveBlanksAround) {
    OtherProcess other(tv);
    tv.Put("audio/master_volume", "  42\t \n");
    EXPECT_EQ(other.Do("volume"), "0 42");
    tv.Put("audio/master_volume", "7");
    EXPECT_EQ(other.Do("volume"), "0 7");
    EXPECT_THAT(other.Log(), IsEmpty());
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
    OtherProcess other(tv);
    EXPECT_EQ(other.Do(GetParam().get), GetParam().answer);
    EXPECT_THAT(other.Log(),
                ElementsAre(StartsWith("E Cannot read " + (tv / GetParam().file).string() + ": ")));
}

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
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("text memory"), "null");
    ASSERT_EQ(mkfifo((tv / KEY).c_str(), 0600), 0);
    EXPECT_EQ(other.Do("int memory/key"), "-1022");
    EXPECT_THAT(other.Log(), ElementsAre(HasSubstr("settings/memory: Is a directory"), HasSubstr(KEY)));
}

TEST_F(DirectoryTest, ADeviceInAValuesPlaceIsNoEmptyText) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    fs::remove(tv / "settings/db");
    fs::create_directory_symlink("/dev", tv / "settings/db");
    EXPECT_EQ(other.Do("text db/null"), "null");
    EXPECT_THAT(other.Log(), ElementsAre(HasSubstr("settings/db/null: ")));
}

TEST_F(DirectoryTest, WhatIsMissingFailsWithoutAnErrorLine) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("int memory/none"), "-1002");
    EXPECT_EQ(other.Do("text memory/none"), "null");
    EXPECT_EQ(other.Do("flag com.norvik/none"), "-1002");
    EXPECT_EQ(other.Do("focus"), "-1002");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, AKeyThatCouldLeaveTheDirectoryIsRefused) {
    tv.Echo("secret", "1");
    OtherProcess other(tv, {{"KAVREL_TV_DIR", tv / "tv"}});
    const std::vector<std::string> keys = {
        "../secret",  "memory/../../../secret", "/etc/passwd", "memory//a", "memory/", "memory/.hid", ".",
        "memory/a/.."};
    for (const std::string& key : keys) {
        EXPECT_EQ(other.Do("int " + key), "-1022") << key;
        EXPECT_EQ(other.Do("flag " + key), "-1022") << key;
        EXPECT_EQ(other.Do("set-int " + key + " 5"), "-1022") << key;
        EXPECT_EQ(other.Do("hear " + key), "-1022") << key;
    }
    EXPECT_EQ(other.Do("int"), "-1022");  // the empty key
    EXPECT_THAT(other.Log(), SizeIs(4 * keys.size() + 1));
    EXPECT_EQ(other.Log().front(), "E Refused the key \"../secret\" of " + (tv / "tv/settings").string());
    EXPECT_EQ(tv.Content("secret"), "1\n");
}

TEST_F(DirectoryTest, ZonesAreTheFoldersInAscendingOrder) {
    for (const char* const name : {"10", "9", "-1", "01", "1x", "x", "+2", "-0", "2147483648", ".3", " 4"}) {
        fs::create_directories(tv / "sound/zones" / name);
    }
    tv.Echo("sound/zones/5", "a file");
    fs::create_directory_symlink("9", tv / "sound/zones/12");
    fs::create_symlink("5", tv / "sound/zones/13");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("zones"), "0 -1,9,10,12");
    EXPECT_EQ(other.Do("zone-route 9"), "-1002");
    EXPECT_EQ(other.Do("zone-route 1"), NO_SUCH_ZONE);
    EXPECT_EQ(other.Do("set-zone-route 1 2"), NO_SUCH_ZONE);
    EXPECT_EQ(other.Do("zone-route 5"), NO_SUCH_ZONE);
    EXPECT_FALSE(fs::exists(tv / "sound/zones/1"));
    fs::remove_all(tv / "sound");
    EXPECT_EQ(other.Do("zones"), "0 ");
}

TEST_F(DirectoryTest, AnEventIsAFileWithAnEscapedName) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("is-done /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(other.Do("done /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(tv.Content("events/%2Ftmp%2F%2Ekavrel_ready"), "done\n");
    EXPECT_EQ(other.Do("is-done /tmp/.kavrel_ready"), "1");
    EXPECT_EQ(other.Do("reset /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(other.Do("reset /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(other.Do("is-done /tmp/.kavrel_ready"), "0");
    EXPECT_EQ(other.Do("done .."), "0");
    EXPECT_EQ(other.Do("done a-Z_0%\xC3\xA4"), "0");
    EXPECT_TRUE(fs::exists(tv / "events/%2E%2E"));
    EXPECT_TRUE(fs::exists(tv / "events/a-Z_0%25%C3%A4"));
    EXPECT_EQ(other.Do("done"), "-1022");
    EXPECT_EQ(other.Do("is-done"), "-1022");
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    fs::permissions(tv / "events/%2E%2E", fs::perms::none);
    EXPECT_EQ(other.Do("is-done .."), "1") << "nobody reads the file";
}

TEST_F(DirectoryTest, AnEventThatCannotBeLookedForOrResetIsAFailure) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("is-done " + std::string(300, 'a')), "-1036");
    EXPECT_EQ(other.Do("reset " + std::string(300, 'a')), "-1036");
    EXPECT_THAT(other.Log(),
                ElementsAre(AllOf(StartsWith("E Cannot look for "), HasSubstr("File name too long")),
                            AllOf(StartsWith("E Cannot remove "), HasSubstr("File name too long"))));
}

TEST_F(DirectoryTest, ASettingBesideDbIsNoneOfDb) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-int dbx/key 4"), "0");
    EXPECT_EQ(other.Do("int dbx/key"), "0 4");
    EXPECT_EQ(tv.Content("settings/dbx/key"), "4\n");
}

TEST_F(DirectoryTest, AnOpenThatMeetsARenameIsTriedAgain) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    ASSERT_EQ(other.Do("rename-meanwhile 5"), "0");
    EXPECT_EQ(other.Do("volume"), "0 10");
}

TEST_F(DirectoryTest, TheFolderForDbMayBeALink) {
    const Folder persistent;
    fs::create_directories(tv / "settings");
    fs::create_directory_symlink(persistent.Path(), tv / "settings/db");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-int db/usb/level 4"), "0");
    EXPECT_EQ(persistent.Content("usb/level"), "4\n");
    EXPECT_EQ(other.Do("int db/usb/level"), "0 4");
    EXPECT_TRUE(fs::is_symlink(tv / "settings/db"));
    const Folder outside;
    outside.Echo("level", "5");
    fs::create_directory_symlink(outside.Path(), persistent / "out");
    EXPECT_EQ(other.Do("int db/out/level"), "-1018") << "a link below it leads out";
    EXPECT_EQ(other.Do("set-int db/out/level 6"), "-1018");
}

TEST_F(DirectoryTest, AFolderThatCannotBeMadeBehindTheLinkForDbIsTriedOnce) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    fs::remove(tv / "settings/db");
    fs::create_directory_symlink("nowhere", tv / "settings/db");
    other.Do("take-steps");
    EXPECT_EQ(other.Do("set-int db/usb/level 4"), "-1002");
    EXPECT_EQ(other.Do("take-steps"), "make db, ");
}

TEST_F(DirectoryTest, AWriteGoesToWhereTheLinkToTheDirectoryLeadsNow) {
    const fs::path link = tv / "link";
    fs::create_directory(tv / "one");
    fs::create_directory_symlink("one", link);
    OtherProcess other(tv, {{"KAVREL_TV_DIR", link}});
    ASSERT_EQ(other.Do("hear volume"), "0");
    for (const std::string volume : {"20", "21"}) {
        ASSERT_EQ(other.Do("set-volume " + volume), "0");
    }
    tv.Echo("two/audio/master_volume", "5");
    fs::create_directory_symlink("../one/.tmp",
                                 tv / "two/.tmp");  // so that the own folder is found there, too
    fs::create_directory_symlink("two", tv / "new");
    fs::rename(tv / "new", link);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content("two/audio/master_volume"), "30\n");
    EXPECT_EQ(tv.Content("one/audio/master_volume"), "21\n");
}

TEST_F(DirectoryTest, TheDirectoryItselfMayBeReachedByALinkThatMayComeToLeadElsewhere) {
    const fs::path link = tv / "link";
    tv.Echo("two/audio/master_volume", "22");
    fs::create_directory_symlink("one", link);
    fs::create_directory(tv / "one");
    OtherProcess other(tv, {{"KAVREL_TV_DIR", link}});
    EXPECT_EQ(other.Do("set-volume 11"), "0");
    EXPECT_EQ(other.Do("volume"), "0 11");
    EXPECT_EQ(std::distance(fs::directory_iterator(tv / "one/.tmp"), fs::directory_iterator()), 1)
        << "the directory is not another one at each call";
    fs::create_directory_symlink("two", tv / "new");
    fs::rename(tv / "new", link);
    EXPECT_EQ(other.Do("volume"), "0 22");
    EXPECT_EQ(other.Do("set-volume 23"), "0");
    EXPECT_EQ(tv.Content("one/audio/master_volume"), "11\n");
    EXPECT_EQ(tv.Content("two/audio/master_volume"), "23\n");
}

TEST_F(DirectoryTest, ALinkIsFollowedOnlyInsideTheDirectory) {
    tv.Echo("outside/master_volume", "77");
    OtherProcess other(tv, {{"KAVREL_TV_DIR", tv / "tv"}});
    ASSERT_EQ(other.Do("volume"), "0 10");
    fs::rename(tv / "tv/audio", tv / "tv/real");
    fs::create_directory_symlink("real", tv / "tv/audio");
    EXPECT_EQ(other.Do("set-volume 20"), "0");
    EXPECT_EQ(tv.Content("tv/real/master_volume"), "20\n");
    for (const fs::path& target : {fs::path("../outside"), tv / "outside"}) {
        fs::remove(tv / "tv/audio");
        fs::create_directory_symlink(target, tv / "tv/audio");
        EXPECT_EQ(other.Do("volume"), "-1018");
        EXPECT_EQ(other.Do("set-volume 30"), "-1018");
    }
    EXPECT_EQ(tv.Content("outside/master_volume"), "77\n");
    EXPECT_THAT(other.Log().front(), HasSubstr("audio/master_volume: a link leads out of the TV directory"));
}

TEST_F(DirectoryTest, WithoutOpenat2NoLinkIsFollowedButThatOfDb) {
    const Folder persistent;
    tv.Echo("real/master_volume", "77");
    fs::create_directory_symlink("real", tv / "audio");
    tv.Echo("settings/memory/file", "5");
    fs::create_symlink("file", tv / "settings/memory/link");
    fs::create_directory_symlink(persistent.Path(), tv / "settings/db");
    for (const std::string error : {"1", "38"}) {  // EPERM, ENOSYS
        OtherProcess other(tv);
        ASSERT_EQ(other.Do("refuse openat2 " + error), "0");
        EXPECT_EQ(other.Do("volume"), "-1020");
        EXPECT_EQ(other.Do("set-route " + error), "0");
        EXPECT_EQ(other.Do("route"), "0 " + error);
        EXPECT_EQ(other.Do("set-int memory/a/b/level " + error), "0");
        EXPECT_EQ(other.Do("int memory/a/b/level"), "0 " + error);
        EXPECT_EQ(other.Do("int memory/file"), "0 5");
        EXPECT_EQ(other.Do("int memory/link"), "-1040");
        EXPECT_EQ(other.Do("set-int db/a/level " + error), "0");
        EXPECT_EQ(persistent.Content("a/level"), error + '\n');
    }
}

TEST_F(DirectoryTest, AMissingFolderIsMadeForAValue) {
    tv.Echo("sound/route", "0");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-volume 1"), "0");
    EXPECT_EQ(other.Do("reset ready"), "0");
    EXPECT_EQ(other.Do("done ready"), "0");
    EXPECT_EQ(other.Do("set-int memory/a/b/c 1"), "0");
    EXPECT_EQ(tv.Content("settings/memory/a/b/c"), "1\n");
}

// --- Writing

TEST_F(DirectoryTest, LeftoversOfWritersThatAreGoneAreRemovedWhenAProcessStarts) {
    tv.Echo("audio/master_volume", "10");
    tv.Put(".tmp/999-1-0/7", "5");
    fs::create_directories(tv / ".tmp/999-2-0");
    tv.Put("settings/db/usb/.kavrel-999-1-7", "5");
    tv.Put("settings/memory/usb/deep/.kavrel-999-1-7", "5");
    tv.Put("settings/db/usb/.level.swp", "of an editor");
    tv.Put("settings/.mine/.kavrel-999-1-7", "somebody's own");
    tv.Put("audio/.kavrel-999-1-7", "5");
    tv.Put("audio/.kavrelrc", "somebody else's");
    fs::create_symlink("master_volume", tv / "audio/.kavrel-link");
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(tv.OwnFolders(), IsEmpty());
    EXPECT_THAT(tv.Leftovers("audio"), UnorderedElementsAre(".kavrelrc", ".kavrel-link"))
        << "no writer makes a link";
    EXPECT_THAT(tv.Leftovers("settings/memory/usb/deep"), IsEmpty());
    EXPECT_THAT(tv.Leftovers("settings/db/usb"), ElementsAre(".level.swp"));
    EXPECT_THAT(tv.Leftovers("settings/.mine"), ElementsAre(".kavrel-999-1-7"));
}

TEST_F(DirectoryTest, LeftoversBehindTheLinkForDbAreRemoved) {
    const Folder persistent;
    tv.Echo("audio/master_volume", "10");
    fs::create_directories(tv / "settings");
    fs::create_directory_symlink(persistent.Path(), tv / "settings/db");
    persistent.Put("usb/.kavrel-999-1-7", "5");
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "0 10");
    EXPECT_THAT(persistent.Leftovers("usb"), IsEmpty());
}

TEST_F(DirectoryTest, ALeftoverThatIsAPipeDoesNotHangTheStart) {
    tv.Echo("audio/master_volume", "10");
    ASSERT_EQ(mkfifo((tv / "audio/.kavrel-999-1-7").c_str(), 0600), 0);
    EXPECT_EQ(OtherProcess(tv).Do("volume"), "0 10");
    EXPECT_THAT(tv.Leftovers("audio"), IsEmpty());
}

TEST_F(DirectoryTest, ALiveWritersFolderIsNoLeftover) {
    tv.Put(".tmp/writer/7", "5");
    const int writer = open((tv / ".tmp/writer").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "0 10");
    EXPECT_THAT(tv.Leftovers("."), ElementsAre(".tmp/writer/7"));
    close(writer);  // as the kernel does when it kills a process
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "0 10");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
}

TEST_F(DirectoryTest, ALiveWritersFileInAValuesFolderIsNoLeftover) {
    tv.Put("settings/db/.kavrel-writer", "5");
    const int writer = open((tv / "settings/db/.kavrel-writer").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(flock(writer, LOCK_EX), 0);
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "-1002");
    EXPECT_THAT(tv.Leftovers("settings/db"), ElementsAre(".kavrel-writer"));
    close(writer);
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "-1002");
    EXPECT_THAT(tv.Leftovers("settings/db"), IsEmpty());
}

TEST_F(DirectoryTest, EachWriterHasAFolderOfItsOwnForItsWholeLife) {
    OtherProcess one(tv);
    OtherProcess two(tv);
    ASSERT_EQ(one.Do("set-volume 20"), "0");
    ASSERT_EQ(two.Do("set-volume 30"), "0");
    const auto folders = tv.OwnFolders();
    const auto nameOf = [](const OtherProcess& writer) {
        return StartsWith(".tmp/" + std::to_string(writer.Process()) + '-');
    };
    EXPECT_THAT(folders, UnorderedElementsAre(nameOf(one), nameOf(two)));
    EXPECT_THAT(folders, Each(Not(HasSubstr("-0-"))))
        << "a random number makes it unlike one of another container";
    for (const std::string& folder : folders) {
        const int own = open((tv / folder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_EQ(flock(own, LOCK_EX | LOCK_NB), -1);
        close(own);
    }
    ASSERT_EQ(one.Do("set-volume 40"), "0");
    EXPECT_EQ(tv.OwnFolders(), folders);
}

TEST_F(DirectoryTest, AWriterWhoseFolderWasRemovedMakesAnother) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    fs::remove_all(tv / ".tmp");
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    EXPECT_THAT(tv.OwnFolders(), SizeIs(1));
    EXPECT_THAT(other.Log(), IsEmpty());
}

/** Sets the main gain to 50 while another thread that sets the sub gain to 60 is held at an opening of the path. */
void SetBothGainsAtOnce(OtherProcess& other, const std::string& path) {
    ASSERT_EQ(other.Do("cross-opening " + path + " set-sub-gain 60"), "0");
    EXPECT_EQ(other.Do("set-gain 50"), "0");
    EXPECT_EQ(other.Do("end-aside"), "0");
}

TEST_F(DirectoryTest, ThreadsThatWriteFirstAtOnceShareOneFolder) {
    tv.Echo(VOLUME, "10");
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    SetBothGainsAtOnce(other, ".tmp");
    EXPECT_THAT(tv.OwnFolders(), SizeIs(1));
    EXPECT_EQ(tv.Content("audio/sub_out_gain2"), "60\n");
}

TEST_F(DirectoryTest, ThreadsThatFindANewDirectoryAtOnceShareOneFolderInIt) {
    const fs::path place = tv / "tv";
    OtherProcess other(tv, {{"KAVREL_TV_DIR", place}});
    ASSERT_EQ(other.Do("volume"), "0 10");
    fs::rename(place, tv / "away");
    tv.Echo("tv/audio/master_volume", "20");
    SetBothGainsAtOnce(other, place);
    EXPECT_EQ(tv.Content("tv/audio/sub_out_gain2"), "60\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(place / ".tmp"), fs::directory_iterator()), 1);
}

TEST_F(DirectoryTest, TwoThreadsWhoseFolderWasRemovedMakeOneAnother) {
    tv.Echo(VOLUME, "10");
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-gain 20"), "0");
    fs::remove_all(tv / ".tmp");
    SetBothGainsAtOnce(other, "new-file");
    EXPECT_THAT(tv.OwnFolders(), SizeIs(1));
    EXPECT_EQ(tv.Content("audio/main_out_gain2"), "50\n");
}

TEST_F(DirectoryTest, AWriterWhoseFolderWasReplacedMakesAnother) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    const std::string folder = *tv.OwnFolders().begin();
    fs::remove_all(tv / folder);
    fs::create_directory(tv / folder);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    EXPECT_THAT(tv.OwnFolders(), SizeIs(2));
}

TEST_F(DirectoryTest, AWriterPassesByANameThatIsTakenInItsFolder) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    const std::string folder = *tv.OwnFolders().begin();
    for (int name = 0; name < 40; ++name) {
        tv.Put(folder + '/' + std::to_string(name), "taken");
    }
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(DirectoryTest, ALinkInThePlaceOfTheWritersFoldersIsNotFollowed) {
    const Folder outside;
    outside.Echo("folder/precious", "1");
    tv.Echo(VOLUME, "10");
    fs::create_directory_symlink(outside.Path(), tv / ".tmp");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    fs::remove(tv / ".tmp");
    fs::create_directory(tv / ".tmp");
    fs::create_directory_symlink(outside / "folder", tv / ".tmp/999-1-0");
    ASSERT_EQ(OtherProcess(tv).Do("volume"), "0 30");
    EXPECT_THAT(Below(outside), UnorderedElementsAre("folder", "folder/precious"));
}

TEST_F(DirectoryTest, FoldersThatAreMadeAreOpenToWhoTheMaskLets) {
    const mode_t before = umask(0);
    OtherProcess other(tv);
    umask(before);
    ASSERT_EQ(other.Do("set-int memory/new/key 1"), "0");
    EXPECT_EQ(fs::status(tv / "settings/memory/new").permissions(), fs::perms::all);
    EXPECT_EQ(fs::status(tv / ".tmp").permissions(), fs::perms::all);
    EXPECT_EQ(fs::status(tv / *tv.OwnFolders().begin()).permissions(), fs::perms::all);
    constexpr auto ALL_READ_AND_WRITE = static_cast<fs::perms>(0666);
    EXPECT_EQ(fs::status(tv / "settings/memory/new/key").permissions(), ALL_READ_AND_WRITE);
    ASSERT_EQ(other.Do("hear memory/new/key"), "0");
    ASSERT_EQ(other.Do("set-int memory/new/key 2"), "0");  // which exchanges the file
    EXPECT_EQ(fs::status(tv / "settings/memory/new/key").permissions(), ALL_READ_AND_WRITE);
}

/** Writers that have no folder of their own. */
class BesideTest : public DirectoryTest {
protected:
    BesideTest() {
        tv.Echo(VOLUME, "10");
        tv.Put(".tmp", "no folder");
    }
};

TEST_F(BesideTest, AWriterMakesAFolderAsSoonAsItCan) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 30"), "0");
    fs::remove(tv / ".tmp");
    EXPECT_EQ(other.Do("set-volume 40"), "0");
    EXPECT_THAT(tv.OwnFolders(), SizeIs(1));
}

TEST_F(BesideTest, AWriterThatCannotHaveAFolderWritesBesideTheValue) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    EXPECT_THAT(tv.Leftovers("audio"), IsEmpty());
    EXPECT_THAT(other.Log(), IsEmpty());
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    fs::permissions(tv / "audio", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(other.Do("set-volume 31"), "-1013");
    fs::permissions(tv / "audio", fs::perms::owner_all);
}

TEST_F(BesideTest, AValueThatIsHeardIsWrittenBesideToo) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("hear volume"), "0");
    for (const std::string volume : {"30", "31"}) {
        EXPECT_EQ(other.Do("set-volume " + volume), "0");
        EXPECT_EQ(other.Report(), "volume " + volume + " own");
        EXPECT_EQ(tv.Content(VOLUME), volume + '\n');
    }
}

TEST_F(BesideTest, AValueIsOpenToWhoTheMaskLets) {
    const mode_t before = umask(0);
    OtherProcess other(tv);
    umask(before);
    ASSERT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(fs::status(tv / VOLUME).permissions(), static_cast<fs::perms>(0666));
}

TEST_F(BesideTest, NoTwoUnfinishedFilesOfAProcessHaveOneName) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("cross before mute " + (tv / VOLUME).string()), "0");
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(other.Do("mute"), "0 1");
    EXPECT_EQ(other.Do("volume"), "0 30");
}

TEST_F(BesideTest, AnUnfinishedFileIsLockedUntilItHasItsName) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("cross before clean " + (tv / VOLUME).string()), "0");
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(other.Do("cleaned"), "0") << "files that somebody else could remove as leftovers";
}

TEST_F(BesideTest, AFullDiskLeavesNoUnfinishedFile) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("limit-files 4096"), "0");
    EXPECT_EQ(other.Do("set-text memory/key " + std::string(5000, 'n')), "-1027");
    EXPECT_THAT(tv.Leftovers("settings/memory"), IsEmpty());
}

TEST_F(DirectoryTest, ATvDirectoryThatWasReplacedIsWrittenAnew) {
    const fs::path away = tv / "away";
    OtherProcess other(tv, {{"KAVREL_TV_DIR", tv / "tv"}});
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    fs::rename(tv / "tv", away);
    EXPECT_EQ(other.Do("volume"), "-1002");
    EXPECT_EQ(other.Do("zone-route 1"), NO_SUCH_ZONE);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content("tv/audio/master_volume"), "30\n");
    EXPECT_EQ(tv.Content("away/audio/master_volume"), "20\n");
    fs::remove_all(tv / "tv");
    fs::rename(away, tv / "tv");
    EXPECT_EQ(other.Do("volume"), "0 20");
}

TEST_F(DirectoryTest, TheFolderForDbMayBeOnAnotherFileSystem) {
    const fs::path persistent = fs::temp_directory_path() / tv.Path().filename();
    fs::create_directories(persistent);
    fs::create_directories(tv / "settings");
    fs::create_directory_symlink(persistent, tv / "settings/db");
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("set-int db/usb/level 4"), "0");
    EXPECT_EQ(tv.Content("settings/db/usb/level"), "4\n");
    EXPECT_THAT(tv.Leftovers("settings/db/usb"), IsEmpty());
    EXPECT_THAT(other.Log(), IsEmpty());
    fs::remove_all(persistent);
}

TEST_F(DirectoryTest, OnlyValuesBelowDbAreSyncedTheTextBeforeItsNameAndTheFolderLast) {
    const fs::path elsewhere = fs::temp_directory_path() / tv.Path().filename();  // mostly on a disk
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    ASSERT_EQ(other.Do("hear memory/key"), "0");
    for (const std::string set : {"set-volume 20", "set-route 1", "set-gain 50", "done event",
                                  "set-text memory/new a", "set-text memory/key a"}) {
        EXPECT_EQ(other.Do(set), "0");
    }
    for (int i = 0; i < 20; ++i) {  // when the platform thread rests, such a write exchanges two files
        EXPECT_EQ(other.Do("set-text memory/key " + std::to_string(i)), "0");
    }
    EXPECT_THAT(other.Do("take-steps"), AllOf(HasSubstr("rename key"), Not(HasSubstr("sync"))));
    for (const bool isHeard : {false, true}) {
        EXPECT_EQ(other.Do("set-text db/key a"), "0");
        EXPECT_EQ(other.Do("take-steps"), "sync file, rename key, sync db, ");
        ASSERT_EQ(other.Do("hear db/key"), "0") << isHeard;
    }
    EXPECT_EQ(other.Do("set-text db/usb/key a"), "0");
    EXPECT_EQ(other.Do("take-steps"), "make usb, sync file, rename key, sync usb, ");
    fs::create_directories(elsewhere);
    fs::remove_all(tv / "settings/db");
    fs::create_directory_symlink(elsewhere, tv / "settings/db");
    EXPECT_EQ(other.Do("set-text db/key a"), "0");
    EXPECT_EQ(other.Do("take-steps"), "sync file, rename key, sync " + elsewhere.filename().string() + ", ");
    fs::remove_all(elsewhere);
}

TEST_F(DirectoryTest, AValueThatCannotBeSyncedIsAnError) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-text db/key old"), "0");
    ASSERT_EQ(other.Do("refuse-syncs-of file"), "0");
    EXPECT_EQ(other.Do("set-text db/key new"), "-1005");
    EXPECT_EQ(tv.Content("settings/db/key"), "old\n");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
    ASSERT_EQ(other.Do("refuse-syncs-of db"), "0");
    EXPECT_EQ(other.Do("set-text db/key new"), "-1005")
        << "the new text is in its place, but the folder could not be synced";
    EXPECT_THAT(other.Log(), AllOf(SizeIs(2), Each("E Cannot write " + (tv / "settings/db/key").string() +
                                                   ": Input/output error")));
}

TEST_F(DirectoryTest, AWriteIsOneNotificationOfAFileThatCameIntoItsPlace) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    const int inotify = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(inotify, (tv / "audio").c_str(), IN_CLOSE_WRITE | IN_MOVED_TO), 0);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    alignas(inotify_event) std::array<char, 4096> buffer;
    const ssize_t size = read(inotify, buffer.data(), buffer.size());
    const auto& event = *reinterpret_cast<const inotify_event*>(buffer.data());
    EXPECT_EQ(event.mask, IN_MOVED_TO);
    EXPECT_EQ(size, static_cast<ssize_t>(sizeof(event) + event.len)) << "another notification";
    close(inotify);
}

TEST_F(DirectoryTest, NoFileOfThePlatformIsOpenInProgramsStartedLater) {
    tv.Put(".filling", "");
    tv.Put("audio/.kavrel-999-1-7", "5");
    OtherProcess other(tv);
    const std::string before = other.Do("files-to-inherit");
    for (const char* const line :
         {"hear volume", "hear memory/key", "set-volume 20", "set-volume 30", "set-int memory/key 1",
          "set-int db/key 1", "zones", "gain", "done event"}) {
        other.Do(line);
    }
    ASSERT_EQ(other.Do("cross before move " + (tv / VOLUME).string() + " 40"), "0");
    EXPECT_EQ(other.Do("set-volume 50"), "0");
    EXPECT_EQ(other.Do("files-to-inherit"), before);
    ASSERT_EQ(other.Do("refuse openat2 38"), "0");
    ASSERT_EQ(other.Do("zones"), "0 ");
    EXPECT_EQ(other.Do("files-opened-to-inherit"), "0") << "also of those that are closed again";
}

/** How many files a process has open. */
std::ptrdiff_t OpenFiles(pid_t process) {
    const fs::path files = "/proc/" + std::to_string(process) + "/fd";
    return std::distance(fs::directory_iterator(files), fs::directory_iterator());
}

TEST_F(DirectoryTest, EachCallClosesItsFiles) {
    OtherProcess other(tv);
    const auto call = [&] {
        for (const char* const line :
             {"set-volume 20", "volume", "set-gain 50", "gain", "zones", "done event", "is-done event",
              "reset event", "set-int db/key 1", "int db/key", "set-int memory/a/b 1", "text memory"}) {
            other.Do(line);
        }
    };
    call();
    const auto before = OpenFiles(other.Process());
    call();
    EXPECT_EQ(OpenFiles(other.Process()), before);
    ASSERT_EQ(other.Do("refuse openat2 38"), "0");
    call();
    EXPECT_EQ(OpenFiles(other.Process()), before) << "without openat2";
}

/** The files of a process, but for the standard streams, behind which nothing is. */
std::set<std::string> NullFiles(pid_t process) {
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        std::error_code gone;
        const std::string file = entry.path().filename();
        if (std::stoi(file) > STDERR_FILENO && fs::read_symlink(entry.path(), gone) == "/dev/null") {
            files.insert(file);
        }
    }
    return files;
}

TEST_F(DirectoryTest, WhatTheProcessNeedsForItsStandardStreamsIsClosedAgain) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("volume"), "0 10");
    EXPECT_THAT(NullFiles(other.Process()), IsSubsetOf(NullFiles(getpid())))
        << "but for those that it inherits";
}

TEST_F(DirectoryTest, WritersOfOneValueNeverDisturbEachOther) {
    OtherProcess one(tv);
    OtherProcess two(tv);
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
    OtherProcess reader(tv);
    ASSERT_EQ(reader.Do("set-text memory/key a"), "0");
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::size_t leftovers = 0;
    for (int i = 0; i < KILLS; ++i) {
        OtherProcess writer(tv);
        ASSERT_EQ(writer.Do("set-text memory/begun " + std::to_string(i)), "0");
        writer.Tell("storm memory/key 0 " + std::to_string(SIZE));
        // The limit grows until a kill has met a writer at work: on a busy machine writers start late.
        const unsigned int latest = leftovers > 0 ? 2000U : 2000U + static_cast<unsigned int>(i) * 100U;
        std::this_thread::sleep_for(std::chrono::microseconds(random() % latest));
        writer.Kill();
        const std::string text = tv.Content(KEY);
        ASSERT_EQ(text.back(), '\n');
        ASSERT_TRUE(text == "a\n" || text == std::string(SIZE, text.front()) + '\n');
        leftovers += tv.Leftovers(".").size();
        ASSERT_LE(tv.Leftovers(".").size(), 1U);  // each process that starts removes those of the killed ones
    }
    EXPECT_GT(leftovers, 0U) << "no kill met a writer at its work";
    EXPECT_EQ(reader.Do("set-text memory/key end"), "0");
    EXPECT_EQ(reader.Do("text memory/key"), "0 end");
    EXPECT_THAT(tv.Leftovers("settings/memory"), IsEmpty());
    ASSERT_EQ(OtherProcess(tv).Do("text memory/key"), "0 end");
    EXPECT_THAT(tv.Leftovers("."), IsEmpty());
    EXPECT_THAT(tv.OwnFolders(), SizeIs(1)) << "the folder of the reader, which has written too";
}

TEST_F(DirectoryTest, AFullDiskIsAClearErrorAndTheOldValueStands) {
    OtherProcess other(tv);
    const std::string old(3000, 'o');
    const std::string wanted(5000, 'n');
    for (const std::string folder : {"memory", "db"}) {
        ASSERT_EQ(other.Do("set-text " + folder + "/key " + old), "0");
        ASSERT_EQ(other.Do("limit-files 4096"), "0");
        EXPECT_EQ(other.Do("set-text " + folder + "/key " + wanted), "-1027");
        EXPECT_EQ(other.Do("text " + folder + "/key"), "0 " + old);
        EXPECT_THAT(tv.Leftovers("settings/" + folder), IsEmpty());
        EXPECT_THAT(tv.Leftovers("."), IsEmpty());
        EXPECT_THAT(other.Log().back(), AllOf(StartsWith("E Cannot write "),
                                              HasSubstr("settings/" + folder + "/key: File too large")));
    }
    EXPECT_THAT(other.Log(), SizeIs(2));
}

TEST_F(DirectoryTest, AReadOnlyFolderIsAClearErrorAndTheOldValueStands) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    fs::permissions(tv / "audio", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(other.Do("set-volume 30"), "-1013");
    EXPECT_EQ(other.Do("volume"), "0 20");
    EXPECT_THAT(other.Log(), ElementsAre("E Cannot write " + (tv / VOLUME).string() + ": Permission denied"));
    fs::permissions(tv / "audio", fs::perms::owner_all);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
}

TEST_F(DirectoryTest, AWriterWhoseFolderIsReadOnlyWritesBesideTheValue) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-volume 20"), "0");
    ASSERT_EQ(other.Do("drop-capabilities"), "0");
    const fs::path own = tv / *tv.OwnFolders().begin();
    fs::permissions(own, fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(tv.Content(VOLUME), "30\n");
    fs::permissions(own, fs::perms::owner_all);
}

TEST_F(DirectoryTest, TextLongerThanAMebibyteIsRefused) {
    OtherProcess other(tv);
    ASSERT_EQ(other.Do("set-text memory/key a"), "0");
    EXPECT_EQ(other.Do("storm memory/key 1 1048577"), "-1027");
    EXPECT_EQ(other.Do("text memory/key"), "0 a");
    EXPECT_EQ(other.Do("storm memory/key 1 1048576"), "0");
    EXPECT_EQ(other.Do("text memory/key"), "0 " + std::string(1048576, 'a'));
}

}  // namespace
