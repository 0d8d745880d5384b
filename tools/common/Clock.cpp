// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Clock.h"

#include <glib.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace tools {

namespace {

std::string Formatted(WallTime time, const char* format, const char* formatAfterMilliseconds) {
    const std::time_t seconds = time / 1'000'000;
    const int milliseconds = static_cast<int>(time / 1'000 % 1'000);
    std::tm local = {};
    localtime_r(&seconds, &local);
    std::array<char, 64> text = {};
    char* at = text.data() + std::strftime(text.data(), text.size(), format, &local);
    at += std::snprintf(at, 8, ".%03d", milliseconds);
    std::strftime(at, 8, formatAfterMilliseconds, &local);
    return text.data();
}

}  // namespace

WallTime Now() {
    return g_get_real_time();
}

std::string TimeOfDay(WallTime time) {
    return Formatted(time, "%H:%M:%S", "");
}

std::string Timestamp(WallTime time) {
    return Formatted(time, "%Y-%m-%dT%H:%M:%S", "%z");
}

}  // namespace tools
