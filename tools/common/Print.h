// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Standard output, where a reader that goes away ends the tool quietly and a full disk does not pass unseen, and
 *  the texts that the tools print there. */
#ifndef KAVREL_TOOLS_PRINT_H
#define KAVREL_TOOLS_PRINT_H

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "GLibPtr.h"

namespace tools {

/** Sets the function that a write calls several times a second while it waits for a slow reader; an exception of
 *  the function ends the wait. An empty function removes it. */
void WhileStalled(std::function<void()> look);

/** Writes to standard output, unbuffered.
 *  @throws ReaderGone if nobody reads any more, ToolError if it cannot be written for another reason */
void Print(std::string_view text);
void PrintLine(std::string_view line);
/** One line, as JsonLine() shows it. */
void PrintJson(const Json::Value& value);

/** Writes "PROGRAM: line" to standard error. */
void Complain(std::string_view line);

/** Compact JSON without a newline in it: keys sorted, all in ASCII, so that it may be compared as text. */
std::string JsonLine(const Json::Value& value);

/** A time of the wall clock, in microseconds since 1970; g_get_real_time() is the present one. */
using WallTime = std::int64_t;
/** Local time of day, "21:04:11.123". */
std::string TimeOfDay(WallTime time);
/** "2026-02-01T21:04:11.123+0100", local time with its distance from UTC. */
std::string Timestamp(WallTime time);
/** Prints the line behind the present time of day. */
void PrintWithTime(std::string_view line);

/** The number in a format of printf() for its type: "%.1f ms". */
template <typename Number>
std::string Formatted(const char* format, Number number) {
    return GLibPtr<char>(g_strdup_printf(format, number)).get();
}

std::string Joined(const std::vector<std::string>& parts, std::string_view between = " ");

/** Makes a foreign text safe for a terminal: each control character and each byte outside of UTF-8 becomes "?". */
std::string Printable(std::string_view text);
/** Returns Printable() text between double quotes. */
std::string Quoted(std::string_view text);

}  // namespace tools

#endif
