// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_LOSTNOTIFICATIONS_H
#define KAVREL_TESTS_LOSTNOTIFICATIONS_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fake {

/** Renames a hidden file of the folder to and fro until the kernel has lost notifications: nobody reads them meanwhile. */
inline void LoseNotificationsOf(const std::filesystem::path& folder) {
    int most = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
    ASSERT_GT(most, 0);
    const std::filesystem::path first = folder / ".first";
    const std::filesystem::path second = folder / ".second";
    std::ofstream(first).close();
    for (int notifications = 0; notifications <= most; notifications += 4) {  // each rename makes two
        std::filesystem::rename(first, second);
        std::filesystem::rename(second, first);
    }
    std::filesystem::remove(first);
}

}  // namespace fake

#endif
