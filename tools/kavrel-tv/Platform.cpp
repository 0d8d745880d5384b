// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Platform.h"

#include <glib.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "Errors.h"
#include "Print.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

constexpr const char* FOLDER_OF_EVERY_TV = "sound";
constexpr const char* MARK_OF_A_NEW_TV = ".filling";  // while another process fills the directory

/** The platform fills an empty directory with the default TV, as it does for the daemon. */
bool IsTv(const fs::path& directory) {
    const auto isValue = [](const fs::directory_entry& entry) {
        return !entry.path().filename().string().starts_with('.');
    };
    return fs::exists(directory / FOLDER_OF_EVERY_TV) || fs::exists(directory / MARK_OF_A_NEW_TV) ||
           std::none_of(fs::directory_iterator(directory), fs::directory_iterator(), isValue);
}

[[noreturn]] void RefuseTv(const std::string& reason) {
    throw tools::ToolError(tools::EXIT_UNREACHABLE, reason);
}

}  // namespace

void OpenTv(const std::string& directory) {
    const std::string shown = tools::Printable(directory);
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        RefuseTv("there is no TV directory " + shown + "; ./run makes one, --dir names another");
    }
    try {
        if (!IsTv(directory)) {
            RefuseTv(shown + " is not a TV directory");
        }
    } catch (const fs::filesystem_error& failure) {
        RefuseTv("cannot read " + shown + ": " + failure.code().message());
    }
    g_setenv("KAVREL_TV_DIR", directory.c_str(), TRUE);
    if (const host::Error& failure = host::OpenTv()) {
        RefuseTv(failure.text);
    }
}

void ThrowIfFailed(const host::Error& error) {
    if (error) {
        const std::string reason = std::generic_category().message(error.number);
        throw tools::ToolError(tools::EXIT_REFUSED, error.text.empty() ? reason : error.text);
    }
}

}  // namespace tv
