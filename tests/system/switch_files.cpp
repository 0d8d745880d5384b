// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A library that the tests preload into kavreld. It redirects the look-up of the emulators' switch files from
 * /opt/etc to the folder in KAVREL_TEST_SWITCHES. So a test needs no right to write to /opt, and two tests do
 * not disturb each other.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int access(const char* path, int mode) noexcept {
    constexpr std::string_view kSwitches = "/opt/etc/";
    const char* const folder = std::getenv("KAVREL_TEST_SWITCHES");
    if (folder == nullptr || !std::string_view(path).starts_with(kSwitches))
        return faccessat(AT_FDCWD, path, mode, 0);
    const std::string instead = std::string(folder) + '/' + (path + kSwitches.size());
    return faccessat(AT_FDCWD, instead.c_str(), mode, 0);
}
