// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The TV directory: one small text file per value, readable with `cat` and writable with `echo`.
 *
 * Nothing here waits for another process: readers see the old or the new value because a writer renames a
 * finished file into place. Nothing here takes the delivery lock or writes to the log: an Error brings the line
 * to log.
 */
#ifndef KAVREL_HOST_DIRECTORY_H
#define KAVREL_HOST_DIRECTORY_H

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "items.h"

namespace host {

/** The longest value, in bytes, without the newline that follows it. */
inline constexpr std::size_t MAX_VALUE_SIZE = std::size_t{1024} * 1024;

/** The seam's code for a failure: -1000 minus the errno, clear of the daemon's own -1, -2 and -4. */
constexpr int FailureCode(int number) {
    return -1000 - number;
}

/** How a call ended. True if it failed. */
struct [[nodiscard]] Error {
    int number = 0;    // errno, or 0: it did not fail
    std::string text;  // a line for a person, without a newline; empty if the failure is an ordinary answer

    explicit operator bool() const { return number != 0; }
    /** The result for the seam: 0 or FailureCode(). */
    int Code() const { return number == 0 ? 0 : FailureCode(number); }
};

/** "Cannot ACTION SUBJECT: REASON" */
Error MakeError(std::string_view action, std::string_view subject, int number);

/** KAVREL_TV_DIR, else /run/kavrel, absolute. The first use opens the TV. */
const std::filesystem::path& Root();

/** Makes the directory if it is missing, and fills an empty one with the default TV; once in a process. */
const Error& OpenTv();

/** A line to log as a warning about the directory that was opened; mostly empty. */
const std::string& TvWarning();

/** Whether `key` names one value below its folder, and nothing outside the TV directory. */
bool IsKey(std::string_view key);
Error RefuseKey(std::string_view folder, std::string_view key);

/** Ascending. An error leaves `zones` empty. */
Error GetZones(std::vector<int>& zones);
bool HasZone(int zone);

/** How to read a file without a byte: as an empty text, or as an `echo` that has yet to write its text. */
enum class Empty { TEXT, UNFINISHED };

/**
 * The text comes without its newline, that of an integer without blanks. A missing file is an error without
 * a line.
 */
Error Read(const Value& value, std::string& text, Empty empty = Empty::TEXT);
/** Accepts any integer for a value without a range. */
Error Read(const Value& value, int& number);

/**
 * An error leaves the old value in place. Makes missing folders, except for a zone, which is made by the
 * program that splits the screen.
 */
Error Write(const Value& value, std::string_view text);

/** @param exists whether the file is there, whatever it holds; set on success only */
Error Exists(const Value& value, bool& exists);

/** Succeeds also if there is nothing to remove. */
Error Remove(const Value& value);

/**
 * The integer in `text`, which may have blanks around it.
 * @return 0, EINVAL without an integer, or ERANGE
 */
int ParseInteger(std::string_view text, Range range, int& number);

}  // namespace host

#endif
