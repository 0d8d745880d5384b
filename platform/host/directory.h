// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The TV directory: one small text file per value, readable with `cat` and writable with `echo`.
 *
 * Nothing here keeps state but the directory's name, takes a lock, or waits for another process: readers see
 * the old or the new value because a writer renames a finished file into place.
 */
#ifndef KAVREL_HOST_DIRECTORY_H
#define KAVREL_HOST_DIRECTORY_H

#include <climits>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

/** The longest value, in bytes, without the newline that follows it. */
inline constexpr std::size_t MAX_VALUE_SIZE = 1024 * 1024;

struct Range {
    int min = INT_MIN;
    int max = INT_MAX;
};

/** A value of the TV: the file that holds it and what it may hold. */
struct Item {
    std::string path;            // below the TV directory
    std::optional<Range> range;  // the integers it may be; none: it is text
    std::string topic = path;    // what a registration names to hear it: itself, or a whole group of values
};

/** The topic of the routes of all zones. */
inline constexpr const char* ZONE_ROUTES = "sound/zones";

/** The seam's code for a failure: -1000 minus the errno, clear of the daemon's own -1, -2 and -4. */
constexpr int Failure(int error) {
    return -1000 - error;
}

/**
 * KAVREL_TV_DIR, else /run/kavrel, absolute. The first use makes it, and fills an empty one with the default
 * TV.
 */
const std::filesystem::path& Root();

/** Whether it names a value that no key of another's, and nothing outside the directory, can be meant by. */
bool IsKey(std::string_view key);
/** The value of `key` below `folder`; none, with an error line, for a key that could leave it. */
std::optional<Item> KeyItem(const char* folder, const char* key);

/** Ascending. An error leaves `zones` empty. */
int GetZones(std::vector<int>& zones);
bool HasZone(int zone);
Item ZoneRoute(int zone);

/** One value for both interfaces that report it. */
Item MasterMute();

/** What a file without a byte stands for: an empty text, or an `echo` at work, which writes in place. */
enum class Empty { text, unfinished };

/** The errno of the failure, or 0. The text comes without its newline, that of an integer without blanks. */
int TryRead(const Item& item, std::string& text, Empty empty = Empty::text);

/**
 * Like TryRead, but gives the seam's code and one error line,
 * except for a missing file, which is no news.
 */
int Read(const Item& item, std::string& text, Empty empty = Empty::text);
int Read(const Item& item, int& value);

/**
 * Gives the seam's code, and one error line if it fails; then the old value stands. Makes missing folders,
 * except for a zone, which is made by whoever splits the screen.
 */
int Write(const Item& item, std::string_view text);

/** Whether its file is there, whatever it holds: 1, 0 or the seam's code for a failure. */
int Exists(const Item& item);

/** Gives 0 also if there is nothing to remove. */
int Remove(const Item& item);

/**
 * The integer in `text`, which may have blanks around it.
 * @return 0, EINVAL if there is none, or ERANGE
 */
int ParseInteger(std::string_view text, Range range, int& value);

}  // namespace host

#endif
