// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TESTS_PRINTED_H
#define KAVREL_TESTS_PRINTED_H

#include <glib.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace sound {

/** @return what the function writes to standard error, as the program kavrel-sound */
inline std::string ComplaintsOf(const std::function<void()>& function) {
    g_set_prgname("kavrel-sound");
    testing::internal::CaptureStderr();
    function();
    return testing::internal::GetCapturedStderr();
}

/** @return what the function writes to standard output */
inline std::string LinesOf(const std::function<void()>& function) {
    testing::internal::CaptureStdout();
    function();
    return testing::internal::GetCapturedStdout();
}

}  // namespace sound

#endif
