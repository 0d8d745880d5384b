// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recording.h"

#include <algorithm>
#include <cmath>

#include "CommandLine.h"
#include "Errors.h"
#include "Print.h"
#include "Routes.h"

namespace tv {

namespace {

constexpr const char* HEARD = "heard";

using Cells = std::vector<std::string>;

Cells Split(std::string row) {
    Cells cells;
    row += ',';
    for (std::size_t begin = 0; begin < row.size();) {
        const std::size_t comma = row.find(',', begin);
        cells.push_back(row.substr(begin, comma - begin));
        begin = comma + 1;
    }
    return cells;
}

bool IsHeader(const Cells& cells) {
    return cells.size() > 2 && cells.front() == "seconds" && cells.back() == "event";
}

std::string ToCell(Column column, int value) {
    return column == OUTPUT ? NameOrCodeOfRoute(value) : std::to_string(value);
}

std::optional<int> FromCell(Column column, const std::string& cell) {
    const auto route = column == OUTPUT ? CodeOfRoute(cell) : std::nullopt;
    return route ? route : tools::Parsed<int>(cell);
}

bool ReadHeard(const std::string& cell, Sample& sample) {
    sample.heard = tools::Parsed<double>(cell);
    return cell.empty() || (sample.heard && std::isfinite(*sample.heard));
}

bool ReadSample(const Cells& header, const Cells& cells, Sample& sample) {
    const auto seconds = tools::Parsed<double>(cells.front());
    if (cells.size() != header.size() || !seconds || !std::isfinite(*seconds)) {
        return false;
    }
    sample.seconds = *seconds;
    sample.event = cells.back();
    for (std::size_t i = 1; i + 1 < cells.size(); ++i) {
        if (header[i] == HEARD && !ReadHeard(cells[i], sample)) {
            return false;
        }
        const auto* const name = std::find(COLUMN_NAMES.begin(), COLUMN_NAMES.end(), header[i]);
        if (name == COLUMN_NAMES.end() || cells[i].empty()) {
            continue;
        }
        const auto column = static_cast<Column>(name - COLUMN_NAMES.begin());
        sample.values[column] = FromCell(column, cells[i]);
        if (!sample.values[column]) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string RecordingHeader(bool hasSound) {
    std::string line = "seconds";
    for (const char* name : COLUMN_NAMES) {
        line += std::string(",") + name;
    }
    return line + (hasSound ? std::string(",") + HEARD : "") + ",event\n";
}

std::string ToLine(const Sample& sample, bool hasSound) {
    std::string line = tools::Formatted("%.6f", sample.seconds);
    for (std::size_t i = 0; i < sample.values.size(); ++i) {
        line += ",";
        line += sample.values[i] ? ToCell(static_cast<Column>(i), *sample.values[i]) : "";
    }
    if (hasSound) {
        line += "," + (sample.heard ? tools::Formatted("%.4f", *sample.heard) : "");
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
    Cells header;
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
            header = Split(row);
            require(IsHeader(header), "this is not a recording of kavrel-tv record");
            continue;
        }
        Sample sample;
        require(ReadSample(header, Split(row), sample),
                "a time, " + std::to_string(header.size() - 2) + " values and an event were expected");
        require(samples.empty() || sample.seconds >= samples.back().seconds,
                "the time is earlier than on the line before");
        samples.push_back(sample);
    }
    line = 1;
    require(!samples.empty(), "the recording is empty");
    return samples;
}

}  // namespace tv
