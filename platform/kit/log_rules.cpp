// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The system log. */
#include <dlog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <optional>

#include "kit.h"

using namespace kit;

namespace {

constexpr std::array PRIORITIES = {DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR};

/** @return the text that the log got while `write` ran; none, and not judged, if the adapter does not know it */
std::optional<std::string> LogOf(void (*write)()) {
    std::array<char, 16384> text{};
    const int answer = kit_log(write, text.data(), text.size());
    if (answer == KIT_CANNOT) {
        Cannot("the adapter cannot read the log");
        return std::nullopt;
    }
    if (answer != KIT_DONE) {
        Broken("the adapter failed, which says nothing of the platform: kit_log() gave " +
               std::to_string(answer));
        return std::nullopt;
    }
    Step("the log got " + std::string(text.data()));
    return text.data();
}

TEST(Log, ReturnsZero) {
    Rule("__dlog_print() returns 0, also for a message that the log filters out and without a tag.");
    for (const int priority : PRIORITIES) {
        for (const char* const tag : {"Kit", static_cast<const char*>(nullptr)}) {
            const int result = __dlog_print(priority, tag, "a line of priority %d\n", priority);
            Step("__dlog_print(" + std::to_string(priority) + ", ...) returns " + std::to_string(result));
            Check(result == 0, "it should return 0");
        }
    }
}

TEST(Log, LeavesErrnoAsItWas) {
    Rule("__dlog_print() leaves errno as it was.");
    for (const int priority : PRIORITIES) {
        for (const int before : {0, EINTR, EDOM}) {
            errno = before;
            __dlog_print(priority, "Kit", "a line with errno %d\n", before);
            const int after = errno;
            Check(after == before, "errno was " + std::to_string(before) + " before and " +
                                       std::to_string(after) + " after __dlog_print()");
        }
    }
}

TEST(Log, WritesTheTextAsPrintfDoesAndAddsNoNewline) {
    Rule("A message is formatted as printf does, and written once. The log adds no newline.");
    const auto log = LogOf([] { __dlog_print(DLOG_ERROR, "Kit", "one %d two %s %c%%\n", 12, "three", 'x'); });
    if (!log) {
        return;
    }
    const std::string text = "one 12 two three x%";
    const std::size_t found = log->find(text);
    Check(found != std::string::npos, "the log should have the line: " + text);
    Check(found == std::string::npos || log->find(text, found + 1) == std::string::npos,
          "the log has the line twice");
    Check(std::count(log->begin(), log->end(), '\n') <= 1,
          "the log should add no newline to that of the text");
}

TEST(Log, FiltersByPriority) {
    Rule(
        "The log writes a message of the lowest priority that it writes, and of each higher one, and none "
        "below.");
    const int lowest = kit_lowest_priority();
    if (lowest == KIT_CANNOT) {
        Cannot("the adapter does not know which priorities the log writes");
        return;
    }
    const auto log = LogOf([] {
        __dlog_print(DLOG_DEBUG, "Kit", "the priority 3\n");
        __dlog_print(DLOG_INFO, "Kit", "the priority 4\n");
        __dlog_print(DLOG_WARN, "Kit", "the priority 5\n");
        __dlog_print(DLOG_ERROR, "Kit", "the priority 6\n");
    });
    if (!log) {
        return;
    }
    for (const int priority : PRIORITIES) {
        const bool isWritten = log->find("the priority " + std::to_string(priority)) != std::string::npos;
        Check(isWritten == (priority >= lowest), "a message of priority " + std::to_string(priority) +
                                                     " was " + (isWritten ? "" : "not ") + "written, with " +
                                                     std::to_string(lowest) + " as the lowest");
    }
}

/** "%n" stores how much has been formatted so far: nothing is stored if nothing is formatted. */
TEST(Log, FiltersBeforeItFormats) {
    Rule("The log filters by priority before it formats.");
    const int lowest = kit_lowest_priority();
    if (lowest <= DLOG_DEBUG) {
        Cannot("the log of this process filters nothing out, or the adapter does not know");
        return;
    }
    int formatted = INT_MIN;
    __dlog_print(DLOG_DEBUG, "Kit", "%n\n", &formatted);
    Check(formatted == INT_MIN,
          "a message of priority 3 was formatted, although the lowest priority is " + std::to_string(lowest));
}

TEST(Log, TakesAnyTextWhole) {
    Rule("A message of a usual length is written whole, and a very long one does no harm.");
    static const std::string usual = "begin " + std::string(900, 'x') + " end";
    if (const auto log = LogOf([] { __dlog_print(DLOG_ERROR, "Kit", "%s\n", usual.c_str()); })) {
        Check(log->find(usual) != std::string::npos,
              "a message of " + std::to_string(usual.size()) + " bytes should be written whole");
    }
    static const std::string huge(1 << 20, 'y');
    LogOf([] { __dlog_print(DLOG_ERROR, "Kit", "%s\n", huge.c_str()); });
}

/** A log that does not write to standard error keeps this rule. */
TEST(Log, AReaderThatHasGoneDoesNotEndTheProcess) {
    Rule("A reader of the log that has gone never ends the process.");
    std::array<int, 2> ends{};
    const int kept = dup(STDERR_FILENO);
    if (kept < 0 || pipe(ends.data()) != 0) {
        Cannot("there are no file descriptors left");
        return;
    }
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    Step("standard error is a pipe that nobody reads; __dlog_print() of an error");
    __dlog_print(DLOG_ERROR, "Kit", "a line that nobody reads\n");
    dup2(kept, STDERR_FILENO);
    close(kept);
}

}  // namespace
