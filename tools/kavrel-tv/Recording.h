// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * What record writes and plot reads: a text of comma-separated values, a line for each moment at which
 * something changed. Empty cells stand for what could not be read.
 *
 *     seconds,main_gain,sub_gain,volume,mute,event
 *     0.000000,100,100,10,0,start
 *
 * The event, which may be empty, comes last and has no comma, quote or line break in it.
 */
#ifndef KAVREL_TV_RECORDING_H
#define KAVREL_TV_RECORDING_H

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Snapshot.h"

namespace tv {

/** The recorded values, as the columns have them. */
struct Column {
    const char* name;
    const char* path;  // below the TV directory
};
inline constexpr std::array<Column, 4> COLUMNS = {{
    {"main_gain", MAIN_GAIN_PATH},
    {"sub_gain", SUB_GAIN_PATH},
    {"volume", VOLUME_PATH},
    {"mute", MUTE_PATH},
}};

struct Moment {
    double seconds = 0;  // since the recording began
    std::array<std::optional<int>, COLUMNS.size()> values;
    std::string event;
};

std::string RecordingHeader();
/** With the line break. */
std::string ToLine(const Moment& moment);
/** @throws ToolError for a text that is no recording, with the line; at least one moment */
std::vector<Moment> ParseRecording(const std::string& name, std::string_view text);

}  // namespace tv

#endif
