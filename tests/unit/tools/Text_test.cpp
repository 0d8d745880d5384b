// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The texts that the tools read and print, and the loop in which they wait. */
#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "CommandLine.h"
#include "Deadline.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Print.h"
#include "Terminal.h"

namespace tools {
namespace {

using namespace std::chrono_literals;

// --- What is printed

TEST(TextTest, AForeignTextIsShownWithoutWhatATerminalObeys) {
    EXPECT_EQ(Printable("a b\xC3\xBC\u20AC"), "a b\xC3\xBC\u20AC");
    EXPECT_EQ(Printable("a\x1B[31m\n\x7F\xC2\x85"), "a?[31m???");
    EXPECT_EQ(Printable("\xFF"
                        "a\xC3"),
              "?a?");
    EXPECT_EQ(Quoted("a\nb"), "\"a?b\"");
}

TEST(TextTest, PartsHaveSomethingBetweenThem) {
    EXPECT_EQ(Joined({}), "");
    EXPECT_EQ(Joined({"a", "b", "c"}), "a b c");
    EXPECT_EQ(Joined({"a", "b"}, ", "), "a, b");
}

TEST(TextTest, AnObjectIsOneLineInAsciiWithSortedKeys) {
    Json::Value object;
    object["b"] = "\xC3\xBC";
    object["a"] = 0.1;
    EXPECT_EQ(JsonLine(object), R"({"a":0.1,"b":"\u00fc"})");
}

TEST(TextTest, TimesAreLocalWithMilliseconds) {
    setenv("TZ", "ABC-05:30", 1);
    tzset();
    EXPECT_EQ(TimeOfDay(1'000'000'000'007'999), "07:16:40.007");
    EXPECT_EQ(Timestamp(1'000'086'400'123'456), "2001-09-10T07:16:40.123+0530");
    unsetenv("TZ");
    tzset();
}

TEST(TextTest, ALineIsClippedByCharacters) {
    EXPECT_EQ(Clipped("12345", 5), "12345");
    EXPECT_EQ(Clipped("123456", 5), "12...");
    EXPECT_EQ(Clipped("\u20AC\u20AC\u20AC\u20AC\u20AC", 5), "\u20AC\u20AC\u20AC\u20AC\u20AC");
    EXPECT_EQ(Clipped("\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC", 5), "\u20AC\u20AC...");
    EXPECT_EQ(Clipped("123456", 2), "...");
}

TEST(TextTest, AFileHasNoLastColumn) {
    testing::internal::CaptureStdout();
    const int columns = ColumnsOfOutput();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(columns, INT_MAX);
}

TEST(TextTest, ATimeLimitIsNamedInSeconds) {
    EXPECT_EQ(InSeconds(5000ms), "5 s");
    EXPECT_EQ(InSeconds(250ms), "0.25 s");
}

/** A pipe, which is standard output until EndOutput(). */
class PipedOutput {
public:
    explicit PipedOutput(int flags) {
        EXPECT_EQ(pipe2(m_ends.data(), flags | O_CLOEXEC), 0);
        dup2(m_ends[1], STDOUT_FILENO);
        close(m_ends[1]);
    }
    ~PipedOutput() { close(m_ends[0]); }
    PipedOutput(const PipedOutput&) = delete;
    PipedOutput& operator=(const PipedOutput&) = delete;

    int Reader() const { return m_ends[0]; }
    void EndOutput() const {
        dup2(m_before, STDOUT_FILENO);
        close(m_before);
    }

private:
    const int m_before = dup(STDOUT_FILENO);
    std::array<int, 2> m_ends = {};
};

TEST(TextTest, ALongTextIsWrittenAsItIsReadAndOnce) {
    const PipedOutput pipe(O_NONBLOCK);
    std::string text;
    for (int number = 0; number < 50'000; ++number) {  // more than a pipe holds
        text += std::to_string(number) + " ";
    }
    std::string seen;
    std::thread reader([&] {
        std::array<char, 3000> chunk = {};
        for (;;) {
            const ssize_t size = read(pipe.Reader(), chunk.data(), chunk.size());
            if (size > 0) {
                seen.append(chunk.data(), static_cast<std::size_t>(size));
            } else if (size == 0) {
                return;
            }
        }
    });
    Print(text);
    pipe.EndOutput();
    reader.join();
    EXPECT_EQ(seen.size(), text.size());
    EXPECT_EQ(seen, text);
}

TEST(TextTest, AWriteThatNobodyReadsCanBeGivenUp) {
    const PipedOutput pipe(0);
    WhileStalled([] { throw std::runtime_error("enough"); });
    EXPECT_THROW(Print(std::string(1'000'000, 'x')), std::runtime_error);  // more than a pipe holds
    WhileStalled({});
    pipe.EndOutput();
}

// --- What the daemon says, in words

TEST(TextTest, ASupportWordInWords) {
    EXPECT_EQ(SupportInWords(0), "nothing: volume and mute can be neither read nor set (0x0000)");
    EXPECT_EQ(SupportInWords(6), "set volume, read mute; not: read volume, set mute (0x0006)");
    EXPECT_EQ(SupportInWords(0xFFFF), "read volume, set volume, read mute, set mute (0xffff)");
    EXPECT_EQ(SupportWords(0x18), std::vector<std::string>{"set mute"});
}

TEST(TextTest, AStatusInWords) {
    EXPECT_EQ(StatusInWords(0), "done (0)");
    EXPECT_EQ(StatusInWords(7), "done (7)");
    EXPECT_EQ(StatusInWords(-1), "failed or busy (-1)");
    EXPECT_EQ(StatusInWords(-2), "invalid argument (-2)");
    EXPECT_EQ(StatusInWords(-3), "platform error (-3)");
    EXPECT_EQ(StatusInWords(-4), "not supported by this output (-4)");
    EXPECT_EQ(StatusInWords(-1002), "platform error (-1002)");
}

// --- Arguments

/** @return the argument as the validator makes it; nothing if it refuses it */
std::optional<std::string> Taken(const CLI::Validator& validator, std::string argument) {
    return validator(argument).empty() ? std::optional(argument) : std::nullopt;
}

TEST(TextTest, AWholeNumberIsDecimalAndInItsRange) {
    const CLI::Validator percent = WholeNumber(0, 100);
    EXPECT_EQ(Taken(percent, "0"), "0");
    EXPECT_EQ(Taken(percent, "100"), "100");
    EXPECT_EQ(Taken(percent, "010"), "10");
    for (const char* refused : {"-1", "101", "", " 1", "1 ", "+1", "1.0", "0x1", "1e1", "99999999999"}) {
        EXPECT_EQ(Taken(percent, refused), std::nullopt) << refused;
    }
    EXPECT_EQ(Taken(WholeNumber(), "-2147483648"), "-2147483648");
    EXPECT_EQ(Taken(WholeNumber(), "2147483648"), std::nullopt);
}

TEST(TextTest, ADecimalNumberIsInItsRange) {
    const CLI::Validator some = DecimalNumber(0.5, 2);
    for (const char* taken : {"0.5", "2", "1.25", "1e0"}) {
        EXPECT_EQ(Taken(some, taken), taken);
    }
    for (const char* refused : {"0.4999", "2.0001", "nan", "inf", "", "1x"}) {
        EXPECT_EQ(Taken(some, refused), std::nullopt) << refused;
    }
}

TEST(TextTest, AWordIsOneOfItsChoicesInAnyCase) {
    const CLI::Validator state = OneOf({{"on", 1}, {"off", 0}}, SWITCH_SYNONYMS);
    for (const char* word : {"on", "ON", "1", "true", "Yes"}) {
        EXPECT_EQ(Taken(state, word), "1") << word;
    }
    for (const char* word : {"off", "0", "FALSE", "no"}) {
        EXPECT_EQ(Taken(state, word), "0") << word;
    }
    for (const char* word : {"", "o", "only", "of", "offs", "2", "\xFF"}) {
        EXPECT_EQ(Taken(state, word), std::nullopt) << word;
    }
    std::string wrong = "only";
    EXPECT_EQ(state(wrong), "\"only\" is not one of on, off");
}

TEST(TextTest, TextIsUtf8) {
    EXPECT_EQ(Taken(Utf8Text(), "\xC3\xBC"), "\xC3\xBC");
    EXPECT_EQ(Taken(Utf8Text(), "\xFC"), std::nullopt);
}

TEST(TextTest, AToolWithoutACommandDoesItsDefault) {
    CommandLine line("some-tool", "Do something.", "");
    line.AddCommand("other", "Do something else", "some-tool other", [] { return EXIT_REFUSED; });
    line.SetDefault([] { return EXIT_BUSY; });
    std::string name = "some-tool";
    std::array<char*, 2> arguments = {name.data(), nullptr};
    EXPECT_EQ(line.Run(1, arguments.data()), EXIT_BUSY);
}

// --- The loop

TEST(TextTest, AWaitEndsWithItsConditionOrItsTime) {
    MainLoop loop;
    EXPECT_EQ(loop.RunUntil([] { return true; }, 0ms), MainLoop::Waited::MET);
    EXPECT_EQ(loop.RunUntil([] { return false; }, 0ms), MainLoop::Waited::EXPIRED);
    EXPECT_EQ(loop.RunUntil([] { return false; }, 5ms), MainLoop::Waited::EXPIRED);
    bool isMet = false;
    const auto timer = loop.After(1ms, [&] { isMet = true; });
    EXPECT_EQ(loop.RunUntil([&] { return isMet; }, 60s), MainLoop::Waited::MET);
}

TEST(TextTest, ATimerCallsOnce) {
    MainLoop loop;
    int calls = 0;
    const auto timer = loop.After(0ms, [&] { ++calls; });
    EXPECT_EQ(loop.RunUntil([&] { return calls > 0; }, 60s), MainLoop::Waited::MET);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE && calls < 2) {
    }
    EXPECT_EQ(calls, 1);
}

TEST(TextTest, TheFirstEndOfALoopHolds) {
    MainLoop loop;
    bool hasRun = false;
    loop.Quit(EXIT_REFUSED);
    loop.Quit(EXIT_DONE);
    loop.Guard([&] { hasRun = true; });
    EXPECT_FALSE(hasRun);
    EXPECT_EQ(loop.RunUntil([] { return true; }, 60s), MainLoop::Waited::ENDED);
    EXPECT_EQ(loop.Run(), EXIT_REFUSED);
}

TEST(TextTest, OnlyTheStatusOfCtrlCIsThatOfAUsualEnd) {
    for (const auto& [status, expected] : {std::pair(EXIT_INTERRUPTED, EXIT_DONE),
                                           {EXIT_TERMINATED, EXIT_TERMINATED},
                                           {EXIT_REFUSED, EXIT_REFUSED}}) {
        MainLoop loop;
        loop.Quit(status);
        EXPECT_EQ(loop.RunUntilInterrupted(), expected);
    }
}

TEST(TextTest, AnExceptionEndsALoop) {
    MainLoop loop;
    const auto timer = loop.After(0ms, [] { throw std::runtime_error("first"); });
    const auto later = loop.After(1ms, [] { throw std::logic_error("second"); });
    EXPECT_THROW(loop.RunUntil([] { return false; }, 60s), std::runtime_error);
    EXPECT_THROW(loop.Run(), std::runtime_error);
}

}  // namespace
}  // namespace tools
