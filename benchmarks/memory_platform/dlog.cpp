// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The log at its cheapest: lines of priority info and above go to standard error with one write(2) each, as
 * in the TV in a directory, so that both daemons leave the same log behind.
 */
#include <dlog.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    if (priority < DLOG_INFO) {
        return 0;
    }
    constexpr const char* LETTERS = "DIWE";
    const int savedErrno = errno;
    std::array<char, 4096> line{LETTERS[std::min(priority, int{DLOG_ERROR}) - DLOG_DEBUG], ' '};
    va_list arguments;
    va_start(arguments, fmt);
    const int length = std::vsnprintf(line.data() + 2, line.size() - 2, fmt, arguments);
    va_end(arguments);
    const auto size = std::min(line.size() - 1, static_cast<std::size_t>(length) + 2);
    const ssize_t written = write(STDERR_FILENO, line.data(), size);
    errno = savedErrno;
    return written == static_cast<ssize_t>(size) ? 0 : -1;
}
