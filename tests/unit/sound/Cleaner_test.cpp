// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Cleaner.h"

#include <gtest/gtest.h>

#include <chrono>

#include "FakeServer.h"
#include "Snapshots.h"

namespace sound {
namespace {

using std::chrono::milliseconds;

/** A server that is ready at once, shows one snapshot after the other, and answers everything else. */
class CleanerTest : public testing::Test {
protected:
    /** @return what the server was asked until the cleaner returned, without the looks */
    Lines Clean(const std::vector<Snapshot>& snapshots, const std::string& defaultSink = "") {
        m_snapshots.assign(snapshots.begin(), snapshots.end());
        const auto start = Next([this] { m_server.BecomeReady(); });
        RemoveFromServer(m_server, defaultSink);
        EXPECT_TRUE(m_hasEnded || snapshots.empty()) << "it has waited until its time was over";
        Lines lines = m_server.Take();
        std::erase_if(lines, [](const std::string& line) { return line == "look" || line == "connect"; });
        return lines;
    }

    /** Runs a function on the loop, and then answers until no snapshot is left. */
    tools::GLibPtr<GSource> Next(const std::function<void()>& function) {
        return m_loop.After(milliseconds(0), [this, function] {
            function();
            Serve();
            m_hasEnded =
                m_loop.RunUntil([] { return false; }, milliseconds(0)) == tools::MainLoop::Waited::ENDED;
        });
    }

    void Serve() {
        while (m_server.HasLook() && !m_snapshots.empty()) {
            const Snapshot next = m_snapshots.front();
            m_snapshots.pop_front();
            m_server.AnswerLook(next);
            m_server.AnswerAll();
        }
    }

    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    std::deque<Snapshot> m_snapshots;
    bool m_hasEnded = false;  // when all answers had come
};

TEST_F(CleanerTest, TheStagesGoBeforeKavrelAndOneLookShowsThatAllHaveGone) {
    Snapshot all = WithStage();
    all.streams.push_back({21, SUB_STAGE, SPEAKER, 103, false, {}});
    all.modules = {{104, KAVREL_MODULE, KavrelArguments()}, {105, "module-x", ""}};
    EXPECT_EQ(Clean({all, EmptyServer()}), (Lines{"unload 102", "unload 103", "unload 101", "unload 104"}));
    EXPECT_TRUE(m_snapshots.empty());
    EXPECT_FALSE(m_server.HasLook());
}

TEST_F(CleanerTest, WhatIsStillThereIsUnloadedAgain) {
    EXPECT_EQ(Clean({WithStage(), WithKavrel(), EmptyServer()}),
              (Lines{"unload 102", "unload 101", "unload 101"}));
}

TEST_F(CleanerTest, TheDefaultSinkComesBackInThePlaceOfKavrel) {
    Snapshot snapshot = WithKavrel();
    snapshot.defaultSink = "kavrel";
    EXPECT_EQ(Clean({snapshot, EmptyServer()}, "receiver"), (Lines{"default sink receiver", "unload 101"}));
}

TEST_F(CleanerTest, ADefaultSinkThatAPersonHasChosenIsLeftAlone) {
    Snapshot snapshot = WithKavrel();
    EXPECT_EQ(Clean({snapshot, EmptyServer()}, "receiver"), Lines{"unload 101"});
}

TEST_F(CleanerTest, ADefaultSinkThatHasGoneDoesNotComeBack) {
    Snapshot snapshot = WithKavrel();
    snapshot.defaultSink = "kavrel";
    EXPECT_EQ(Clean({snapshot, EmptyServer()}, "gone"), Lines{"unload 101"});
}

TEST_F(CleanerTest, AServerThatIsNotThereHasNothingToRemove) {
    const auto start = Next([this] { m_server.Go("Connection refused"); });
    RemoveFromServer(m_server, "");
    EXPECT_TRUE(m_hasEnded);
    EXPECT_EQ(m_server.Take(), Lines{"connect"});
}

TEST_F(CleanerTest, AServerThatDoesNotAnswerIsGivenUpAfterTwoSeconds) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Clean({}), Lines{});
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(1999));
}

}  // namespace
}  // namespace sound
