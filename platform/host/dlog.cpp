// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <dlog.h>

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "write_all.h"

namespace {

enum class Style { plain, terminal, journal };

struct Marks {
    const char* plain;
    const char* journal;
    const char* colour;
};

constexpr std::array<Marks, 4> MARKS = {{
    {"D ", "<7>", "\033[2m"},
    {"I ", "<6>", "\033[36m"},
    {"W ", "<4>", "\033[33m"},
    {"E ", "<3>", "\033[31m"},
}};

const Marks& MarksOf(int priority) {
    if (priority <= DLOG_DEBUG) {
        return MARKS.front();
    }
    return priority >= DLOG_ERROR ? MARKS.back() : MARKS.at(static_cast<std::size_t>(priority - DLOG_DEBUG));
}

int LowestPriority() {
    const char* const name = std::getenv("KAVREL_LOG");
    const std::string_view lowest = name != nullptr ? name : "";
    if (lowest == "debug") {
        return DLOG_DEBUG;
    }
    if (lowest == "warn") {
        return DLOG_WARN;
    }
    return lowest == "error" ? DLOG_ERROR : DLOG_INFO;
}

/**
 * JOURNAL_STREAM is inherited by every descendant of a service: it counts only where it names this very
 * stream.
 */
bool IsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
}

Style FindStyle() {
    if (IsJournal()) {
        return Style::journal;
    }
    return isatty(STDERR_FILENO) == 1 ? Style::terminal : Style::plain;
}

void AppendLine(std::string& out, Style style, const Marks& marks, std::string_view line) {
    if (style == Style::journal) {
        out.append(marks.journal).append(line);
    } else if (style == Style::plain) {
        out.append(marks.plain).append(line);
    } else {
        out.append(marks.colour).append(marks.plain).append(line).append("\033[0m");
    }
}

/** Marks each line of the text, so that none can pass for one of another priority. */
std::string Mark(std::string_view text, Style style, const Marks& marks) {
    std::string out;
    out.reserve(text.size() + 16);
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        AppendLine(out, style, marks, text.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        out += '\n';
        text.remove_prefix(end + 1);
    }
    return out;
}

std::string Format(const char* fmt, va_list arguments) {
    std::array<char, 1024> shortText;
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(shortText.data(), shortText.size(), fmt, arguments);
    std::string text;
    if (size >= 0 && static_cast<std::size_t>(size) < shortText.size()) {
        text.assign(shortText.data(), static_cast<std::size_t>(size));
    } else if (size >= 0) {
        text.resize(static_cast<std::size_t>(size));
        std::vsnprintf(text.data(), text.size() + 1, fmt, again);
    }
    va_end(again);
    return text;
}

}  // namespace

int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    static const int lowest = LowestPriority();
    if (priority < lowest) {
        return 0;
    }
    const int savedErrno = errno;
    static const Style style = FindStyle();
    va_list arguments;
    va_start(arguments, fmt);
    const int error = host::WriteAll(STDERR_FILENO, Mark(Format(fmt, arguments), style, MarksOf(priority)));
    va_end(arguments);
    errno = savedErrno;
    return error == 0 ? 0 : -1000 - error;
}
