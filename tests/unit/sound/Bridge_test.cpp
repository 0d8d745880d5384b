// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Bridge.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "Errors.h"
#include "FakeServer.h"
#include "LostNotifications.h"
#include "Printed.h"
#include "Snapshots.h"
#include "TvOfTests.h"

namespace fs = std::filesystem;

namespace sound {
namespace {

constexpr int HDMI = 2;
constexpr Index SUB = 21;
const std::string PLAYS = "the TV /the/tv plays on pulseaudio 16.1\n";
const std::string LOAD_KAVREL = "load module-null-sink " + KavrelArguments();
const std::string LOAD_MAIN = "load module-loopback " + StageArguments(MAIN_STAGE, "speaker", 60);

/** A bridge on a TV whose route is the TV speaker, whose gains are full, and whose HDMI output plays on "receiver". */
class BridgeTest : public testing::Test {
protected:
    BridgeTest() {
        OpenTvOfTests();
        fs::remove(host::Root() / ".sound");
        Put(host::ROUTE, "0");
        Put(host::MAIN_OUT_GAIN, "100");
        Put(host::SUB_OUT_GAIN, "100");
        Put(host::MASTER_VOLUME, "100");
        for (const host::NamedValue& request : {host::LEVEL_REQUEST, host::MUTE_REQUEST}) {
            Put(request, "0");
        }
    }

    void Start() {
        m_claim.emplace(m_settings);
        m_bridge.emplace(m_server, "/the/tv", m_settings, *m_claim);
    }

    /** Starts the bridge on a server that is ready and holds this. */
    void StartOn(const Snapshot& snapshot) {
        Start();
        m_server.BecomeReady();
        m_server.AnswerLook(snapshot);
    }

    /** Starts the bridge, and has it play through the main stage. */
    void Play(Index sink = SPEAKER) {
        StartOn(WithStage(sink));
        Settle(WithStage(sink));
    }

    /** The server goes. @return what the bridge complains about */
    std::string Go() {
        return ComplaintsOf([this] { m_server.Go("Connection terminated"); });
    }

    /** Answers all until the bridge asks no more of a server that holds this. */
    void Settle(const Snapshot& snapshot) {
        for (int round = 0; round < 10; ++round) {
            m_server.AnswerAll();
            while (m_server.HasLook()) {
                m_server.AnswerLook(snapshot);
            }
            if (Asked().empty()) {
                return;
            }
        }
        ADD_FAILURE() << "the bridge asks for ever";
    }

    /** @return what the bridge asks for, without the looks, when the server holds this */
    Lines Shown(const Snapshot& snapshot) {
        m_server.Announce(Change::OTHER, 0);
        m_server.AnswerLook(snapshot);
        return Asked();
    }

    /** @return what the bridge has asked for, without the looks */
    Lines Asked() {
        Lines lines = m_server.Take();
        std::erase(lines, "look");
        return lines;
    }

    /** @return what the bridge asks for, without the looks, after a change of the TV */
    Lines AskedSoon() {
        m_server.Take();
        EXPECT_EQ(m_loop.RunUntil([this] { return m_server.WasAsked(); }, std::chrono::seconds(60)),
                  tools::MainLoop::Waited::MET);
        return Asked();
    }

    /** Runs the loop for a time in which what must not happen would happen. */
    void RunForAWhile() {
        m_loop.RunUntil([] { return false; }, std::chrono::milliseconds(100));
    }

    /** Takes the TV directory away, lets something happen, and puts the directory back when the bridge has gone.
     *  @return why the loop has ended */
    std::string EndOfTv(const std::function<void()>& happen) {
        const fs::path root = host::Root();
        const fs::path away = root.string() + ".away";
        std::string message;
        fs::rename(root, away);
        try {
            happen();
            m_loop.RunUntil([] { return true; }, std::chrono::seconds(1));  // runs nothing, but may throw
        } catch (const tools::ToolError& error) {
            message = error.what();
        }
        m_bridge.reset();
        m_claim.reset();
        EXPECT_FALSE(fs::exists(root)) << "the bridge has made it again";
        fs::rename(away, root);
        return message;
    }

    /** The sub stage plays on "receiver", too. */
    static Snapshot WithSubStage(Snapshot snapshot, const Volumes& volumes = {65536}) {
        snapshot.streams.push_back({SUB, SUB_STAGE, RECEIVER, 103, false, volumes});
        return snapshot;
    }

    /** A server on which a program plays, too. */
    static Snapshot WithProgram(Snapshot snapshot, Index sink = KAVREL) {
        snapshot.streams.push_back(MakeProgram(PROGRAM, sink));
        return snapshot;
    }

    Settings m_settings{"", {"2=receiver"}, "", 60, false, true};
    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    std::optional<Claim> m_claim;
    std::optional<Bridge> m_bridge;
};

// --- What it makes

TEST_F(BridgeTest, ItLooksAtTheServerAsSoonAsThatIsReady) {
    Start();
    EXPECT_EQ(m_server.Take(), Lines{"connect"});
    m_server.BecomeReady();
    EXPECT_EQ(m_server.Take(), Lines{"look"});
}

TEST_F(BridgeTest, KavrelIsMadeBeforeTheStageAndBothAreAnnouncedOnce) {
    StartOn(EmptyServer());
    EXPECT_EQ(m_server.Take(), (Lines{"connect", "look", LOAD_KAVREL}));
    m_server.AnswerLoad(KAVREL_OWNER);
    EXPECT_EQ(m_server.Take(), Lines{"look"});
    m_server.AnswerLook(WithKavrel());
    EXPECT_EQ(m_server.Take(), Lines{LOAD_MAIN});
    m_server.AnswerLoad(STAGE_OWNER);
    EXPECT_EQ(LinesOf([this] { m_server.AnswerLook(WithStage(SPEAKER, {0, 0})); }), "") << "it is silent yet";
    EXPECT_EQ(Asked(), Lines{"stream 20 volumes 65536 65536"});
    EXPECT_EQ(LinesOf([this] { Settle(WithStage()); }), PLAYS);
    EXPECT_EQ(LinesOf([this] { Shown(WithStage()); }), "");
}

TEST_F(BridgeTest, TheSubStageHasItsSinkAndItsGain) {
    m_settings.sub = "receiver";
    Put(host::SUB_OUT_GAIN, "50");
    StartOn(WithStage());
    EXPECT_EQ(m_server.Take().back(), "load module-loopback " + StageArguments(SUB_STAGE, "receiver", 60));
    EXPECT_EQ(Shown(WithSubStage(WithStage())), Lines{"stream 21 volumes 52016"});
    Settle(WithSubStage(WithStage(), {52016}));
    Put(host::SUB_OUT_GAIN, "5");
    EXPECT_EQ(AskedSoon(), Lines{"stream 21 volumes 24144"});
}

TEST_F(BridgeTest, TheTvIsNotAnnouncedBeforeTheSubStageIsInForce) {
    m_settings.sub = "receiver";
    EXPECT_EQ(LinesOf([this] {
                  StartOn(WithStage());
                  Settle(WithStage());
              }),
              "");
    EXPECT_EQ(LinesOf([this] {
                  m_server.Announce(Change::OTHER, 0);
                  Settle(WithSubStage(WithStage()));
              }),
              PLAYS);
}

TEST_F(BridgeTest, WithoutKavrelThereIsNoStage) {
    Play();
    Snapshot snapshot = WithStage();
    std::erase_if(snapshot.sinks, [](const Sink& sink) { return sink.name == "kavrel"; });
    EXPECT_EQ(Shown(snapshot), (Lines{LOAD_KAVREL, "unload 102"}));
}

TEST_F(BridgeTest, KavrelBecomesTheDefaultSinkOnceOnEachConnectionIfThatIsWanted) {
    m_settings.isDefault = true;
    StartOn(EmptyServer());
    EXPECT_EQ(m_server.Take().back(), LOAD_KAVREL) << "it is not there yet";
    EXPECT_EQ(Shown(WithKavrel()), (Lines{LOAD_MAIN, "default sink kavrel"}));
    EXPECT_EQ(Shown(WithKavrel()), Lines{});
    Go();
    m_server.BecomeReady();
    m_server.AnswerLook(WithKavrel());
    EXPECT_EQ(Asked(), (Lines{LOAD_MAIN, "default sink kavrel"}));
}

TEST_F(BridgeTest, TheDefaultSinkOfTheServerIsNotedUntilKavrelIsTheOne) {
    Play();
    EXPECT_EQ(m_claim->DefaultSink(), "speaker");
    Snapshot snapshot = WithStage();
    snapshot.defaultSink = "receiver";
    Shown(snapshot);
    snapshot.defaultSink = "kavrel";
    Shown(snapshot);
    EXPECT_EQ(m_claim->DefaultSink(), "receiver");
}

TEST_F(BridgeTest, EachNamedSinkThatIsMissingIsComplainedAboutOnceUntilItComes) {
    m_settings.outputs = {"2=gone"};
    m_settings.sub = "woofer";
    EXPECT_EQ(ComplaintsOf([this] { StartOn(WithKavrel()); }),
              "kavrel-sound: waiting for the sink woofer\nkavrel-sound: waiting for the sink gone\n");
    EXPECT_EQ(ComplaintsOf([this] { Shown(WithKavrel()); }), "");
    Snapshot whole = WithKavrel();
    whole.sinks.push_back(MakeSink(4, "gone"));
    Shown(whole);
    EXPECT_EQ(ComplaintsOf([this] { Shown(WithKavrel()); }), "kavrel-sound: waiting for the sink gone\n");
}

// --- What the TV changes

TEST_F(BridgeTest, ARouteMovesTheMainStage) {
    Play();
    Put(host::ROUTE, "2");
    EXPECT_EQ(AskedSoon(), Lines{"stream 20 to sink 3"});
}

TEST_F(BridgeTest, ARouteWithoutASinkEndsTheMainStage) {
    Play();
    Put(host::ROUTE, "3");
    EXPECT_EQ(AskedSoon(), Lines{"unload 102"});
}

TEST_F(BridgeTest, ARouteOrAGainThatCannotBeReadChangesNothing) {
    Play();
    Put({host::ROUTE.path, host::TEXT}, "nowhere");
    Put({host::SUB_OUT_GAIN.path, host::TEXT}, "loud");
    Put({host::MAIN_OUT_GAIN.path, host::TEXT}, "loud");
    Put(host::MAIN_OUT_GAIN, "50");
    EXPECT_EQ(AskedSoon(), Lines{"stream 20 volumes 52016 52016"});
}

TEST_F(BridgeTest, AGainWhoseNotificationIsLostIsPlayedAndTheLossComplainedAbout) {
    Play();
    fake::LoseNotificationsOf(host::Root() / "sound");
    Put(host::MAIN_OUT_GAIN, "50");
    EXPECT_EQ(ComplaintsOf([this] { EXPECT_EQ(AskedSoon(), Lines{"stream 20 volumes 52016 52016"}); }),
              "kavrel-sound: too many changes at once: requests may be lost\n");
}

TEST_F(BridgeTest, AFallOfAGainOnAMutedSinkIsNotHeardAfterAnUnmute) {
    Snapshot snapshot = WithStage();
    snapshot.sinks[0].isMuted = true;
    StartOn(snapshot);
    Settle(snapshot);
    Put(host::MAIN_OUT_GAIN, "50");
    EXPECT_EQ(AskedSoon(), Lines{"stream 20 volumes 0 0"});
}

TEST_F(BridgeTest, TheMasterVolumeIsThatOfTheSpeaker) {
    Snapshot snapshot = WithStage();
    snapshot.sinks[0].volumes = {32768, 32768};
    StartOn(snapshot);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50");
    Settle(snapshot);
    Put(host::MASTER_VOLUME, "30");
    EXPECT_EQ(AskedSoon(), Lines{"sink 2 volumes 19661 19661"});
}

TEST_F(BridgeTest, ALookThatBeganBeforeAVolumeWasSetDoesNotSetItBack) {
    Play();
    m_server.Announce(Change::OTHER, 0);
    Put(host::MASTER_VOLUME, "30");
    EXPECT_EQ(AskedSoon(), Lines{"sink 2 volumes 19661 19661"});
    m_server.Answer();
    m_server.AnswerLook(WithStage());
    EXPECT_EQ(Get(host::MASTER_VOLUME), "30");
}

TEST_F(BridgeTest, BeforeTheFirstLookHasItsAnswerAChangeOfTheTvAsksForNothing) {
    Start();
    m_server.BecomeReady();
    m_server.Take();
    Put(host::ROUTE, "2");
    RunForAWhile();
    EXPECT_EQ(m_server.Take(), Lines{});
    EXPECT_EQ(m_claim->DefaultSink(), "");
}

// --- Requests to an external output

TEST_F(BridgeTest, ALevelThatIsRequestedIsSetOnTheOutputInUse) {
    Put(host::ROUTE, "2");
    Play(RECEIVER);
    Put(host::LEVEL_REQUEST, "30");
    EXPECT_EQ(AskedSoon().front(), "sink 3 volumes 19661 19661");
}

TEST_F(BridgeTest, AMuteThatIsRequestedIsSetOnTheOutputInUseAndAnswered) {
    Put(host::ROUTE, "2");
    Play(RECEIVER);
    const tv::DeviceKind& kind = *tv::FindRoute(HDMI)->device;
    Put(host::MUTE_REQUEST, "1");
    EXPECT_EQ(AskedSoon().front(), "sink 3 mute");
    m_loop.RunUntil([&kind] { return Get(kind.mute) == "1"; }, std::chrono::seconds(60));
    EXPECT_EQ(Get(kind.mute), "1");
}

TEST_F(BridgeTest, ARequestIsNotForTheTvsOwnOutputs) {
    Play();
    Put(host::LEVEL_REQUEST, "30");
    Put(host::MUTE_REQUEST, "1");
    Put(host::MAIN_OUT_GAIN, "50");
    EXPECT_EQ(AskedSoon(), Lines{"stream 20 volumes 52016 52016"});
}

TEST_F(BridgeTest, ARequestIsLeftToAnotherProgramThatPlaysTheOutputs) {
    Put(host::ROUTE, "2");
    Play(RECEIVER);
    Put(tv::Player::File(), std::to_string(getppid()));
    Put(host::LEVEL_REQUEST, "30");
    Put(host::MAIN_OUT_GAIN, "50");
    EXPECT_EQ(AskedSoon(), Lines{"stream 20 volumes 52016 52016"});
}

// --- What the server announces

TEST_F(BridgeTest, AStageWhoseSinkGoesIsUnloadedBeforeAnyLook) {
    m_settings.sub = "receiver";
    StartOn(WithSubStage(WithStage()));
    Settle(WithSubStage(WithStage()));
    m_server.Take();
    m_server.Announce(Change::SINK_REMOVED, RECEIVER);
    EXPECT_EQ(m_server.Take(), (Lines{"unload 103", "look"}));
    m_server.Announce(Change::SINK_REMOVED, SPEAKER);
    EXPECT_EQ(m_server.Take(), Lines{"unload 102"});
}

TEST_F(BridgeTest, ASinkThatChangesIsNoSinkThatGoes) {
    Play();
    m_server.Take();
    m_server.Announce(Change::OTHER, SPEAKER);
    EXPECT_EQ(m_server.Take(), Lines{"look"});
}

TEST_F(BridgeTest, TheChangesOfItsOwnVolumesAreNoReasonToLook) {
    Play();
    Put(host::MAIN_OUT_GAIN, "50");
    AskedSoon();
    m_server.Announce(Change::STREAM_CHANGED, STAGE);
    EXPECT_FALSE(m_server.HasLook());
    m_server.Announce(Change::STREAM_CHANGED, PROGRAM);
    EXPECT_TRUE(m_server.HasLook());
}

TEST_F(BridgeTest, TheChangesOfTheVolumesOfTheSubStageAreNoReasonToLookEither) {
    m_settings.sub = "receiver";
    StartOn(WithSubStage(WithStage()));
    Settle(WithSubStage(WithStage()));
    Put(host::SUB_OUT_GAIN, "50");
    AskedSoon();
    m_server.Announce(Change::STREAM_CHANGED, SUB);
    EXPECT_FALSE(m_server.HasLook());
}

TEST_F(BridgeTest, AChangeOfAStageThatRestsIsAReasonToLook) {
    Play();
    m_server.Announce(Change::STREAM_CHANGED, STAGE);
    EXPECT_TRUE(m_server.HasLook());
}

TEST_F(BridgeTest, ChangesDuringALookAreSeenByOneMore) {
    Start();
    m_server.Take();
    m_server.BecomeReady();
    m_server.Announce(Change::OTHER, 0);
    m_server.Announce(Change::OTHER, 0);
    EXPECT_EQ(m_server.Take(), Lines{"look"});
    m_server.AnswerLook(WithKavrel());
    EXPECT_EQ(m_server.Take(), (Lines{LOAD_MAIN, "look"}));
    m_server.AnswerLook(WithKavrel());
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(BridgeTest, AServerThatGoesIsWaitedForAndFoundAgain) {
    Put(host::ROUTE, "2");
    Play(RECEIVER);
    const tv::DeviceKind& kind = *tv::FindRoute(HDMI)->device;
    EXPECT_EQ(Get(kind.support), "15");
    m_server.Announce(Change::OTHER, 0);
    EXPECT_EQ(Go(), "kavrel-sound: waiting for a sound server: Connection terminated\n");
    RunForAWhile();
    EXPECT_EQ(Get(kind.support), "0") << "nothing of the last snapshot is left";
    m_server.Take();
    m_server.BecomeReady();
    EXPECT_EQ(m_server.Take(), Lines{"look"});
    m_server.AnswerLook(WithStage(RECEIVER));
    EXPECT_EQ(Asked(), Lines{"stream 20 volumes 65536 65536"});
    EXPECT_EQ(LinesOf([this] { Settle(WithStage(RECEIVER)); }), PLAYS);
    EXPECT_EQ(Get(kind.support), "15");
}

TEST_F(BridgeTest, WhatTheLastConnectionWasMakingIsMadeOnTheNext) {
    StartOn(EmptyServer());
    Go();
    m_server.Take();
    m_server.BecomeReady();
    m_server.AnswerLook(EmptyServer());
    EXPECT_EQ(Asked(), Lines{LOAD_KAVREL});
}

TEST_F(BridgeTest, AVolumeThatTheLastServerDidNotConfirmIsSetOnTheNextOneWhichMayChangeIt) {
    Play();
    Put(host::MASTER_VOLUME, "30");
    EXPECT_EQ(AskedSoon(), Lines{"sink 2 volumes 19661 19661"});
    Go();
    m_server.BecomeReady();
    m_server.AnswerLook(WithKavrel());
    EXPECT_EQ(Asked().front(), "sink 2 volumes 19661 19661");
    m_server.Answer();
    Snapshot snapshot = WithKavrel();
    snapshot.sinks[0].volumes = {32768, 32768};
    m_server.AnswerLook(snapshot);
    EXPECT_EQ(Get(host::MASTER_VOLUME), "50");
}

// --- The programs

TEST_F(BridgeTest, ProgramsAreMovedBackToAKavrelThatWasMadeAgain) {
    StartOn(WithProgram(WithStage()));
    Settle(WithProgram(WithStage()));
    Shown(WithProgram(WithStage()));
    EXPECT_EQ(Shown(WithProgram(EmptyServer(), SPEAKER)), Lines{LOAD_KAVREL});
    EXPECT_EQ(Shown(WithProgram(WithKavrel(EmptyServer(), 9), SPEAKER)),
              (Lines{"stream 30 to sink 9", LOAD_MAIN}));
    EXPECT_EQ(Shown(WithProgram(WithKavrel(EmptyServer(), 9), SPEAKER)), Lines{})
        << "a person may move it away";
}

TEST_F(BridgeTest, AProgramThatAPersonHasMovedAwayStaysAway) {
    StartOn(WithProgram(WithKavrel()));
    Shown(WithProgram(WithKavrel()));
    Shown(WithProgram(WithKavrel(), SPEAKER));
    EXPECT_EQ(Shown(WithProgram(WithKavrel(EmptyServer(), 9), SPEAKER)), Lines{});
}

TEST_F(BridgeTest, AProgramThatIsOnTheNewKavrelAlreadyIsNotMoved) {
    StartOn(WithProgram(WithKavrel()));
    Shown(WithProgram(WithKavrel()));
    EXPECT_EQ(Shown(WithProgram(WithKavrel(EmptyServer(), 9), 9)), Lines{});
}

TEST_F(BridgeTest, TheProgramsOfTheLastConnectionAreNotThoseOfTheNext) {
    StartOn(WithProgram(WithKavrel()));
    Shown(WithProgram(WithKavrel()));
    Go();
    m_server.BecomeReady();
    m_server.AnswerLook(WithProgram(WithKavrel(EmptyServer(), 9), SPEAKER));
    EXPECT_EQ(Asked(), Lines{LOAD_MAIN});
}

// --- Silence until the gains are in force

TEST_F(BridgeTest, KavrelIsMutedUntilTheGainOfANewStageIsInForce) {
    Put(host::MAIN_OUT_GAIN, "50");
    StartOn(WithProgram(WithStage(SPEAKER, {52016, 52016})));
    Settle(WithProgram(WithStage(SPEAKER, {52016, 52016})));
    m_server.Take();
    EXPECT_EQ(Shown(WithProgram(WithKavrel())), (Lines{"sink 1 mute", LOAD_MAIN}));
    EXPECT_TRUE(m_claim->IsGuarding());
    m_server.Answer();
    EXPECT_EQ(Shown(WithProgram(WithStage())), Lines{"stream 20 volumes 52016 52016"});
    EXPECT_TRUE(m_claim->IsGuarding());
    m_server.Answer();
    m_server.AnswerLook(WithProgram(WithStage(SPEAKER, {52016, 52016})));
    EXPECT_EQ(Asked(), Lines{"sink 1 unmute"});
    EXPECT_TRUE(m_claim->IsGuarding()) << "the server may not have done it";
    m_server.Answer();
    EXPECT_FALSE(m_claim->IsGuarding());
}

TEST_F(BridgeTest, TheSubStageIsWaitedForTooBeforeKavrelIsHeard) {
    m_settings.sub = "receiver";
    Put(host::SUB_OUT_GAIN, "50");
    StartOn(WithProgram(WithStage()));
    m_server.Take();
    EXPECT_EQ(Shown(WithProgram(WithStage())), Lines{"sink 1 mute"});
}

TEST_F(BridgeTest, WithoutAProgramThereIsNothingToMute) {
    Put(host::MAIN_OUT_GAIN, "50");
    Snapshot snapshot = WithKavrel();
    snapshot.streams = {{SUB, SUB_STAGE, KAVREL, 103, false, {65536}}, MakeProgram(PROGRAM, SPEAKER)};
    StartOn(snapshot);
    Shown(snapshot);
    EXPECT_FALSE(m_claim->IsGuarding());
}

TEST_F(BridgeTest, AMuteOfAPersonIsLeftAlone) {
    Put(host::MAIN_OUT_GAIN, "50");
    Snapshot snapshot = WithProgram(WithKavrel());
    snapshot.sinks.back().isMuted = true;
    StartOn(snapshot);
    Shown(snapshot);
    EXPECT_FALSE(m_claim->IsGuarding());
    Snapshot settled = WithProgram(WithStage(SPEAKER, {52016, 52016}));
    settled.sinks.back().isMuted = true;
    m_server.Take();
    EXPECT_EQ(Shown(settled), Lines{"stream 20 volumes 52016 52016"});
    m_server.AnswerAll();
    EXPECT_EQ(Shown(settled), Lines{});
}

TEST_F(BridgeTest, AMuteThatAKilledBridgeHasLeftIsLifted) {
    m_claim.emplace(m_settings);
    m_claim->NoteGuard(true);
    m_claim.reset();
    StartOn(WithStage());
    const Lines asked = Asked();
    EXPECT_EQ(std::count(asked.begin(), asked.end(), "sink 1 unmute"), 1);
}

// --- The end

const std::string HAS_GONE = "the TV directory /the/tv has gone";

TEST_F(BridgeTest, ItEndsWhenTheTvDirectoryGoesAndDoesNotMakeItAgain) {
    Play();
    fs::remove(host::Root() / tv::Player::File().path);  // the notification of a file comes first
    EXPECT_EQ(EndOfTv([this] { m_loop.RunUntil([] { return false; }, std::chrono::seconds(60)); }), HAS_GONE);
}

TEST_F(BridgeTest, AChangeOfTheServerDoesNotMakeTheTvDirectoryAgain) {
    Play();
    EXPECT_EQ(EndOfTv([this] { Shown(WithStage()); }), HAS_GONE);
}

TEST_F(BridgeTest, AServerThatGoesDoesNotMakeTheTvDirectoryAgain) {
    Play();
    EXPECT_EQ(EndOfTv([this] { Go(); }), HAS_GONE);
}

}  // namespace
}  // namespace sound
