// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recording.h"

#include <algorithm>
#include <cmath>

#include "CommandLine.h"
#include "Errors.h"
#include "Print.h"

namespace tv {

namespace {

/** Takes the text up to the next comma off, and the comma. */
std::string_view TakeCell(std::string_view& row) {
    const std::string_view cell = row.substr(0, row.find(','));
    row.remove_prefix(std::min(cell.size() + 1, row.size()));
    return cell;
}

bool ReadSample(std::string_view row, Sample& sample) {
    const auto commas = std::count(row.begin(), row.end(), ',');
    const auto seconds = tools::Parsed<double>(TakeCell(row));
    if (commas != static_cast<std::ptrdiff_t>(COLUMNS.size()) + 1 || !seconds || !std::isfinite(*seconds)) {
        return false;
    }
    sample.seconds = *seconds;
    for (auto& value : sample.values) {
        const std::string_view cell = TakeCell(row);
        value = tools::Parsed<int>(cell);
        if (!value && !cell.empty()) {
            return false;
        }
    }
    sample.event = row;
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

std::string ToLine(const Sample& sample) {
    std::string line = tools::Formatted("%.6f", sample.seconds);
    for (const auto& value : sample.values) {
        line += ",";
        line += value ? std::to_string(*value) : "";
    }
    std::string event = sample.event;
    std::replace_if(
        event.begin(), event.end(),
        [](unsigned char letter) { return letter == ',' || letter == '"' || letter < ' ' || letter == 0x7F; },
        ' ');
    return line + "," + event + "\n";
}

std::vector<Sample> ParseRecording(const std::string& name, std::string_view text) {
    std::vector<Sample> samples;
    int line = 0;
    const auto require = [&](bool isMet, const std::string& failure) {
        if (!isMet) {
            throw tools::ToolError(tools::EXIT_REFUSED, name + ":" + std::to_string(line) + ": " + failure);
        }
    };
    for (line = 1; !text.empty(); ++line) {
        const std::string row(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(row.size() + 1, text.size()));
        if (line == 1) {
            require(row + "\n" == RecordingHeader(), "this is not a recording of kavrel-tv record");
            continue;
        }
        Sample sample;
        require(ReadSample(row, sample), "a time, four values and an event were expected");
        require(samples.empty() || sample.seconds >= samples.back().seconds,
                "the time is earlier than on the line before");
        samples.push_back(sample);
    }
    line = 1;
    require(!samples.empty(), "the recording is empty");
    return samples;
}

}  // namespace tv
