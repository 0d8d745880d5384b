// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A recording, which record writes and plot reads: a text of comma-separated values, a line for each change of
 * a value and for each event. A value that cannot be read is an empty cell.
 *
 *     seconds,main_gain,sub_gain,volume,mute,output,output_level,output_mute,event
 *     0.000000,100,100,10,0,tv,10,0,start
 *
 * A recording of kavrel-sound has the column "heard" before the event, and a line for each window of sound; the other
 * lines leave that cell empty. The last cell is the event, without commas, quotes and line breaks; it is empty for a change of a value alone.
 * docs/kavrel-tv.md describes each column.
 */
#ifndef KAVREL_TOOLS_TV_RECORDING_H
#define KAVREL_TOOLS_TV_RECORDING_H

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tv {

/** The columns between the time and the event, in their order. */
enum Column : std::size_t { MAIN_GAIN, SUB_GAIN, VOLUME, MUTE, OUTPUT, OUTPUT_LEVEL, OUTPUT_MUTE };
inline constexpr std::array COLUMN_NAMES = {"main_gain", "sub_gain",     "volume",     "mute",
                                            "output",    "output_level", "output_mute"};

struct Sample {
    double seconds = 0;                                          // since the recording began
    std::array<std::optional<int>, COLUMN_NAMES.size()> values;  // by Column; OUTPUT is a route
    std::optional<double> heard =
        std::nullopt;  // RMS in percent of the full scale, of a window that ends then
    std::string event = {};
};

/** @param hasSound whether there is the column "heard" */
std::string RecordingHeader(bool hasSound = false);
/** @return the line, with its line break */
std::string ToLine(const Sample& sample, bool hasSound = false);
/** Takes the columns in any order, leaves missing ones empty, and ignores others.
 *  @return at least one sample
 *  @throws tools::ToolError with the line, for a text that is not a recording */
std::vector<Sample> ParseRecording(const std::string& name, std::string_view text);

}  // namespace tv

#endif
