// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Gives a fuzz target the files of the folders that are its arguments: an ordinary test of each corpus. */
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "Target.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        std::ranges::copy(fs::directory_iterator(argv[i]), std::back_inserter(files));
    }
    std::ranges::sort(files);
    for (const fs::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(stream), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << files.size() << " files\n" << std::flush;
    // Not exit(): the daemon's threads may still run, and must not meet the end of static objects.
    std::_Exit(files.empty() ? EXIT_FAILURE : EXIT_SUCCESS);
}
