// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recording.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "Errors.h"

namespace tv {

namespace {

/** Up to the next comma, which it takes off, too. */
std::string_view TakeCell(std::string_view& row) {
    const std::string_view cell = row.substr(0, row.find(','));
    row.remove_prefix(std::min(cell.size() + 1, row.size()));
    return cell;
}

template <typename Value>
bool Read(std::string_view cell, Value& value) {
    const auto [end, error] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
    return error == std::errc() && end == cell.data() + cell.size();
}

bool ReadMoment(std::string_view row, Moment& moment) {
    if (std::count(row.begin(), row.end(), ',') != static_cast<std::ptrdiff_t>(COLUMNS.size()) + 1 ||
        !Read(TakeCell(row), moment.seconds) || !std::isfinite(moment.seconds)) {
        return false;
    }
    for (auto& value : moment.values) {
        const std::string_view cell = TakeCell(row);
        int number = 0;
        if (!cell.empty() && !Read(cell, number)) {
            return false;
        }
        value = cell.empty() ? std::nullopt : std::optional(number);
    }
    moment.event = row;
    return true;
}

}  // namespace

std::string RecordingHeader() {
    std::string line = "seconds";
    for (const Column& column : COLUMNS) {
        line += std::string(",") + column.name;
    }
    return line + ",event\n";
}

std::string ToLine(const Moment& moment) {
    std::array<char, 32> seconds = {};
    std::snprintf(seconds.data(), seconds.size(), "%.6f", moment.seconds);
    std::string line = seconds.data();
    for (const auto& value : moment.values) {
        line += ",";
        line += value ? std::to_string(*value) : "";
    }
    std::string event = moment.event;
    std::replace_if(
        event.begin(), event.end(),
        [](unsigned char letter) { return letter == ',' || letter == '"' || letter < ' ' || letter == 0x7F; },
        ' ');
    return line + "," + event + "\n";
}

std::vector<Moment> ParseRecording(const std::string& name, std::string_view text) {
    const auto refuse = [&](int line, const std::string& why) {
        throw tools::ToolError(tools::EXIT_REFUSED, name + ":" + std::to_string(line) + ": " + why);
    };
    std::vector<Moment> moments;
    for (int line = 1; !text.empty(); ++line) {
        const std::string row(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(row.size() + 1, text.size()));
        Moment moment;
        if (line == 1) {
            if (row + "\n" != RecordingHeader()) {
                refuse(line, "this is no recording of kavrel-tv record");
            }
        } else if (!ReadMoment(row, moment)) {
            refuse(line, "a time, four values and an event were expected");
        } else if (!moments.empty() && moment.seconds < moments.back().seconds) {
            refuse(line, "the time runs backwards");
        } else {
            moments.push_back(moment);
        }
    }
    if (moments.empty()) {
        refuse(1, "there is nothing in it");
    }
    return moments;
}

}  // namespace tv
