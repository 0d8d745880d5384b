// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Clock.h"

#include <glib.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace tools {

namespace {

constexpr Moment SECOND = 1'000'000;
constexpr Moment MILLISECOND = 1'000;

std::tm LocalTime(Moment moment) {
    const auto seconds = static_cast<std::time_t>(moment / SECOND);
    std::tm local = {};
    localtime_r(&seconds, &local);
    return local;
}

std::string Formatted(const char* format, const std::tm& local) {
    std::array<char, 64> text = {};
    return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

std::string Milliseconds(Moment moment) {
    std::array<char, 8> text = {};
    std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(moment % SECOND / MILLISECOND));
    return text.data();
}

}  // namespace

Moment Now() {
    return g_get_real_time();
}

std::string TimeOfDay(Moment moment) {
    return Formatted("%H:%M:%S", LocalTime(moment)) + Milliseconds(moment);
}

std::string Timestamp(Moment moment) {
    const std::tm local = LocalTime(moment);
    return Formatted("%Y-%m-%dT%H:%M:%S", local) + Milliseconds(moment) + Formatted("%z", local);
}

}  // namespace tools
