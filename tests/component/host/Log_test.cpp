// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The lines that `__dlog_print` writes to standard error. */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "HostTest.h"

using host_test::Folder;
using host_test::OtherProcess;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int WARN = 5;
constexpr int ERROR = 6;

/** A pipe, or a pair of sockets that keeps each write apart as a packet. */
class Channel {
public:
    enum class Kind { PIPE, PACKETS };

    explicit Channel(Kind kind) {
        if (kind == Kind::PIPE ? pipe2(m_ends.data(), O_CLOEXEC) != 0
                               : socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, m_ends.data()) != 0) {
            std::abort();
        }
    }
    ~Channel() {
        CloseReader();
        close(m_ends[1]);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    int Writer() const { return m_ends[1]; }
    void CloseReader() {
        if (m_ends[0] >= 0) {
            close(m_ends[0]);
        }
        m_ends[0] = -1;
    }
    /** The bytes of one read; from a packet socket exactly those of one write. */
    std::string Read() const {
        std::string text(64 * 1024, '\0');
        const ssize_t count = read(m_ends[0], text.data(), text.size());
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return text;
    }
    /** The number of bytes that nobody has read yet. */
    int Waiting() const {
        int count = 0;
        return ioctl(m_ends[0], FIONREAD, &count) == 0 ? count : -1;
    }
    /** The name that JOURNAL_STREAM would give this stream. */
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
    static void LogAll(OtherProcess& other) {
        for (const int priority : {DEBUG, INFO, WARN, ERROR}) {
            EXPECT_EQ(other.Do("log " + std::to_string(priority) + " text"), "0");
        }
    }

    Folder tv;
};

TEST_F(LogTest, InfoIsTheLowestPriorityByDefault) {
    OtherProcess other(tv);
    LogAll(other);
    EXPECT_THAT(other.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, TheLowestPriorityIsSetByName) {
    OtherProcess debug(tv, {{"KAVREL_LOG", "debug"}});
    LogAll(debug);
    EXPECT_THAT(debug.Log(), ElementsAre("D text", "I text", "W text", "E text"));
    OtherProcess warn(tv, {{"KAVREL_LOG", "warn"}});
    LogAll(warn);
    EXPECT_THAT(warn.Log(), ElementsAre("W text", "E text"));
    OtherProcess error(tv, {{"KAVREL_LOG", "error"}});
    LogAll(error);
    EXPECT_THAT(error.Log(), ElementsAre("E text"));
    OtherProcess unknown(tv, {{"KAVREL_LOG", "everything"}});
    LogAll(unknown);
    EXPECT_THAT(unknown.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, APriorityAboveErrorIsAnError) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("log 7 text"), "0");
    EXPECT_EQ(other.Do("log 1000 text"), "0");
    EXPECT_THAT(other.Log(), ElementsAre("E text", "E text"));
}

TEST_F(LogTest, ALogCallLeavesErrnoAsItWas) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("errno-after-log 6"), "77");
    EXPECT_EQ(other.Do("errno-after-log 3"), "77") << "filtered out";
    Channel gone(Channel::Kind::PIPE);
    OtherProcess failing(tv, {}, gone.Writer());
    gone.CloseReader();
    EXPECT_EQ(failing.Do("errno-after-log 6"), "77") << "could not be written";
}

TEST_F(LogTest, WhatIsFilteredOutIsNotFormatted) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("log-unreadable " + std::to_string(DEBUG)), "0");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(LogTest, TheJournalGetsPriorities) {
    const Channel journal(Channel::Kind::PACKETS);
    OtherProcess other(tv, {{"KAVREL_LOG", "debug"}, {"JOURNAL_STREAM", journal.Name()}}, journal.Writer());
    LogAll(other);
    for (const char* const line : {"<7>text\n", "<6>text\n", "<4>text\n", "<3>text\n"}) {
        EXPECT_EQ(journal.Read(), line);
    }
}

TEST_F(LogTest, AJournalThatIsNotBehindThisStreamDoesNotCount) {
    const Channel journal(Channel::Kind::PIPE);
    OtherProcess other(tv, {{"JOURNAL_STREAM", journal.Name()}});
    LogAll(other);
    EXPECT_THAT(other.Log(), ElementsAre("I text", "W text", "E text"));
}

TEST_F(LogTest, AJournalOfThisDeviceOrOfThisFileNumberAloneDoesNotCount) {
    const Channel stream(Channel::Kind::PACKETS);
    const std::string name = stream.Name();
    const std::string device = name.substr(0, name.find(':'));
    const std::string number = name.substr(name.find(':') + 1);
    for (const std::string& other : {device + ":1" + number, "1" + device + ':' + number, name + '0'}) {
        OtherProcess process(tv, {{"JOURNAL_STREAM", other}}, stream.Writer());
        EXPECT_EQ(process.Do("log 6 text"), "0");
        EXPECT_EQ(stream.Read(), "E text\n") << other;
    }
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
    OtherProcess other(tv, {{"KAVREL_LOG", "debug"}}, side);
    const std::string lines[] = {"\033[2mD text\033[0m\r\n", "\033[36mI text\033[0m\r\n",
                                 "\033[33mW text\033[0m\r\n", "\033[31mE text\033[0m\r\n"};
    for (int priority = DEBUG; priority <= ERROR; ++priority) {
        EXPECT_EQ(other.Do("log " + std::to_string(priority) + " text"), "0");
        std::string line;  // the kernel may hand it over in pieces
        while (!line.ends_with('\n')) {
            std::array<char, 128> text{};
            const ssize_t count = read(terminal, text.data(), text.size());
            ASSERT_GT(count, 0);
            line.append(text.data(), static_cast<std::size_t>(count));
        }
        EXPECT_EQ(line, lines[priority - DEBUG]);
    }
    close(side);
    close(terminal);
}

TEST_F(LogTest, EachLineIsOneWriteAndNoNewlineIsAdded) {
    const Channel packets(Channel::Kind::PACKETS);
    OtherProcess other(tv, {}, packets.Writer());
    EXPECT_EQ(other.Do("log 4 one"), "0");
    EXPECT_EQ(other.Do("log-long 4000"), "0");
    EXPECT_EQ(other.Do("log-lines 5"), "0");
    EXPECT_EQ(other.Do("log-empty 6"), "0");
    EXPECT_EQ(other.Do("log-unended 6"), "0");
    EXPECT_EQ(packets.Read(), "I one\n");
    EXPECT_EQ(packets.Read(), "I " + std::string(4000, 'x') + '\n');
    EXPECT_EQ(packets.Read(), "W one\\x0Atwo\n");
    ASSERT_EQ(packets.Read(), "E ");
    EXPECT_EQ(packets.Read(), "E no newline");
}

TEST_F(LogTest, ALineEndsInDotsAfterFourKibibytes) {
    const Channel packets(Channel::Kind::PACKETS);
    OtherProcess other(tv, {}, packets.Writer());
    for (const char* const size : {"4096", "5000", "1000000"}) {
        EXPECT_EQ(other.Do(std::string("log-long ") + size), "0");
        const std::string line = packets.Read();
        EXPECT_LE(line.size(), 4096U);
        EXPECT_GE(line.size(), 4080U);
        EXPECT_EQ(line, "I " + std::string(line.size() - 6, 'x') + "...\n");
    }
}

TEST_F(LogTest, ALineThatJustFitsIsWhole) {
    constexpr int MOST = 4086;  // with the mark, and room for dots, the end of a colour and a newline
    const Channel packets(Channel::Kind::PACKETS);
    OtherProcess other(tv, {}, packets.Writer());
    EXPECT_EQ(other.Do("log-long " + std::to_string(MOST)), "0");
    EXPECT_EQ(packets.Read(), "I " + std::string(MOST, 'x') + '\n');
    for (const int size : {MOST + 1, MOST + 2, MOST + 8, MOST + 9, MOST + 10}) {
        EXPECT_EQ(other.Do("log-long " + std::to_string(size)), "0");
        EXPECT_EQ(packets.Read(), "I " + std::string(MOST, 'x') + "...\n") << size;
    }
}

TEST_F(LogTest, NoLineOfAnOtherSizeIsCut) {
    const Channel packets(Channel::Kind::PACKETS);
    OtherProcess other(tv, {}, packets.Writer());
    for (const int around : {512, 1024, 2048}) {
        for (int size = around - 12; size <= around + 2; ++size) {
            EXPECT_EQ(other.Do("log-long " + std::to_string(size)), "0");
            EXPECT_EQ(packets.Read(), "I " + std::string(static_cast<std::size_t>(size), 'x') + '\n') << size;
        }
    }
}

TEST_F(LogTest, ControlBytesAreWrittenInHexadecimalButForTheTab) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("log-controls 4"), "0");
    EXPECT_THAT(
        other.Log(),
        ElementsAre(
            "I a\tb\xC3\xA4\\x7F\\x01\\x02\\x03\\x04\\x05\\x06\\x07\\x08\t\\x0A\\x0B\\x0C\\x0D\\x0E\\x0F"
            "\\x10\\x11\\x12\\x13\\x14\\x15\\x16\\x17\\x18\\x19\\x1A\\x1B\\x1C\\x1D\\x1E\\x1F"));
}

TEST_F(LogTest, WhatCannotBeFormattedIsAFailureAndNoLine) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("log-unformattable 6"), "-1084");
    EXPECT_THAT(other.Log(), IsEmpty());
}

TEST_F(LogTest, LinesWaitForASlowReaderAndAreWhole) {
    constexpr int LINES = 300;           // more than a pipe holds
    constexpr int NEARLY_FULL = 60'000;  // in bytes
    for (const int flags : {0, O_NONBLOCK}) {
        const Channel pipe(Channel::Kind::PIPE);
        ASSERT_EQ(fcntl(pipe.Writer(), F_SETFL, flags), 0);
        OtherProcess other(tv, {}, pipe.Writer());
        other.Tell("log-many " + std::to_string(LINES));
        while (pipe.Waiting() < NEARLY_FULL || !host_test::IsAsleep(other.Process())) {
            std::this_thread::yield();
        }
        std::string text;
        while (text.size() < LINES * 1002) {
            text += pipe.Read();
        }
        for (int i = 0; i < LINES; ++i) {
            const std::string number = std::to_string(i);
            const std::string zeros(999 - number.size(), '0');
            EXPECT_EQ(text.substr(static_cast<std::size_t>(i) * 1002, 1002), "I " + zeros + number + '\n');
        }
        EXPECT_EQ(other.Answer(), "0");
    }
}

TEST_F(LogTest, ASignalThatInterruptsAWriteLosesNothing) {
    constexpr int LINES = 80;            // more than a pipe holds
    constexpr int NEARLY_FULL = 60'000;  // in bytes
    const Channel pipe(Channel::Kind::PIPE);
    OtherProcess other(tv, {}, pipe.Writer());
    ASSERT_EQ(other.Do("let-signals-interrupt"), "0");
    other.Tell("log-many " + std::to_string(LINES));
    while (pipe.Waiting() < NEARLY_FULL || !host_test::IsAsleep(other.Process())) {
        std::this_thread::yield();
    }
    for (int i = 0; i < 100;
         ++i) {  // nobody reads, so that the process comes back to the same write each time
        ASSERT_EQ(kill(other.Process(), SIGUSR1), 0);
        std::this_thread::yield();
        while (!host_test::IsAsleep(other.Process())) {
            std::this_thread::yield();
        }
    }
    std::string text;
    while (text.size() < LINES * 1002) {
        text += pipe.Read();
    }
    EXPECT_EQ(other.Answer(), "0");
}

TEST_F(LogTest, SignalsOfFailedWritesAreHandledUnlessTheProcessHandlesThem) {
    OtherProcess other(tv);
    EXPECT_EQ(other.Do("signals"), "default, default");
    EXPECT_EQ(other.Do("log 6 text"), "0");
    EXPECT_EQ(other.Do("signals"), "platform's and restarts, platform's and restarts");
    OtherProcess handling(tv);
    ASSERT_EQ(handling.Do("handle-signals"), "0");
    EXPECT_EQ(handling.Do("log 6 text"), "0");
    EXPECT_EQ(handling.Do("signals"), "own, own");
}

TEST_F(LogTest, WithoutAStandardErrorNoOtherFileBecomesTheLog) {
    OtherProcess other(tv, {}, OtherProcess::CLOSED);
    EXPECT_EQ(other.Do("hear volume"), "0");
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(other.Process()) + "/fd/2"),
              "/dev/null");
    EXPECT_EQ(other.Do("log 6 lost"), "0");
    EXPECT_EQ(other.Do("set-volume 30"), "0");
    EXPECT_EQ(other.Report(), "volume 30 own");
}

TEST_F(LogTest, AReaderThatHasGoneEndsNothing) {
    for (const auto kind : {Channel::Kind::PIPE, Channel::Kind::PACKETS}) {
        Channel channel(kind);
        OtherProcess other(tv, {}, channel.Writer());
        channel.CloseReader();
        EXPECT_EQ(other.Do("log 6 lost"), "-1032");
        EXPECT_EQ(other.Do("pipe-pending"), "0");
        EXPECT_EQ(other.Do("log 6 lost too"), "-1032");
    }
}

TEST_F(LogTest, AFileThatMayNotGrowEndsNothing) {
    const int file = open((tv / "log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(file, 0);
    OtherProcess other(tv, {}, file);
    close(file);
    EXPECT_EQ(other.Do("limit-files 6"), "0");
    EXPECT_EQ(other.Do("log 6 lost"), "-1027");
    EXPECT_EQ(tv.Content("log"), "E lost");
    EXPECT_EQ(other.Do("log 6 lost too"), "-1027");
}

}  // namespace
