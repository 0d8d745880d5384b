// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Preloaded into kavreld: looks for the emulators' switch files, which are absolute paths, in a folder of the
 * test instead. So a test needs no right to write to /opt and does not meet another one there.
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
