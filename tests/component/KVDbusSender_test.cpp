// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVDbusSender.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "DaemonTest.h"

using NKavrel::KVDbusSender;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string PidCall(const std::string& sender) {
    return "g_dbus_connection_call_sync(org.freedesktop.DBus, /org/freedesktop/DBus, "
           "org.freedesktop.DBus.GetConnectionUnixProcessID, ('" +
           sender + "',), *, 0, -1)";
}

/** A process whose command line the test chooses. */
class Program {
public:
    explicit Program(const std::string& firstArgument) : m_pid(fork()) {
        if (m_pid == 0) {
            execl("/bin/sleep", firstArgument.c_str(), "1000", nullptr);
            _exit(127);
        }
        // The new command line appears when the new program runs.
        const std::string expected = firstArgument + '\0' + "1000" + '\0';
        while (CommandLine() != expected) {
            if (waitpid(m_pid, nullptr, WNOHANG) != 0) {
                throw std::runtime_error("the program did not start");
            }
        }
    }
    ~Program() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    unsigned int Pid() const { return static_cast<unsigned int>(m_pid); }

private:
    std::string CommandLine() const {
        std::ifstream file("/proc/" + std::to_string(m_pid) + "/cmdline");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    pid_t m_pid;
};

/** Tests the caller tracker alone. Its look-ups run only when the test runs the main context. */
class KVDbusSenderTest : public testing::Test {
protected:
    ~KVDbusSenderTest() override { Idle(); }

    void Idle() { fake::RunMainContextUntilQuiet(); }
    void SeeOnce(const std::string& sender) {
        tracker.Print(sender);
        Idle();
    }
    std::string NameOf(const std::string& firstArgument) {
        const Program program(firstArgument);
        return tracker.GetSenderNameByPID(program.Pid());
    }

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    fake::BusClient client;
    KVDbusSender tracker;
};

// Callers.

TEST_F(KVDbusSenderTest, ANewCallerIsLookedUpWhenTheLoopIsIdleAndKnownFromThenOn) {
    const std::string caller = client.Name() + '/' + ProgramName();
    tracker.Print(client.Name());
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
    Idle();
    EXPECT_THAT(
        journal.Here().Lines(),
        ElementsAre(PidCall(client.Name()), "UpdateSenderLists: I Called by [" + caller + "] size:1"));
    seam.Clear();
    tracker.Print(client.Name());
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("Print: I Called by [" + caller + ']'));
}

TEST_F(KVDbusSenderTest, ALookUpComesAfterTheMessagesThatWait) {
    tracker.Print(client.Name());
    GSource* lookUp = g_main_context_find_source_by_user_data(nullptr, &tracker);
    ASSERT_NE(lookUp, nullptr);
    EXPECT_EQ(g_source_get_priority(lookUp), G_PRIORITY_DEFAULT_IDLE);
}

TEST_F(KVDbusSenderTest, ACallerSeenTwiceBeforeTheLoopIsIdleIsLookedUpTwice) {
    const std::string caller = client.Name() + '/' + ProgramName();
    tracker.Print(client.Name());
    tracker.Print(client.Name());
    Idle();
    EXPECT_THAT(
        journal.Here().Lines(),
        ElementsAre(PidCall(client.Name()), "UpdateSenderLists: I Called by [" + caller + "] size:1",
                    PidCall(client.Name()), "UpdateSenderLists: I Called by [" + caller + "] size:1"));
}

TEST_F(KVDbusSenderTest, TheLastLookUpOfACallerNamesItsProgram) {
    seam.Fail("g_dbus_connection_call_sync", gio::REFUSED, 1);
    tracker.Print(client.Name());
    tracker.Print(client.Name());
    Idle();
    seam.Clear();
    tracker.Print(client.Name());
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("Print: I Called by [" + client.Name() + '/' + ProgramName() + ']'));
}

TEST_F(KVDbusSenderTest, AMessageIsKeptUntilItsLookUpHasRun) {
    auto message = std::make_shared<int>();
    const std::weak_ptr<int> kept = message;
    tracker.m_messageInHand = std::move(message);
    tracker.Print(client.Name());
    bool isKept = false;
    seam.BeforeNext("g_dbus_connection_call_sync", [&] { isKept = !kept.expired(); });
    Idle();
    EXPECT_TRUE(isKept);
    EXPECT_TRUE(kept.expired());
}

TEST_F(KVDbusSenderTest, CallersAreLookedUpInTheOrderOfTheirRequestsOneForEachIdleCall) {
    tracker.Print(":9.1");
    tracker.Print(":9.2");
    EXPECT_EQ(KVDbusSender::UpdateSenderLists(&tracker), FALSE);
    EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre("UpdateSenderLists: I Called by [:9.1/] size:1"));
    Idle();
    EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre("UpdateSenderLists: I Called by [:9.1/] size:1",
                                                           "UpdateSenderLists: I Called by [:9.2/] size:2"));
}

TEST_F(KVDbusSenderTest, ALookUpWithNothingPendingIsSilent) {
    EXPECT_EQ(KVDbusSender::UpdateSenderLists(&tracker), FALSE);
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
}

TEST_F(KVDbusSenderTest, ALookUpWithoutATrackerIsRefused) {
    EXPECT_EQ(KVDbusSender::UpdateSenderLists(nullptr), FALSE);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("UpdateSenderLists: E Data is Null"));
}

TEST_F(KVDbusSenderTest, OnlyANameWithoutAnEntryIsNew) {
    EXPECT_TRUE(tracker.IsNewSender(client.Name()));
    tracker.Print(client.Name());
    EXPECT_TRUE(tracker.IsNewSender(client.Name()));
    Idle();
    EXPECT_FALSE(tracker.IsNewSender(client.Name()));
    EXPECT_TRUE(tracker.IsNewSender(client.Name() + '0'));
    EXPECT_THAT(journal.Here().Logs().Lines(), testing::SizeIs(1));
}

TEST_F(KVDbusSenderTest, WhileTheKnownCallersAreBusyEveryCallerIsNewAtOnce) {
    SeeOnce(client.Name());
    bool isNew = false;
    // The tracker logs this line while it holds the lock of its callers.
    seam.BeforeNext("I Called by [:9.1/] size:2", [&] {
        fake::OnPlatformThread([&] {
            isNew = tracker.IsNewSender(client.Name());
            tracker.Print(client.Name());
        });
    });
    SeeOnce(":9.1");
    EXPECT_TRUE(isNew);
    EXPECT_FALSE(tracker.IsNewSender(client.Name()));
    EXPECT_EQ(journal.With("I Called by [" + client.Name() + '/' + ProgramName() + "] size:2").Count(), 1)
        << "queued a second time, looked up again";
}

TEST_F(KVDbusSenderTest, TheFiftyFirstCallerDropsAllOthers) {
    for (int i = 1; i <= 50; ++i) {
        SeeOnce(":9." + std::to_string(i));
    }
    EXPECT_EQ(journal.With("I Called by [:9.50/] size:50").Count(), 1);
    EXPECT_FALSE(tracker.IsNewSender(":9.1"));
    SeeOnce(":9.51");
    EXPECT_EQ(journal.With("I Called by [:9.51/] size:1").Count(), 1);
    EXPECT_FALSE(tracker.IsNewSender(":9.51"));
    EXPECT_TRUE(tracker.IsNewSender(":9.1"));
    EXPECT_TRUE(tracker.IsNewSender(":9.50"));
    SeeOnce(":9.1");
    EXPECT_EQ(journal.With("I Called by [:9.1/] size:2").Count(), 1);
}

TEST_F(KVDbusSenderTest, ARepeatedLookUpOfAKnownCallerDropsAllOthersTooWhenFull) {
    for (int i = 1; i <= 49; ++i) {
        SeeOnce(":9." + std::to_string(i));
    }
    tracker.Print(":9.50");
    tracker.Print(":9.50");
    Idle();
    EXPECT_EQ(journal.With("I Called by [:9.50/] size:50").Count(), 1);
    EXPECT_EQ(journal.With("I Called by [:9.50/] size:1").Count(), 1);
    EXPECT_TRUE(tracker.IsNewSender(":9.1"));
}

TEST_F(KVDbusSenderTest, ACallerThatIsGoneBeforeItsLookUpHasNoProgramAndIsNotLookedUpAgain) {
    auto gone = std::make_unique<fake::BusClient>();
    const std::string name = gone->Name();
    tracker.Print(name);
    gone.reset();
    Idle();
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre(PidCall(name), "UpdateSenderLists: I Called by [" + name + "/] size:1"));
    seam.Clear();
    tracker.Print(name);
    Idle();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("Print: I Called by [" + name + "/]"));
}

TEST_F(KVDbusSenderTest, ACallerWithoutAReadableCommandLineHasNoProgramAndIsNotLookedUpAgain) {
    tracker.Print(":9.1");
    gio::ReplyToNextCall(g_variant_new("(u)", 4294967295U));  // no process has this number
    KVDbusSender::UpdateSenderLists(&tracker);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                testing::Contains("UpdateSenderLists: I Called by [:9.1/] size:1"));
    Idle();
    seam.Clear();
    SeeOnce(":9.1");
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("Print: I Called by [:9.1/]"));
}

// Process ids.

TEST_F(KVDbusSenderTest, TheProcessIdOfAConnectionIsItsProcesss) {
    EXPECT_EQ(tracker.GetConnectionPID(client.Name()), static_cast<unsigned int>(getpid()));
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(PidCall(client.Name())));
}

TEST_F(KVDbusSenderTest, AnUnknownConnectionHasNoProcessIdAndThatIsNotLogged) {
    for (const char* name : {":9.1", "", "no.such.name", "not a name"}) {
        EXPECT_EQ(tracker.GetConnectionPID(name), 0U);
    }
    EXPECT_THAT(journal.Here().Logs().Lines(), IsEmpty());
}

TEST_F(KVDbusSenderTest, AReplyOfAnotherTypeIsNoProcessId) {
    gio::ReplyToNextCall(g_variant_new("(s)", "1"));
    EXPECT_EQ(tracker.GetConnectionPID(client.Name()), 0U);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre("GetConnectionPID: E Invalid reply to GetConnectionUnixProcessID: "
                            "expected (u), got (s)"));
}

TEST_F(KVDbusSenderTest, AProcessIdMayFillItsType) {
    gio::ReplyToNextCall(g_variant_new("(u)", 4294967295U));
    EXPECT_EQ(tracker.GetConnectionPID(client.Name()), 4294967295U);
}

// Program names.

TEST_F(KVDbusSenderTest, NoProcessHasNoProgram) {
    EXPECT_EQ(tracker.GetSenderNameByPID(0), "");
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
}

TEST_F(KVDbusSenderTest, AProcessThatIsGoneIsLoggedWithThePathAndTheCause) {
    EXPECT_EQ(tracker.GetSenderNameByPID(4294967295U), "");
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("GetSenderNameByPID: W Failed to open "
                                                    "cmdLine(4294967295,/proc/4294967295/cmdline) : 2"));
}

TEST_F(KVDbusSenderTest, AProgramIsTheBaseNameOfTheFirstArgument) {
    EXPECT_EQ(NameOf("/usr/bin/media-player"), "media-player");
    EXPECT_EQ(NameOf("media-player"), "media-player");
    EXPECT_EQ(NameOf("../media/player"), "player");
    EXPECT_EQ(NameOf("/"), "");
    EXPECT_EQ(NameOf("/opt/player/"), "");
    EXPECT_EQ(NameOf(""), "");
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
}

TEST_F(KVDbusSenderTest, AFirstArgumentIsCutAtItsFirstSpaceBeforeItsBaseNameIsTaken) {
    EXPECT_EQ(NameOf("/opt/my player/bin/player"), "my");
    EXPECT_EQ(NameOf("/usr/bin/player with/slash"), "player");
    EXPECT_EQ(NameOf(" player"), "");
}

TEST_F(KVDbusSenderTest, OnlyTheFirst255CharactersCount) {
    const std::string folder = '/' + std::string(199, 'f') + '/';
    EXPECT_EQ(NameOf(folder + std::string(53, 'p')), std::string(53, 'p'));
    EXPECT_EQ(NameOf(folder + std::string(54, 'p')), std::string(54, 'p')) << "255 characters";
    EXPECT_EQ(NameOf(folder + std::string(55, 'p')), std::string(54, 'p'));
    EXPECT_EQ(NameOf(folder + std::string(500, 'p')), std::string(54, 'p'));
    EXPECT_EQ(NameOf('/' + std::string(300, 'f') + "/player"), std::string(254, 'f'));
    EXPECT_EQ(NameOf(folder + std::string(53, 'p') + " x"), std::string(53, 'p'));
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
}

TEST_F(KVDbusSenderTest, AProcessWithoutACommandLineHasNoProgram) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t ended = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(tracker.GetSenderNameByPID(static_cast<unsigned int>(child)), "");
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
    waitpid(child, nullptr, 0);
}

/** Tests the caller tracker of the whole daemon with a real client. */
class KVDbusSenderOfTheDaemonTest : public DaemonTest {};

TEST_F(KVDbusSenderOfTheDaemonTest, ANewCallersRequestIsServedBeforeItsLookUp) {
    daemon.emplace();
    seam.Clear();
    EXPECT_EQ(Call("GetSpeakerVolume"), "(10, 0)");
    EXPECT_EQ(Call("GetSpeakerVolume"), "(10, 0)");
    daemon->WaitUntilIdle();
    EXPECT_THAT(
        MainLoop().Lines(),
        HasInOrder({StartLine("method", "GetSpeakerVolume"), "audio_get_master_volume()",
                    "g_dbus_method_invocation_return_value((10, 0))", PidCall(client.Name()),
                    "UpdateSenderLists: I Called by [" + client.Name() + '/' + ProgramName() + "] size:1"}));
}

TEST_F(KVDbusSenderOfTheDaemonTest, CallersOfMethodsAndSendersOfSignalsAreTrackedAlike) {
    Start();
    const fake::BusClient sender;
    sender.Emit(PUBLIC_PATH, INTERFACE, "BudsConnected", g_variant_new("(i)", 1));
    daemon->WaitUntilIdle();
    const std::string caller = "Called by [" + sender.Name() + '/' + ProgramName() + ']';
    EXPECT_THAT(MainLoop().Logs().Lines(), testing::Contains("UpdateSenderLists: I " + caller + " size:2"));
    sender.Emit(PUBLIC_PATH, INTERFACE, "Nothing", nullptr);
    daemon->WaitUntilIdle();
    EXPECT_THAT(MainLoop().Logs().Lines(), testing::Contains("Print: I " + caller));
}

}  // namespace
