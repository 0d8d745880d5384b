// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** A TV in a directory for a fuzz target of the host platform, in memory and without a log. */
#ifndef KAVREL_TESTS_FUZZ_TVFOLDER_H
#define KAVREL_TESTS_FUZZ_TVFOLDER_H

#include <dlog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace fuzz {

/** Makes a folder, which becomes the TV directory, and removes it when the process ends. */
inline const std::filesystem::path& TvFolder() {
    static const std::filesystem::path folder = [] {
        const bool hasMemory = access("/dev/shm", W_OK) == 0;
        std::string name =
            (hasMemory ? "/dev/shm" : std::filesystem::temp_directory_path()) / "kavrel-fuzz-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            std::perror("fuzz: mkdtemp");
            std::abort();
        }
        setenv("KAVREL_TV_DIR", name.c_str(), 1);
        return std::filesystem::path(name);
    }();
    [[maybe_unused]] static const int registered = std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(TvFolder(), ignored);
    });
    return folder;
}

inline void Put(const std::filesystem::path& file, std::string_view bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
}

}  // namespace fuzz

/** Replaces the host platform's log. Only one source of a program may include this header. */
extern "C" int __dlog_print(int /*priority*/, const char* /*tag*/, const char* /*fmt*/, ...) {
    return 0;
}

#endif
