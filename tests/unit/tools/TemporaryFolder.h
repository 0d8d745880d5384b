// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_TEMPORARYFOLDER_H
#define KAVREL_TESTS_TEMPORARYFOLDER_H

#include <glib.h>

#include <filesystem>

/** An empty folder, which goes with the object. */
class TemporaryFolder {
public:
    TemporaryFolder() {
        char* const name = g_dir_make_tmp("kavrel-test.XXXXXX", nullptr);
        m_path = name;
        g_free(name);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

#endif
