// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The adapter for the TV in a directory, and the example of one: anybody who changes its files is somebody else. */
#include <dlog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include "adapter.h"

namespace fs = std::filesystem;

namespace {

fs::path tv;

/** The file of an event: every byte of the name but letters, digits, '_' and '-' becomes %XX. */
std::string Escape(std::string_view name) {
    constexpr std::string_view HEX = "0123456789ABCDEF";
    constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    std::string escaped;
    for (const char letter : name) {
        const auto byte = static_cast<unsigned char>(letter);
        if (PLAIN.find(letter) != std::string_view::npos) {
            escaped += letter;
        } else {
            escaped.append({'%', HEX[byte / 16], HEX[byte % 16]});
        }
    }
    return escaped;
}

fs::path FileOf(const kit_value& value) {
    switch (value.kind) {
        case KIT_MASTER_VOLUME:
            return tv / "audio/master_volume";
        case KIT_MASTER_MUTE:
            return tv / "audio/master_mute";
        case KIT_ROUTE:
            return tv / "sound/route";
        case KIT_ZONE_ROUTE:
            return tv / "sound/zones" / std::to_string(value.zone) / "route";
        case KIT_FOCUS:
            return tv / "zones/focus";
        case KIT_MAIN_OUT_GAIN:
            return tv / "audio/main_out_gain2";
        case KIT_SUB_OUT_GAIN:
            return tv / "audio/sub_out_gain2";
        case KIT_SETTING:
            return tv / "settings" / value.key;
        case KIT_FEATURE:
            return tv / "features" / value.key;
        case KIT_EVENT:
            return tv / "events" / Escape(value.key);
    }
    return {};
}

/** A name in the same folder that begins with a dot, and so is no value. */
fs::path Beside(const fs::path& file, const char* prefix) {
    return file.parent_path() / (prefix + file.filename().string());
}

/** The kit shows the number of an error as the adapter's answer; none of them means KIT_CANNOT. */
int Answer(const std::error_code& error) {
    return error ? -error.value() : KIT_DONE;
}

}  // namespace

const char* kit_platform(void) {
    return "the TV in a directory";
}

int kit_start(void) {
    tv = fs::current_path() / "tv";
    setenv("KAVREL_TV_DIR", tv.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): before the first other thread
    unsetenv("KAVREL_LOG");                  // NOLINT(concurrency-mt-unsafe): the same
    // The platform fills only an empty directory: this one has all that the rules of the kit need.
    std::error_code error;
    for (const char* const folder :
         {"settings/memory", "settings/db", "features", "sound/zones", "zones", "audio", "events"}) {
        fs::create_directories(tv / folder, error);
        if (error) {
            return Answer(error);
        }
    }
    for (const char* const file : {"audio/master_volume", "audio/master_mute", "audio/main_out_gain2",
                                   "audio/sub_out_gain2", "sound/route"}) {
        std::ofstream(tv / file) << "0\n";
    }
    return KIT_DONE;
}

void kit_stop(void) {}

/** Makes a file and renames it, so that no reader ever finds half a value. */
int kit_set(const kit_value* value, const char* text) {
    const fs::path file = FileOf(*value);
    std::error_code error;
    if (value->kind == KIT_EVENT && std::string_view(text) == "0") {
        fs::remove(file, error);
        return Answer(error);
    }
    fs::create_directories(file.parent_path(), error);
    const fs::path written = Beside(file, ".kit-");
    std::ofstream(written) << text << '\n';
    fs::rename(written, file, error);
    return Answer(error);
}

int kit_remove(const kit_value* value) {
    std::error_code error;
    fs::remove(FileOf(*value), error);
    return Answer(error);
}

/** A folder in the place of the file. */
int kit_make_unreadable(const kit_value* value) {
    const fs::path file = FileOf(*value);
    std::error_code error;
    fs::rename(file, Beside(file, ".kit-kept-"), error);
    if (!error) {
        fs::create_directory(file, error);
    }
    return Answer(error);
}

int kit_make_readable(const kit_value* value) {
    const fs::path file = FileOf(*value);
    std::error_code error;
    fs::remove(file, error);
    if (!error) {
        fs::rename(Beside(file, ".kit-kept-"), file, error);
    }
    return Answer(error);
}

int kit_set_zones(const int* zones, int count) {
    const fs::path folder = tv / "sound/zones";
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        bool isKept = false;
        for (int i = 0; i < count; ++i) {
            isKept = isKept || entry.path().filename() == std::to_string(zones[i]);
        }
        if (!isKept) {
            fs::remove_all(entry.path(), error);
        }
    }
    for (int i = 0; i < count && !error; ++i) {
        fs::create_directory(folder / std::to_string(zones[i]), error);
    }
    return Answer(error);
}

int kit_lowest_priority(void) {
    return DLOG_INFO;
}

int kit_log(void (*write)(), char* text, size_t size) {
    return kit_log_of_stderr(write, text, size);
}
