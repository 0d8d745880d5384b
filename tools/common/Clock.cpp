// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Clock.h"

#include <glib.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace tools {

namespace {

constexpr WallTime SECOND = 1'000'000;
constexpr WallTime MILLISECOND = 1'000;

std::tm LocalTime(WallTime time) {
    const auto seconds = static_cast<std::time_t>(time / SECOND);
    std::tm local = {};
    localtime_r(&seconds, &local);
    return local;
}

std::string Formatted(const char* format, const std::tm& local) {
    std::array<char, 64> text = {};
    return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

std::string Milliseconds(WallTime time) {
    std::array<char, 8> text = {};
    std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(time % SECOND / MILLISECOND));
    return text.data();
}

}  // namespace

WallTime Now() {
    return g_get_real_time();
}

std::string TimeOfDay(WallTime time) {
    return Formatted("%H:%M:%S", LocalTime(time)) + Milliseconds(time);
}

std::string Timestamp(WallTime time) {
    const std::tm local = LocalTime(time);
    return Formatted("%Y-%m-%dT%H:%M:%S", local) + Milliseconds(time) + Formatted("%z", local);
}

}  // namespace tools
