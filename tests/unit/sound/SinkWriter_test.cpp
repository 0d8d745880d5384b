// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "SinkWriter.h"

#include <gtest/gtest.h>

#include "FakeServer.h"
#include "Snapshots.h"

namespace sound {
namespace {

class SinkWriterTest : public testing::Test {
protected:
    /** @return the server's answer to a look that shows these volumes of "speaker", as the writer amends it */
    Snapshot Amended(const Volumes& volumes) {
        Snapshot answer = With(volumes);
        m_writer.Amend(answer, m_before);
        return answer;
    }

    static Snapshot With(const Volumes& volumes) {
        Snapshot snapshot;
        snapshot.sinks = {MakeSink(SPEAKER, "speaker", volumes)};
        return snapshot;
    }

    Sink& Speaker() { return m_before.sinks.front(); }

    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    int m_answers = 0;
    SinkWriter m_writer{m_server, [this] { ++m_answers; }};
    Snapshot m_before = With({65536, 32768});
};

TEST_F(SinkWriterTest, TheLoudestChannelGetsTheLevelAndTheBalanceStays) {
    m_writer.SetLevel(Speaker(), 50);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 32768 16384"});
    EXPECT_EQ(Speaker().volumes, (Volumes{32768, 16384}));
}

TEST_F(SinkWriterTest, ALevelAboveZeroBringsBackTheBalanceFromBeforeTheSilence) {
    Amended({65536, 32768});
    Amended({0, 0});
    m_writer.SetLevel(Speaker(), 0);
    m_writer.SetLevel(Speaker(), 100);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 2 volumes 0 0", "sink 2 volumes 65536 32768"}));
}

TEST_F(SinkWriterTest, TheLastBalanceIsTheOneThatComesBackAndOnlyAfterSilence) {
    Amended({65536, 32768});
    Amended({16384, 32768});
    m_writer.SetLevel(Speaker(), 100);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 65536 32768"})
        << "a sink that is not silent has its own";
    Speaker().volumes = {0, 0};
    m_writer.SetLevel(Speaker(), 100);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 32768 65536"});
}

TEST_F(SinkWriterTest, ASilentSinkWithoutABalanceGetsTheLevelOnAllChannels) {
    Speaker().volumes = {0, 0};
    m_writer.SetLevel(Speaker(), 50);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 32768 32768"});
}

TEST_F(SinkWriterTest, ABalanceOfOtherChannelsDoesNotFit) {
    Amended({65536, 32768});
    Speaker().volumes = {0, 0, 0};
    m_writer.SetLevel(Speaker(), 50);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 32768 32768 32768"});
}

TEST_F(SinkWriterTest, AMuteIsSetAndTheSinkHoldsItAtOnce) {
    m_writer.SetMute(Speaker(), true);
    EXPECT_TRUE(Speaker().isMuted);
    m_writer.SetMute(Speaker(), false);
    EXPECT_FALSE(Speaker().isMuted);
    EXPECT_EQ(m_server.Take(), (Lines{"sink 2 mute", "sink 2 unmute"}));
}

TEST_F(SinkWriterTest, ALookIsDueWhenAllWritesOfASinkAreAnsweredOrRefused) {
    Sink other = MakeSink(RECEIVER, "receiver");
    m_writer.SetLevel(Speaker(), 50);
    m_writer.SetMute(Speaker(), true);
    m_writer.SetMute(other, true);
    m_server.Answer();
    EXPECT_EQ(m_answers, 0);
    m_server.Answer(false);
    EXPECT_EQ(m_answers, 1);
    m_server.Answer();
    EXPECT_EQ(m_answers, 2);
}

TEST_F(SinkWriterTest, AnAnswerWithoutAWriteIsAsTheServerGaveIt) {
    EXPECT_EQ(Amended({20000, 20000}).sinks.front().volumes, (Volumes{20000, 20000}));
}

TEST_F(SinkWriterTest, WhatIsNotConfirmedIsInTheAnswerToALook) {
    m_writer.SetLevel(Speaker(), 50);
    m_writer.SetMute(Speaker(), true);
    m_writer.BeginLook();
    m_server.Answer();
    const Snapshot answer = Amended({65536, 32768});
    EXPECT_EQ(answer.sinks.front().volumes, (Volumes{32768, 16384}));
    EXPECT_TRUE(answer.sinks.front().isMuted);
}

TEST_F(SinkWriterTest, WhatWasWrittenSinceTheLookBeganIsInItsAnswerEvenIfItIsConfirmed) {
    m_writer.BeginLook();
    m_writer.SetLevel(Speaker(), 50);
    m_server.Answer();
    EXPECT_EQ(Amended({65536, 32768}).sinks.front().volumes, (Volumes{32768, 16384}));
    m_writer.BeginLook();
    EXPECT_EQ(Amended({65536, 32768}).sinks.front().volumes, (Volumes{65536, 32768})) << "a look after it";
}

TEST_F(SinkWriterTest, AWriteToOneSinkDoesNotChangeTheAnswerOfAnother) {
    Sink other = MakeSink(RECEIVER, "receiver");
    m_writer.BeginLook();
    m_writer.SetMute(other, true);
    EXPECT_EQ(Amended({20000, 20000}).sinks.front().volumes, (Volumes{20000, 20000}));
}

TEST_F(SinkWriterTest, ASinkThatIsNewInTheAnswerIsAsTheServerGaveIt) {
    m_writer.BeginLook();
    m_writer.SetLevel(Speaker(), 50);
    m_before = {};
    EXPECT_EQ(Amended({20000, 20000}).sinks.front().volumes, (Volumes{20000, 20000}));
}

TEST_F(SinkWriterTest, ASinkThatHasGoneTakesItsBalanceWithIt) {
    Amended({65536, 32768});
    Snapshot empty;
    m_writer.Amend(empty, m_before);
    Speaker().volumes = {0, 0};
    m_writer.SetLevel(Speaker(), 50);
    EXPECT_EQ(m_server.Take(), Lines{"sink 2 volumes 32768 32768"});
}

TEST_F(SinkWriterTest, AWriteToASinkThatHasGoneIsStillAnswered) {
    m_writer.SetLevel(Speaker(), 50);
    Snapshot empty;
    m_writer.Amend(empty, m_before);
    m_server.Answer(false);
    EXPECT_EQ(m_answers, 1);
}

TEST_F(SinkWriterTest, AnotherConnectionKnowsNothingOfTheWritesOfTheLast) {
    Amended({65536, 32768});
    m_writer.SetLevel(Speaker(), 0);
    m_writer.BeginLook();
    m_writer.Forget();
    EXPECT_EQ(Amended({0, 0}).sinks.front().volumes, (Volumes{0, 0}));
    m_writer.SetLevel(Speaker(), 50);
    EXPECT_EQ(m_server.Take().back(), "sink 2 volumes 32768 32768");
}

}  // namespace
}  // namespace sound
