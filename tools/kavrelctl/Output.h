// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_OUTPUT_H
#define KAVRELCTL_OUTPUT_H

#include <json/value.h>

#include <optional>
#include <string>

namespace ctl {

/** The folder that KAVREL_TV_DIR names, else /run/kavrel. */
std::string TvDirectory();

/** The output that plays. The bus does not say it, but the TV directory does. */
struct Output {
    int route;
    /** Set in multi-view: it is the output of the zone in focus. */
    bool isOfZone;
};

/** Reads the TV directory, and never makes or changes one. @return nothing if it does not say the output */
std::optional<Output> OutputOfTv();

/** "hdmi, HDMI receiver (route 2), of the zone in focus". */
std::string InWords(const Output& output);
/** Adds the output's name and route to a JSON object; each is null if it is not known. */
void AddTo(Json::Value& object, const std::optional<Output>& output);

}  // namespace ctl

#endif
