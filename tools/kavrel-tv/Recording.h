// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A recording, which record writes and plot reads: a text of comma-separated values, a line for each change of
 * a value and for each event. A value that cannot be read is an empty cell.
 *
 *     seconds,main_gain,sub_gain,volume,mute,event
 *     0.000000,100,100,10,0,start
 *
 * The last cell is the event, without commas, quotes and line breaks; it is empty for a change of a value alone.
 */
#ifndef KAVREL_TV_RECORDING_H
#define KAVREL_TV_RECORDING_H

#include <items.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tv {

struct Column {
    const char* name;
    host::NamedValue value;
};
inline constexpr std::array<Column, 4> COLUMNS = {{
    {"main_gain", host::MAIN_OUT_GAIN},
    {"sub_gain", host::SUB_OUT_GAIN},
    {"volume", host::MASTER_VOLUME},
    {"mute", host::MASTER_MUTE},
}};

struct Sample {
    double seconds = 0;  // since the recording began
    std::array<std::optional<int>, COLUMNS.size()> values;
    std::string event;
};

std::string RecordingHeader();
/** @return the line, with its line break */
std::string ToLine(const Sample& sample);
/** @return at least one sample
 *  @throws tools::ToolError with the line, for a text that is not a recording */
std::vector<Sample> ParseRecording(const std::string& name, std::string_view text);

}  // namespace tv

#endif
