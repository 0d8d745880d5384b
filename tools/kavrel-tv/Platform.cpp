// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Platform.h"

#include <directory.h>
#include <dlog.h>
#include <glib.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Errors.h"
#include "Print.h"

namespace fs = std::filesystem;

namespace {

std::string last_error;  // used on the main thread alone, which makes all calls of the platform here

}  // namespace

/** In the place of the platform's own, which would write to standard error as the daemon's log does. */
int __dlog_print(int priority, const char* /*tag*/, const char* fmt, ...) {
    if (priority < DLOG_ERROR) {
        return 0;
    }
    std::array<char, 1024> line = {};
    va_list arguments;
    va_start(arguments, fmt);
    std::vsnprintf(line.data(), line.size(), fmt, arguments);
    va_end(arguments);
    last_error = line.data();
    last_error = last_error.substr(0, last_error.find_last_not_of('\n') + 1);
    return 0;
}

namespace tv {

namespace {

constexpr const char* TELLS_A_TV = "sound";       // a folder that every TV has
constexpr const char* BEING_FILLED = ".filling";  // by the process that makes it

/** An empty directory counts: the platform makes a TV of it, as it does for the daemon. */
bool IsTv(const fs::path& directory) {
    const auto is_value = [](const fs::directory_entry& entry) {
        return !entry.path().filename().string().starts_with('.');
    };
    return fs::exists(directory / TELLS_A_TV) || fs::exists(directory / BEING_FILLED) ||
           std::none_of(fs::directory_iterator(directory), fs::directory_iterator(), is_value);
}

}  // namespace

void OpenTv(const std::string& directory) {
    const std::string shown = tools::Printable(directory);
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, "there is no TV directory " + shown +
                                                            "; ./run makes one, --dir names another");
    }
    try {
        if (!IsTv(directory)) {
            throw tools::ToolError(tools::EXIT_UNREACHABLE, shown + " is no TV directory");
        }
    } catch (const fs::filesystem_error& failure) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE,
                               "cannot read " + shown + ": " + failure.code().message());
    }
    g_setenv("KAVREL_TV_DIR", directory.c_str(), TRUE);
    if (const host::Error& failure = host::OpenTv()) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, failure.text);
    }
}

void Require(int result, const std::string& what) {
    if (result == 0) {
        return;
    }
    const std::string said = TakePlatformError();
    const std::string reason = std::generic_category().message(-1000 - result);
    throw tools::ToolError(tools::EXIT_REFUSED, !said.empty() ? said : what + ": " + reason);
}

void Require(const host::Error& error, const std::string& what) {
    if (error) {
        const std::string reason = std::generic_category().message(error.number);
        throw tools::ToolError(tools::EXIT_REFUSED, !error.text.empty() ? error.text : what + ": " + reason);
    }
}

std::string TakePlatformError() {
    return std::exchange(last_error, "");
}

}  // namespace tv
