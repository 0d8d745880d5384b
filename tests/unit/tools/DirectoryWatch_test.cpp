// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DirectoryWatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "Errors.h"
#include "LostNotifications.h"
#include "TemporaryFolder.h"

namespace fs = std::filesystem;

namespace tv {
namespace {

using Events = std::vector<std::string>;

/** Watches the folder "tv" of a temporary one, which has the folders "tv/sub/deep" and "aside". */
class DirectoryWatchTest : public testing::Test {
protected:
    DirectoryWatchTest() {
        fs::create_directories(m_tv / "sub/deep");
        fs::create_directories(m_tv / ".tmp");
        fs::create_directories(m_aside);
        Write("there");
    }

    /** Begins to watch: what the constructor did is not reported. */
    void Watch() {
        m_watch.emplace(m_loop, m_tv,
                        [this](DirectoryWatch::Event event, const std::string& path) { Note(event, path); });
    }

    void Write(const std::string& path) const { std::ofstream(m_tv / path) << "text"; }
    void OpenAndClose(const std::string& path) const { std::ofstream(m_tv / path, std::ios::app).flush(); }
    void Rename(const fs::path& from, const fs::path& to) const { fs::rename(m_tv / from, m_tv / to); }

    bool HasEvent(const std::string& event) const {
        return std::find(m_events.begin(), m_events.end(), event) != m_events.end();
    }

    /** Writes a file after all changes so far. The kernel keeps their order. @return the events before its own */
    Events EventsSoFar() {
        Write("last");
        EXPECT_EQ(m_loop.RunUntil([&] { return HasEvent("written last"); }, std::chrono::seconds(60)),
                  tools::MainLoop::Waited::MET);
        Events events(m_events.begin(), std::find(m_events.begin(), m_events.end(), "written last"));
        m_events.clear();
        return events;
    }

    const TemporaryFolder m_folder;
    const fs::path m_tv = m_folder.Path() / "tv";
    const fs::path m_aside = m_folder.Path() / "aside";
    tools::MainLoop m_loop;
    std::optional<DirectoryWatch> m_watch;

private:
    void Note(DirectoryWatch::Event event, const std::string& path) {
        switch (event) {
            case DirectoryWatch::Event::WRITTEN:
                return m_events.push_back("written " + path);
            case DirectoryWatch::Event::REMOVED:
                return m_events.push_back("removed " + path);
            default:
                return m_events.push_back("lost " + path);
        }
    }

    Events m_events;
};

TEST_F(DirectoryWatchTest, AFileIsWrittenWhenItIsClosedAfterAWrite) {
    Watch();
    Write("there");
    Write("sub/deep/new");  // two notifications of one kind in a row would be one
    OpenAndClose("there");
    OpenAndClose("empty");
    EXPECT_EQ(EventsSoFar(), (Events{"written there", "written sub/deep/new"}));
}

TEST_F(DirectoryWatchTest, AWriteIsReportedBeforeTheNextOneBegins) {
    Watch();
    std::ofstream file(m_tv / "there");
    file << "text" << std::flush;
    EXPECT_EQ(EventsSoFar(), Events{});
    file.close();
    EXPECT_EQ(EventsSoFar(), Events{"written there"});
}

TEST_F(DirectoryWatchTest, EachRenameIntoPlaceIsReported) {
    Watch();
    fs::create_directory(m_tv / ".tmp/1");
    EXPECT_EQ(EventsSoFar(), Events{});
    Write(".tmp/1/a");
    Write(".tmp/1/b");
    Rename(".tmp/1/a", "there");
    Rename(".tmp/1/b", "there");
    fs::remove(m_tv / ".tmp/1");
    EXPECT_EQ(EventsSoFar(), (Events{"written there", "written there"}));
}

TEST_F(DirectoryWatchTest, AFileThatGoesIsRemoved) {
    Write("other");
    Watch();
    fs::remove(m_tv / "there");
    Rename("other", m_aside / "other");
    EXPECT_EQ(EventsSoFar(), (Events{"removed there", "removed other"}));
    std::ofstream file(m_tv / "sub/file");
    file << "text" << std::flush;
    fs::remove(m_tv / "sub/file");
    file.close();  // the kernel notifies of that, too
    EXPECT_EQ(EventsSoFar(), Events{"removed sub/file"});
}

TEST_F(DirectoryWatchTest, AHiddenNameIsAValueOfTheDirectoryItselfAlone) {
    Watch();
    Write(".devices");
    Write("sub/.new");
    Rename("sub/.new", "sub/value");
    EXPECT_EQ(EventsSoFar(), (Events{"written .devices", "written sub/value"}));
}

TEST_F(DirectoryWatchTest, ANewFolderIsReportedWithItsFilesAndWatched) {
    fs::create_directories(m_aside / "deep");
    std::ofstream(m_aside / "deep/file") << "text";
    fs::create_directory_symlink("..", m_aside / "up");
    Watch();
    Rename(m_aside, "came");
    EXPECT_EQ(EventsSoFar(), (Events{"written came/deep/file", "written "}));
    Write("came/deep/other");
    EXPECT_EQ(EventsSoFar(), Events{"written came/deep/other"});
    fs::create_directory(m_tv / "made");
    EXPECT_EQ(EventsSoFar(), Events{"written "});
    Write("made/file");
    EXPECT_EQ(EventsSoFar(), Events{"written made/file"});
}

TEST_F(DirectoryWatchTest, AFolderThatIsMovedAwayIsWatchedNoMore) {
    fs::create_directory(m_tv / "sub2");
    Watch();
    Rename("sub", m_aside / "sub");
    EXPECT_EQ(EventsSoFar(), Events{"removed sub"});
    std::ofstream(m_aside / "sub/file") << "text";
    std::ofstream(m_aside / "sub/deep/file") << "text";
    Write("sub2/file");
    EXPECT_EQ(EventsSoFar(), Events{"written sub2/file"});
}

TEST_F(DirectoryWatchTest, AFolderThatIsRemovedIsReportedAndMayComeAgain) {
    Watch();
    fs::remove(m_tv / "sub/deep");
    EXPECT_EQ(EventsSoFar(), (Events{"removed ", "removed sub/deep"}));
    fs::create_directory(m_tv / "sub/deep");
    EXPECT_EQ(EventsSoFar(), Events{"written "});
    Write("sub/deep/file");
    EXPECT_EQ(EventsSoFar(), Events{"written sub/deep/file"});
}

TEST_F(DirectoryWatchTest, ALinkToAWatchedFolderDoesNotTakeItsName) {
    fs::create_directory_symlink("..", m_tv / "sub/up");
    Watch();
    Write("there");
    Write("sub/file");
    EXPECT_EQ(EventsSoFar(), (Events{"written there", "written sub/file"}));
}

TEST_F(DirectoryWatchTest, LostNotificationsAreReportedAndNewFoldersWatched) {
    Watch();
    fake::LoseNotificationsOf(m_tv);
    fs::create_directory(m_tv / "new");
    Write("new/early");
    const auto isLost = [&] { return HasEvent("lost "); };
    ASSERT_EQ(m_loop.RunUntil(isLost, std::chrono::seconds(60)), tools::MainLoop::Waited::MET);
    Write("new/late");
    Write("sub/deep/late");
    const Events events = EventsSoFar();
    const auto lost = std::find(events.begin(), events.end(), "lost ");
    EXPECT_EQ(Events(lost, events.end()), (Events{"lost ", "written new/late", "written sub/deep/late"}));
    EXPECT_EQ(std::count(events.begin(), events.end(), "written new/early"), 0);
}

TEST_F(DirectoryWatchTest, ADirectoryThatCannotBeWatchedIsAnErrorWithItsReason) {
    try {
        const DirectoryWatch watch(m_loop, m_folder.Path() / "nowhere", {});
        FAIL() << "no error";
    } catch (const tools::ToolError& error) {
        EXPECT_EQ(error.code, tools::EXIT_REFUSED);
        EXPECT_EQ(std::string(error.what()),
                  "cannot watch " + (m_folder.Path() / "nowhere").string() + ": No such file or directory");
    }
}

TEST_F(DirectoryWatchTest, ADirectoryThatCannotBeWatchedLeavesNoFileOpen) {
    const auto openFiles = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = openFiles();
    EXPECT_THROW(DirectoryWatch(m_loop, m_folder.Path() / "nowhere", {}), tools::ToolError);
    EXPECT_EQ(openFiles(), before);
}

}  // namespace
}  // namespace tv
