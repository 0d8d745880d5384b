// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <dlog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "directory.h"
#include "write_all.h"

namespace {

/** In bytes, with mark and newline. A pipe takes as much in one piece from each of several writers. */
constexpr std::size_t LONGEST_LINE = 4096;
/** Nearly every line fits into this many bytes, so that most threads never touch more pages of their stacks. */
constexpr std::size_t USUAL_LINE = 512;

enum class Style { PLAIN, TERMINAL, JOURNAL };

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

/** Every descendant of a service inherits JOURNAL_STREAM, so the variable has to name this very stream. */
bool IsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) == stream;
}

Style FindStyle() {
    if (IsJournal()) {
        return Style::JOURNAL;
    }
    return isatty(STDERR_FILENO) == 1 ? Style::TERMINAL : Style::PLAIN;
}

/** Builds a line of at most SIZE bytes. It cuts a text that does not fit, and ends it in three dots. */
template <std::size_t SIZE>
class Line {
public:
    Line(Style style, const Marks& marks) {
        if (style == Style::JOURNAL) {
            Append(marks.journal);
        } else {
            Append(style == Style::TERMINAL ? marks.colour : "");
            Append(marks.plain);
        }
        if (style == Style::TERMINAL) {
            m_end = "\033[0m";
        }
    }

    /** Writes control bytes other than the tab as \xNN: a text can neither begin a new line nor steer a terminal. */
    void AppendText(std::string_view text) {
        for (const char letter : text) {
            const auto byte = static_cast<unsigned char>(letter);
            const bool isControl = (byte < 0x20 && letter != '\t') || byte == 0x7F;
            const std::array<char, 4> escaped = {'\\', 'x', HEX[byte / 16], HEX[byte % 16]};
            if (!Append(isControl ? std::string_view(escaped.data(), escaped.size())
                                  : std::string_view(&letter, 1))) {
                return;
            }
        }
    }

    bool IsFull() const { return m_isFull; }

    std::string_view Finish(bool isCut, bool hasNewline) {
        if (isCut || m_isFull) {
            AppendEnd("...");
        }
        AppendEnd(m_end);
        AppendEnd(hasNewline ? "\n" : "");
        return {m_bytes.data(), m_size};
    }

private:
    static constexpr std::string_view HEX = "0123456789ABCDEF";
    static constexpr std::size_t END_SIZE = sizeof("...\033[0m\n") - 1;

    bool Append(std::string_view piece) {
        m_isFull = m_isFull || m_size + piece.size() > m_bytes.size() - END_SIZE;
        if (!m_isFull) {
            AppendEnd(piece);
        }
        return !m_isFull;
    }
    void AppendEnd(std::string_view piece) {
        piece.copy(m_bytes.data() + m_size, piece.size());
        m_size += piece.size();
    }

    std::array<char, SIZE> m_bytes;  // [0, m_size) is set
    std::size_t m_size = 0;
    bool m_isFull = false;
    std::string_view m_end;
};

/**
 * Writes a line of at most SIZE bytes.
 * @return an errno, 0 on success, or nothing if a longer line is allowed and needed
 */
template <std::size_t SIZE>
[[gnu::noinline]] std::optional<int> PrintWithin(int priority, const char* fmt, va_list arguments) {
    static const Style style = FindStyle();
    std::array<char, SIZE> buffer;
    const int length = std::vsnprintf(buffer.data(), buffer.size(), fmt, arguments);
    if (length < 0) {
        return errno;
    }
    const bool isCut = static_cast<std::size_t>(length) >= buffer.size();
    std::string_view text(buffer.data(), isCut ? buffer.size() - 1 : static_cast<std::size_t>(length));
    const bool hasNewline =
        isCut || text.ends_with('\n');  // the newline of a text that is cut was the last byte
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    Line<SIZE> line(style, MarksOf(priority));
    line.AppendText(text);
    if (SIZE < LONGEST_LINE && (isCut || line.IsFull())) {
        return std::nullopt;
    }
    host::IgnorePipeSignal();
    return host::WriteAll(STDERR_FILENO, line.Finish(isCut, hasNewline));
}

int Print(int priority, const char* fmt, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const std::optional<int> error = PrintWithin<USUAL_LINE>(priority, fmt, again);
    va_end(again);
    return error ? *error : PrintWithin<LONGEST_LINE>(priority, fmt, arguments).value();
}

/**
 * Opens standard input, output and error if the process was started without them. Otherwise the next file that
 * it opens, say the connection to the bus, would get one of their numbers and with it the log.
 */
bool OpenStandardStreams() {
    int opened = -1;
    do {
        opened = open("/dev/null", O_RDWR);
    } while (opened >= 0 && opened <= STDERR_FILENO);
    return opened < 0 || close(opened) == 0;
}

/** Before main(), and so before anything else is opened. */
[[maybe_unused]] const bool areStandardStreamsOpen = OpenStandardStreams();

}  // namespace

int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    static const int lowest = LowestPriority();
    if (priority < lowest) {
        return 0;
    }
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, fmt);
    const int error = Print(priority, fmt, arguments);
    va_end(arguments);
    errno = savedErrno;
    return error == 0 ? 0 : host::FailureCode(error);
}
