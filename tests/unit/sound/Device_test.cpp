// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Device.h"

#include <DirectoryWatch.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "FakeServer.h"
#include "Printed.h"
#include "Snapshots.h"
#include "TvOfTests.h"

namespace fs = std::filesystem;

namespace sound {
namespace {

using Event = tv::DirectoryWatch::Event;

constexpr int HDMI = 2;
const host::Value LAST{"audio/last", host::TEXT};

class DeviceTest : public testing::Test {
protected:
    DeviceTest() {
        OpenTvOfTests();
        Put(host::MASTER_VOLUME, "10");
        Put(host::MASTER_MUTE, "0");
        for (const host::Value& value : {m_kind.support, m_kind.level, m_kind.mute}) {
            fs::remove_all(host::Root() / value.path);
            Put(value, "0");  // has its folder made
            fs::remove(host::Root() / value.path);
        }
    }

    /** Makes the TV's own outputs agree with the sink on level 50, not muted. */
    void AgreeOnOwn() {
        m_own.Follow(&m_sink, true);
        m_server.Take();
    }

    /** Makes the receiver agree with the sink on level 50, not muted. */
    void Agree() {
        m_receiver.Follow(&m_sink, true);
        m_server.Take();
    }

    /** Lets the time until the answer to a request go by. */
    void AwaitDue() {
        m_loop.RunUntil([this] { return m_dues > 0; }, std::chrono::seconds(60));
        EXPECT_EQ(m_dues, 1);
    }

    std::vector<std::string> Receivers() const {
        return {Get(m_kind.support), Get(m_kind.level), Get(m_kind.mute)};
    }

    const tv::DeviceKind& m_kind = *tv::FindRoute(HDMI)->device;
    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    SinkWriter m_writer{m_server, [] {}};
    int m_dues = 0;
    Device m_own{m_loop, m_writer, nullptr, [this] { ++m_dues; }};
    Device m_receiver{m_loop, m_writer, &m_kind, [this] { ++m_dues; }};
    Sink m_sink = MakeSink(RECEIVER, "receiver", {32768, 16384});
};

/** Notes the values that a function writes, in their order. */
class DeviceWritesTest : public DeviceTest {
protected:
    Lines WrittenBy(const std::function<void()>& function) {
        Lines written;
        const tv::DirectoryWatch watch(m_loop, host::Root(), [&](Event event, const std::string& path) {
            written.push_back((event == Event::WRITTEN ? "" : "not written: ") + path);
        });
        function();
        Put(LAST, "");  // after all others: the kernel keeps their order
        m_loop.RunUntil([&] { return !written.empty() && written.back() == LAST.path; },
                        std::chrono::seconds(60));
        EXPECT_FALSE(written.empty());
        written.pop_back();
        return written;
    }
};

// --- The TV's own outputs

TEST_F(DeviceTest, AtTheFirstContactTheTvTakesLevelAndMuteOfTheSink) {
    m_sink.isMuted = true;
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50") << "that of the loudest channel";
    EXPECT_EQ(Get(host::MASTER_MUTE), "1");
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, WhatTheTvChangesIsSetOnTheSink) {
    AgreeOnOwn();
    Put(host::MASTER_VOLUME, "100");
    Put(host::MASTER_MUTE, "1");
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 3 volumes 65536 32768", "sink 3 mute"}));
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), Lines{});
    Put(host::MASTER_MUTE, "0");
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), Lines{"sink 3 unmute"});
}

TEST_F(DeviceTest, WhatTheServerChangesIsPublished) {
    AgreeOnOwn();
    m_sink.volumes = {6554, 13107};
    m_sink.isMuted = true;
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "20");
    EXPECT_EQ(Get(host::MASTER_MUTE), "1");
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, TheTvsOwnOutputsFollowWhateverProgramPlaysTheOthers) {
    m_own.Follow(&m_sink, false);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50");
}

TEST_F(DeviceTest, AValueThatCannotBeReadIsNeitherSetNorWritten) {
    AgreeOnOwn();
    for (const char* text : {"loud", "101"}) {
        Put({host::MASTER_VOLUME.path, host::TEXT}, text);
        m_own.Follow(&m_sink, true);
        EXPECT_EQ(Get({host::MASTER_VOLUME.path, host::TEXT}), text);
    }
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, AMissingValueIsWrittenAgain) {
    AgreeOnOwn();
    fs::remove(host::Root() / host::MASTER_VOLUME.path);
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50");
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, AfterTheSinkWasGoneTheTvIsRight) {
    AgreeOnOwn();
    m_own.Follow(nullptr, true);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50");
    m_sink.volumes = {65536, 65536};
    m_sink.isMuted = true;
    m_own.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 3 volumes 32768 32768", "sink 3 unmute"}));
}

// --- An external output

TEST_F(DeviceWritesTest, AnOutputPublishesWhatItSupportsBeforeItsValues) {
    EXPECT_EQ(WrittenBy([this] { m_receiver.Follow(&m_sink, true); }),
              (Lines{m_kind.support.path, m_kind.level.path, m_kind.mute.path}));
    EXPECT_EQ(Receivers(), (Lines{"15", "50", "0"}));
    EXPECT_EQ(WrittenBy([this] { m_receiver.Follow(&m_sink, true); }), Lines{}) << "all of them are there";
}

TEST_F(DeviceTest, AnOutputWithoutASinkSupportsNothing) {
    Agree();
    m_receiver.Follow(nullptr, true);
    EXPECT_EQ(Receivers(), (Lines{"0", "50", "0"}));
}

TEST_F(DeviceTest, AnOutputThatAnotherProgramPlaysIsLeftAlone) {
    m_receiver.Follow(&m_sink, false);
    m_receiver.Follow(nullptr, false);
    EXPECT_EQ(Receivers(), (Lines{"none", "none", "none"}));
    Agree();
    Put(m_kind.level, "20");
    m_receiver.Follow(&m_sink, false);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, ASinkThatGoesWhileAnotherProgramPlaysIsRememberedAsGone) {
    Agree();
    m_receiver.Follow(nullptr, false);
    m_sink.volumes = {65536, 65536};
    Agree();
    EXPECT_EQ(Get(m_kind.level), "50");
    EXPECT_EQ(m_sink.volumes, (Volumes{32768, 32768}));
}

TEST_F(DeviceTest, ALevelOrAMuteOutsideOfItsRangeIsTheEndOfTheRange) {
    Agree();
    Put(m_kind.level, "250");
    Put(m_kind.mute, "7");
    m_receiver.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 3 volumes 65536 32768", "sink 3 mute"}));
    EXPECT_EQ(Receivers(), (Lines{"15", "100", "1"}));
    Put(m_kind.level, "-3");
    Put(m_kind.mute, "-1");
    m_receiver.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 3 volumes 0 0", "sink 3 unmute"}));
    EXPECT_EQ(Receivers(), (Lines{"15", "0", "0"}));
}

TEST_F(DeviceTest, ALevelBeyondTheEndThatTheSinkHasAlreadyIsOnlyWritten) {
    m_sink.volumes = {65536, 65536};
    Agree();
    Put(m_kind.level, "250");
    m_receiver.Follow(&m_sink, true);
    EXPECT_EQ(m_server.Take(), Lines{});
    EXPECT_EQ(Get(m_kind.level), "100");
}

TEST_F(DeviceTest, AValueThatCannotBeWrittenIsComplainedAbout) {
    fs::create_directory(host::Root() / m_kind.support.path);
    const std::string complaints = ComplaintsOf([this] { m_receiver.Follow(nullptr, true); });
    EXPECT_NE(complaints.find(m_kind.support.path), std::string::npos) << complaints;
    fs::remove(host::Root() / m_kind.support.path);
}

// --- Requests

TEST_F(DeviceWritesTest, ARequestIsSetAtOnceAndAnsweredWithAllValues) {
    Agree();
    const auto start = std::chrono::steady_clock::now();
    const Lines meanwhile = WrittenBy([this] {
        m_receiver.Ask(&m_sink, 100, std::nullopt);
        m_receiver.Follow(&m_sink, true);
    });
    EXPECT_EQ(meanwhile, Lines{}) << "the daemon is still busy with the request";
    EXPECT_EQ(m_server.Take(), Lines{"sink 3 volumes 65536 32768"});
    AwaitDue();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(49));
    const Lines all = {m_kind.support.path, m_kind.level.path, m_kind.mute.path};
    EXPECT_EQ(WrittenBy([this] { m_receiver.Follow(&m_sink, true); }), all);
    EXPECT_EQ(Receivers(), (Lines{"15", "100", "0"}));
    EXPECT_EQ(WrittenBy([this] { m_receiver.Follow(&m_sink, true); }), Lines{}) << "an answer comes once";
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(DeviceTest, ARequestIsForALevelOrAMuteWithinItsRange) {
    m_receiver.Ask(&m_sink, 250, std::nullopt);
    m_receiver.Ask(&m_sink, -5, std::nullopt);
    m_receiver.Ask(&m_sink, std::nullopt, 7);
    m_receiver.Ask(&m_sink, std::nullopt, 0);
    EXPECT_EQ(m_server.Take(),
              (Lines{"sink 3 volumes 65536 32768", "sink 3 volumes 0 0", "sink 3 mute", "sink 3 unmute"}));
}

TEST_F(DeviceTest, ARequestToAnOutputWithoutASinkHasNoAnswer) {
    m_receiver.Ask(nullptr, 50, 1);
    EXPECT_EQ(m_server.Take(), Lines{});
    m_receiver.Follow(&m_sink, true);
    EXPECT_EQ(Receivers(), (Lines{"15", "50", "0"})) << "nothing is awaited";
}

TEST_F(DeviceWritesTest, ASinkThatGoesTakesItsAnswersWithIt) {
    Agree();
    m_receiver.Ask(&m_sink, 50, std::nullopt);
    const Lines written = WrittenBy([this] {
        m_receiver.Follow(nullptr, true);
        m_receiver.Follow(&m_sink, true);
    });
    EXPECT_EQ(written, (Lines{m_kind.support.path, m_kind.support.path})) << "that it has gone and come back";
}

}  // namespace
}  // namespace sound
