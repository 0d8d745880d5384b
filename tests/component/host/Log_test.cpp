// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** What `__dlog_print` writes to standard error. */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>

#include "Tv.h"

using host_test::Folder;
using host_test::Peer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int WARN = 5;
constexpr int ERROR = 6;

/** Two ends of something that carries bytes. */
class Channel {
public:
    enum class Kind { pipe, packets };

    explicit Channel(Kind kind) {
        if (kind == Kind::pipe ? pipe2(m_ends.data(), O_CLOEXEC) != 0
                               : socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends.data()) != 0)
            std::abort();
    }
    ~Channel() {
        CloseReader();
        close(m_ends[1]);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    int Writer() const { return m_ends[1]; }
    void CloseReader() {
        if (m_ends[0] >= 0)
            close(m_ends[0]);
        m_ends[0] = -1;
    }
    /** What one read brings: of packets, what one write wrote. */
    std::string Read() const {
        std::string text(64 * 1024, '\0');
        const ssize_t count = read(m_ends[0], text.data(), text.size());
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return text;
    }
    /** As JOURNAL_STREAM names a stream. */
    std::string Name() const {
        struct stat status {};
        fstat(Writer(), &status);
        return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
    }

private:
    std::array<int, 2> m_ends{-1, -1};
};

class LogTest : public testing::Test {
protected:
    static void LogAll(Peer& peer) {
        for (const int priority : {DEBUG, INFO, WARN, ERROR})
            EXPECT_EQ(peer.Do("log " + std::to_string(priority) + " text"), "0");
    }

    Folder tv;
};

TEST_F(LogTest, InfoIsTheLowestPriorityByDefault) {
    Peer peer(tv);
    LogAll(peer);
    EXPECT_THAT(peer.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, TheLowestPriorityIsSetByName) {
    Peer debug(tv, {{"KAVREL_LOG", "debug"}});
    LogAll(debug);
    EXPECT_THAT(debug.Log(), ElementsAre("D text", "I text", "W text", "E text"));
    Peer warn(tv, {{"KAVREL_LOG", "warn"}});
    LogAll(warn);
    EXPECT_THAT(warn.Log(), ElementsAre("W text", "E text"));
    Peer error(tv, {{"KAVREL_LOG", "error"}});
    LogAll(error);
    EXPECT_THAT(error.Log(), ElementsAre("E text"));
    Peer unknown(tv, {{"KAVREL_LOG", "everything"}});
    LogAll(unknown);
    EXPECT_THAT(unknown.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, WhatIsFilteredOutIsNotFormatted) {
    Peer peer(tv);
    EXPECT_EQ(peer.Do("log-unreadable " + std::to_string(DEBUG)), "0");
    EXPECT_THAT(peer.Log(), IsEmpty());
}

TEST_F(LogTest, TheJournalGetsPriorities) {
    const Channel journal(Channel::Kind::packets);
    Peer peer(tv, {{"KAVREL_LOG", "debug"}, {"JOURNAL_STREAM", journal.Name()}}, journal.Writer());
    LogAll(peer);
    for (const char* const line : {"<7>text\n", "<6>text\n", "<4>text\n", "<3>text\n"})
        EXPECT_EQ(journal.Read(), line);
}

TEST_F(LogTest, AJournalThatIsNotBehindThisStreamDoesNotCount) {
    const Channel journal(Channel::Kind::pipe);
    Peer peer(tv, {{"JOURNAL_STREAM", journal.Name()}});
    LogAll(peer);
    EXPECT_THAT(peer.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, ATerminalGetsColours) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    std::array<char, 128> name{};
    ASSERT_EQ(ptsname_r(terminal, name.data(), name.size()), 0);
    const int side = open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(side, 0);
    Peer peer(tv, {}, side);
    EXPECT_EQ(peer.Do("log 6 red"), "0");
    std::array<char, 128> text{};
    const ssize_t count = read(terminal, text.data(), text.size());
    ASSERT_GT(count, 0);
    EXPECT_EQ(std::string(text.data(), static_cast<std::size_t>(count)), "\033[31mE red\033[0m\r\n");
    close(side);
    close(terminal);
}

TEST_F(LogTest, EachLineIsOneWriteAndNoNewlineIsAdded) {
    const Channel packets(Channel::Kind::packets);
    Peer peer(tv, {}, packets.Writer());
    EXPECT_EQ(peer.Do("log 4 one"), "0");
    EXPECT_EQ(peer.Do("log-long 5000"), "0");
    EXPECT_EQ(peer.Do("log-lines 5"), "0");
    EXPECT_EQ(peer.Do("log-unended 6"), "0");
    EXPECT_EQ(packets.Read(), "I one\n");
    EXPECT_EQ(packets.Read(), "I " + std::string(5000, 'x') + '\n');
    EXPECT_EQ(packets.Read(), "W one\nW two\n");
    EXPECT_EQ(packets.Read(), "E no newline");
}

TEST_F(LogTest, ALineLongerThanThePipeIsContinued) {
    constexpr std::size_t SIZE = 300'000;
    for (const int flags : {0, O_NONBLOCK}) {
        const Channel pipe(Channel::Kind::pipe);
        ASSERT_EQ(fcntl(pipe.Writer(), F_SETFL, flags), 0);
        Peer peer(tv, {}, pipe.Writer());
        peer.Tell("log-long " + std::to_string(SIZE));
        std::string text;
        while (!text.ends_with('\n'))
            text += pipe.Read();
        EXPECT_TRUE(text == "I " + std::string(SIZE, 'x') + '\n');
        EXPECT_EQ(peer.Answer(), "0");
    }
}

TEST_F(LogTest, AReaderThatHasGoneEndsNothing) {
    for (const auto kind : {Channel::Kind::pipe, Channel::Kind::packets}) {
        Channel channel(kind);
        Peer peer(tv, {}, channel.Writer());
        channel.CloseReader();
        EXPECT_EQ(peer.Do("log 6 lost"), "-1032");
        EXPECT_EQ(peer.Do("pipe-pending"), "0");
        EXPECT_EQ(peer.Do("log 6 lost too"), "-1032");
    }
}

TEST_F(LogTest, AFileThatMayNotGrowEndsNothing) {
    const int file = open((tv / "log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(file, 0);
    Peer peer(tv, {}, file);
    close(file);
    EXPECT_EQ(peer.Do("limit-files 6"), "0");
    EXPECT_EQ(peer.Do("log 6 lost"), "-1027");
    EXPECT_EQ(tv.Content("log"), "E lost");
    EXPECT_EQ(peer.Do("log 6 lost too"), "-1027");
}

}  // namespace
