// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Stage.h"

#include <gtest/gtest.h>

#include <chrono>

#include "FakeServer.h"
#include "Snapshots.h"

namespace sound {
namespace {

const std::string LOAD = "load module-loopback ";

class StageTest : public testing::Test {
protected:
    void Follow(const Snapshot& snapshot, const std::string& sink = "speaker") {
        m_stage.Follow(snapshot, snapshot.FindSink(sink));
    }

    /** Makes the stage play on "speaker" with this gain, and settles it. */
    void Play(int gain) {
        m_stage.SetGain(gain, false);
        Follow(WithStage());
        m_server.AnswerAll();
        m_server.Take();
        m_changes = 0;
    }

    Lines FollowAndTake(const Snapshot& snapshot, const std::string& sink = "speaker") {
        Follow(snapshot, sink);
        return m_server.Take();
    }

    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    int m_changes = 0;
    Stage m_stage{m_server, {MAIN_STAGE, 80, false, [this] { ++m_changes; }}};
};

// --- Its module and its stream

TEST_F(StageTest, AStageIsMadeForItsSink) {
    EXPECT_TRUE(m_stage.IsSettled());
    EXPECT_EQ(FollowAndTake(WithKavrel()), Lines{LOAD + StageArguments(MAIN_STAGE, "speaker", 80)});
    EXPECT_FALSE(m_stage.IsSettled());
    m_server.AnswerLoad(STAGE_OWNER);
    EXPECT_EQ(m_changes, 1);
}

TEST_F(StageTest, WithoutASinkThereIsNoStage) {
    Play(50);
    EXPECT_EQ(FollowAndTake(WithStage(), "none"), Lines{"unload 102"});
    EXPECT_TRUE(m_stage.IsSettled());
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
    m_stage.SetGain(40, false);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(StageTest, AStageThatIsBeingMadeIsNotAwaitedOnceItsSinkHasGone) {
    Follow(WithKavrel());
    Follow(WithKavrel(), "none");
    EXPECT_TRUE(m_stage.IsSettled());
}

TEST_F(StageTest, AStreamThatAppearsGetsTheGainAndIsSettledWhenTheServerHasIt) {
    m_stage.SetGain(50, false);
    EXPECT_EQ(FollowAndTake(WithStage()), Lines{"stream 20 volumes 52016 52016"});
    EXPECT_FALSE(m_stage.IsSettled());
    EXPECT_EQ(m_changes, 0);
    m_server.Answer();
    EXPECT_TRUE(m_stage.IsSettled());
    EXPECT_EQ(m_changes, 1);
    EXPECT_EQ(FollowAndTake(WithStage(SPEAKER, {52016, 52016})), Lines{});
}

TEST_F(StageTest, AVolumeHasAsManyChannelsAsTheStream) {
    m_stage.SetGain(100, false);
    EXPECT_EQ(FollowAndTake(WithStage(SPEAKER, {0})), Lines{"stream 20 volumes 65536"});
}

TEST_F(StageTest, AStreamWhoseModuleIsNotTheOneToKeepIsNotTheStages) {
    Snapshot snapshot = WithStage();
    Stream program = MakeStage(19, SPEAKER, NO_INDEX);
    snapshot.streams.insert(snapshot.streams.begin(), program);
    snapshot.streams.push_back(MakeStage(21, SPEAKER, 103));
    snapshot.streams.push_back({22, "song", SPEAKER, STAGE_OWNER, false, {}});
    EXPECT_EQ(FollowAndTake(snapshot), (Lines{"unload 103", "stream 20 volumes 0 0"}));
}

TEST_F(StageTest, AStreamWhoseModuleIsBeingUnloadedIsNotTheStages) {
    Play(100);
    m_stage.Leave(SPEAKER);
    m_server.Take();
    Snapshot snapshot = WithStage();
    snapshot.streams.push_back(MakeStage(21, SPEAKER, 103));
    EXPECT_EQ(FollowAndTake(snapshot), Lines{"stream 21 volumes 65536 65536"});
}

TEST_F(StageTest, AStageThatSomebodyUnloadsIsMadeAgainWithTheGain) {
    Play(50);
    EXPECT_EQ(FollowAndTake(WithKavrel()), Lines{LOAD + StageArguments(MAIN_STAGE, "speaker", 80)});
    EXPECT_FALSE(m_stage.IsSettled());
    Snapshot snapshot = WithKavrel();
    snapshot.streams = {MakeStage(21, SPEAKER, 103)};
    EXPECT_EQ(FollowAndTake(snapshot), Lines{"stream 21 volumes 52016 52016"});
}

TEST_F(StageTest, AStreamThatHasGoneGetsNoGain) {
    Play(50);
    Follow(WithKavrel());
    m_server.Take();
    m_stage.SetGain(40, false);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(StageTest, TheAnswerOfAStreamThatHasGoneDoesNotSettleTheNextOne) {
    Follow(WithStage());
    Snapshot snapshot = WithKavrel();
    snapshot.streams = {MakeStage(21, SPEAKER, STAGE_OWNER)};
    Follow(snapshot);
    m_server.Answer();
    EXPECT_FALSE(m_stage.IsSettled());
    EXPECT_EQ(m_changes, 0);
    m_server.Answer();
    EXPECT_TRUE(m_stage.IsSettled());
}

TEST_F(StageTest, AMuteOfTheStreamIsLifted) {
    Play(100);
    Snapshot snapshot = WithStage();
    snapshot.streams.front().isMuted = true;
    EXPECT_EQ(FollowAndTake(snapshot), Lines{"stream 20 unmute"});
}

TEST_F(StageTest, AVolumeThatSomebodySetsIsSetBackUnlessTheServerHasOnlyRoundedIt) {
    Play(100);
    EXPECT_EQ(FollowAndTake(WithStage(SPEAKER, {65536 + 65, 65536 - 65})), Lines{});
    for (const Volumes& volumes : {Volumes{65536 + 66, 65536}, Volumes{65536, 65536 - 66}, Volumes{0, 0}}) {
        EXPECT_EQ(FollowAndTake(WithStage(SPEAKER, volumes)), Lines{"stream 20 volumes 65536 65536"});
        m_server.Answer();
    }
    EXPECT_EQ(m_changes, 0) << "the stage was settled all the time";
}

TEST_F(StageTest, ASnapshotFromBeforeTheLastVolumeIsNoReasonToSetItAgain) {
    Play(100);
    m_stage.SetGain(50, false);
    m_server.Take();
    Follow(WithStage());
    m_server.Answer();
    EXPECT_EQ(m_server.Take(), Lines{});
}

// --- The sink that it plays on

TEST_F(StageTest, AStageOnAnotherSinkIsMovedOnce) {
    Play(100);
    EXPECT_EQ(FollowAndTake(WithStage(), "receiver"), Lines{"stream 20 to sink 3"});
    EXPECT_EQ(FollowAndTake(WithStage(), "receiver"), Lines{}) << "before the answer";
    m_server.Answer();
    EXPECT_EQ(m_changes, 1);
    EXPECT_EQ(FollowAndTake(WithStage(), "receiver"), Lines{"stream 20 to sink 3"});
    EXPECT_TRUE(m_stage.IsSettled());
}

TEST_F(StageTest, AMoveThatFailsIsTriedAtTheNextLookThatOthersCause) {
    Play(100);
    Follow(WithStage(), "receiver");
    m_server.Answer(false);
    EXPECT_EQ(m_changes, 0);
    m_server.Take();
    EXPECT_EQ(FollowAndTake(WithStage(), "receiver"), Lines{"stream 20 to sink 3"});
}

TEST_F(StageTest, AServerThatLosesMovedSoundGetsANewStage) {
    Play(100);
    Snapshot snapshot = WithStage();
    snapshot.server = "PulseAudio (on PipeWire 0.3.65) 15.0.0";
    EXPECT_EQ(FollowAndTake(snapshot), Lines{}) << "it is on the right sink";
    EXPECT_EQ(FollowAndTake(snapshot, "receiver"), Lines{"unload 102"});
    EXPECT_FALSE(m_stage.IsSettled());
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
}

TEST_F(StageTest, ANewStageMayBeOnItsWayToItsSinkOnAServerThatLosesMovedSound) {
    Play(100);
    Snapshot snapshot = WithStage(NO_INDEX);
    snapshot.server = "PulseAudio (on PipeWire 0.3.65) 15.0.0";
    EXPECT_EQ(FollowAndTake(snapshot), Lines{});
    EXPECT_TRUE(m_stage.IsSettled());
}

TEST_F(StageTest, AStageWhoseSinkGoesIsSilencedAtOnce) {
    Play(100);
    m_stage.Leave(RECEIVER);
    EXPECT_EQ(m_server.Take(), Lines{});
    m_stage.Leave(SPEAKER);
    EXPECT_EQ(m_server.Take(), Lines{"unload 102"});
    m_server.Answer();
    m_stage.Leave(SPEAKER);
    m_stage.SetGain(50, false);
    EXPECT_EQ(m_server.Take(), Lines{}) << "it has left already";
}

// --- Whether sound comes too early

TEST_F(StageTest, AStageAppearsWhileItsGainIsNotInForce) {
    const Snapshot without = WithKavrel();
    const Snapshot with = WithStage();
    m_stage.SetGain(50, false);
    EXPECT_TRUE(m_stage.WillAppear(without, &without.sinks[0]));
    EXPECT_FALSE(m_stage.WillAppear(without, nullptr)) << "there will be no stage";
    Follow(with);
    EXPECT_TRUE(m_stage.WillAppear(with, &with.sinks[0])) << "the server has not answered";
    m_server.Answer();
    EXPECT_FALSE(m_stage.WillAppear(with, &with.sinks[0]));
    EXPECT_TRUE(m_stage.WillAppear(without, &without.sinks[0])) << "somebody has unloaded it";
}

TEST_F(StageTest, AFullGainIsInForceFromTheStart) {
    const Snapshot without = WithKavrel();
    m_stage.SetGain(100, false);
    EXPECT_FALSE(m_stage.WillAppear(without, &without.sinks[0]));
    m_stage.SetGain(99, false);
    EXPECT_TRUE(m_stage.WillAppear(without, &without.sinks[0]));
}

// --- Its gain

TEST_F(StageTest, WithoutSmoothingAGainIsSentAtOnce) {
    Play(100);
    m_stage.SetGain(50, false);
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 52016 52016"});
    m_server.Answer();
    m_stage.SetGain(50, false);
    EXPECT_EQ(m_server.Take(), Lines{}) << "the gain has it already";
}

TEST_F(StageTest, ASlowServerGetsTheLastGainAlone) {
    Play(100);
    m_stage.SetGain(50, false);
    m_stage.SetGain(25, false);
    m_stage.SetGain(5, false);
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 52016 52016"});
    m_server.Answer(false);
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 24144 24144"});
    m_server.Answer();
    EXPECT_EQ(m_server.Take(), Lines{});
    EXPECT_EQ(m_changes, 0);
}

TEST_F(StageTest, AStageIsChangingUntilTheServerHasItsGain) {
    Play(100);
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
    m_stage.SetGain(50, false);
    EXPECT_TRUE(m_stage.IsChanging(STAGE));
    EXPECT_FALSE(m_stage.IsChanging(PROGRAM));
    m_server.Answer();
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
}

TEST_F(StageTest, AFallOnAMutedSinkGoesToSilenceFirst) {
    Play(50);
    m_stage.SetGain(5, true);
    m_server.AnswerAll();
    EXPECT_EQ(m_server.Take(), (Lines{"stream 20 volumes 0 0", "stream 20 volumes 24144 24144"}));
}

TEST_F(StageTest, ARiseOrAnEqualGainOnAMutedSinkIsNoFall) {
    Play(50);
    m_stage.SetGain(50, true);
    EXPECT_EQ(m_server.Take(), Lines{});
    m_stage.SetGain(100, true);
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 65536 65536"});
}

TEST_F(StageTest, AnotherConnectionBeginsWithTheSameGain) {
    Play(50);
    Follow(WithStage(), "receiver");
    m_stage.SetGain(25, false);
    m_server.Take();
    m_stage.Forget();
    EXPECT_TRUE(m_stage.IsSettled());
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
    EXPECT_EQ(FollowAndTake(WithStage(), "receiver"),
              (Lines{"stream 20 volumes 41285 41285", "stream 20 to sink 3"}));
}

TEST_F(StageTest, AStageThatTheLastConnectionWasMakingIsMadeOnTheNextOne) {
    Follow(WithKavrel());
    m_stage.Forget();
    EXPECT_TRUE(m_stage.IsSettled());
    m_server.Take();
    EXPECT_EQ(FollowAndTake(WithKavrel()), Lines{LOAD + StageArguments(MAIN_STAGE, "speaker", 80)});
}

// --- Smoothing

class StageSmoothingTest : public testing::Test {
protected:
    /** The stage plays on "speaker", silently. */
    StageSmoothingTest() {
        const Snapshot snapshot = WithStage();
        m_stage.Follow(snapshot, snapshot.FindSink("speaker"));
        m_server.AnswerAll();
        m_server.Take();
    }

    /** @return the next volume of the stage */
    std::string Next() {
        EXPECT_EQ(m_loop.RunUntil([this] { return m_server.WasAsked(); }, std::chrono::seconds(60)),
                  tools::MainLoop::Waited::MET);
        const Lines lines = m_server.Take();
        m_server.AnswerAll();
        return lines.size() == 1 ? lines.front() : std::to_string(lines.size()) + " volumes";
    }

    /** @return the volumes until the gain is in force */
    Lines Way() {
        Lines way;
        while (m_stage.IsChanging(STAGE) && !HasFailure()) {
            way.push_back(Next());
        }
        return way;
    }

    /** Expects that the gain comes into force in eight steps: the first and the last are these. */
    void ExpectEightSteps(const std::string& first, const std::string& last) {
        const Lines way = Way();
        ASSERT_EQ(way.size(), 8U);
        EXPECT_EQ(way.front(), first);
        EXPECT_EQ(way.back(), last);
    }

    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    Stage m_stage{m_server, {MAIN_STAGE, 60, true, [] {}}};
};

TEST_F(StageSmoothingTest, AGainChangesInEightSteps) {
    m_stage.SetGain(100, false);
    EXPECT_TRUE(m_stage.IsChanging(STAGE));
    EXPECT_EQ(Way(), (Lines{"stream 20 volumes 32768 32768", "stream 20 volumes 41285 41285",
                            "stream 20 volumes 47260 47260", "stream 20 volumes 52016 52016",
                            "stream 20 volumes 56032 56032", "stream 20 volumes 59543 59543",
                            "stream 20 volumes 62683 62683", "stream 20 volumes 65536 65536"}));
}

TEST_F(StageSmoothingTest, EachStepHasItsPeriodTheFirstOneToo) {
    const auto start = std::chrono::steady_clock::now();
    m_stage.SetGain(100, false);
    EXPECT_EQ(m_server.Take(), Lines{});
    Way();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 8 * Smoother::PERIOD - std::chrono::milliseconds(1));
}

TEST_F(StageSmoothingTest, AGainThatComesOnTheWayIsReachedInEightStepsFromThere) {
    m_stage.SetGain(100, false);
    EXPECT_EQ(Next(), "stream 20 volumes 32768 32768");
    m_stage.SetGain(0, false);
    EXPECT_EQ(m_server.Take(), Lines{});
    ExpectEightSteps("stream 20 volumes 31341 31341", "stream 20 volumes 0 0");
}

TEST_F(StageSmoothingTest, AGainThatComesOnTheWayDoesNotDelayTheNextStep) {
    m_stage.SetGain(50, false);
    const auto isDue = std::chrono::steady_clock::now() + Smoother::PERIOD + std::chrono::milliseconds(1);
    while (std::chrono::steady_clock::now() < isDue) {  // the loop must not run meanwhile
    }
    m_stage.SetGain(100, false);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(m_server.Take().size(), 1U);
}

TEST_F(StageSmoothingTest, AServerThatIsTooSlowForTheStepsGetsTheFirstAndTheLast) {
    m_stage.SetGain(100, false);
    for (int steps = 0; steps < Smoother::STEPS;) {  // nothing but steps happens on the loop
        steps += g_main_context_iteration(nullptr, TRUE) != FALSE ? 1 : 0;
    }
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 32768 32768"});
    m_server.Answer();
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 65536 65536"});
    EXPECT_TRUE(m_stage.IsChanging(STAGE));
    m_server.Answer();
    EXPECT_FALSE(m_stage.IsChanging(STAGE));
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(StageSmoothingTest, AFallOnAMutedSinkRisesFromSilence) {
    m_stage.SetGain(100, false);
    Way();
    m_stage.SetGain(50, true);
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 0 0"});
    m_server.AnswerAll();
    ExpectEightSteps("stream 20 volumes 26008 26008", "stream 20 volumes 52016 52016");
}

TEST_F(StageSmoothingTest, ANewStreamHasTheGainWithoutSteps) {
    m_stage.SetGain(100, false);
    Next();
    Snapshot snapshot = WithKavrel();
    snapshot.streams = {MakeStage(21, SPEAKER, STAGE_OWNER)};
    m_stage.Follow(snapshot, snapshot.FindSink("speaker"));
    EXPECT_EQ(m_server.Take(), Lines{"stream 21 volumes 65536 65536"});
    m_server.AnswerAll();
    EXPECT_FALSE(m_stage.IsChanging(21));
}

TEST_F(StageSmoothingTest, ALostConnectionEndsTheSteps) {
    m_stage.SetGain(100, false);
    Next();
    m_stage.Forget();
    const Snapshot snapshot = WithStage();
    m_stage.Follow(snapshot, snapshot.FindSink("speaker"));
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 65536 65536"});
}

TEST_F(StageSmoothingTest, AGainWithoutAStreamIsInForceAtOnce) {
    m_stage.Leave(SPEAKER);
    m_server.AnswerAll();
    m_server.Take();
    m_stage.SetGain(100, false);
    m_stage.SetGain(50, true);
    EXPECT_EQ(m_server.Take(), Lines{});
    const Snapshot snapshot = WithStage();
    m_stage.Follow(snapshot, snapshot.FindSink("speaker"));
    EXPECT_EQ(m_server.Take(), Lines{"stream 20 volumes 52016 52016"});
}

}  // namespace
}  // namespace sound
