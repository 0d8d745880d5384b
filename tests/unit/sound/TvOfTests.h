// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_TVOFTESTS_H
#define KAVREL_TESTS_TVOFTESTS_H

#include <Platform.h>
#include <gtest/gtest.h>

#include <string>

#include "../tools/TemporaryFolder.h"

namespace sound {

/** Opens a new TV, at the first call alone: a process has only one. */
inline void OpenTvOfTests() {
    static const TemporaryFolder FOLDER;
    [[maybe_unused]] static const bool IS_OPEN = (tv::OpenTv(FOLDER.Path()), true);
}

inline void Put(const host::Value& value, const std::string& text) {
    EXPECT_FALSE(host::Write(value, text));
}

/** @return the value's text; "none" if there is no such value */
inline std::string Get(const host::Value& value) {
    std::string text;
    return host::Read(value, text) ? "none" : text;
}

}  // namespace sound

#endif
