// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Standard output, where a reader that goes away ends the tool
 * quietly and a full disk does not pass unseen.
 */
#ifndef KAVREL_TOOLS_PRINT_H
#define KAVREL_TOOLS_PRINT_H

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

/** Calls this several times a second while a reader does not take what is written, so that what it throws
 *  ends the waiting; empty: nothing. */
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

std::string Joined(const std::vector<std::string>& parts, std::string_view between = " ");

/** Text of others, fit for a terminal: every control character, and what is not UTF-8, as "?". */
std::string Printable(std::string_view text);
/** The same between double quotes. */
std::string Quoted(std::string_view text);

}  // namespace tools

#endif
