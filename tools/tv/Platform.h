// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV directory, through the core of the host platform, whose errors become the tool's. */
#ifndef KAVREL_TOOLS_TV_PLATFORM_H
#define KAVREL_TOOLS_TV_PLATFORM_H

#include <directory.h>
#include <json/value.h>

#include <cerrno>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Routes.h"

namespace tv {

/** Makes the directory the TV of this process; everything else here and in the host core needs that.
 *  @throws tools::ToolError if it is not a TV directory, so that this tool never makes one by mistake */
void OpenTv(const std::string& directory);

/** @throws tools::ToolError if there is an error */
void ThrowIfFailed(const host::Error& error);

/** Reads a file that the user names. @throws tools::ToolError if it cannot be read to its end */
std::string ReadFile(const std::string& name);

/** An integer of the TV directory. */
struct Integer {
    int error = ENOENT;  // 0, ENOENT for a missing value, another errno for one that cannot be read
    int value = 0;       // if there is no error

    explicit operator bool() const { return error == 0; }
    bool IsMissing() const { return error == ENOENT; }
};

struct Zone {
    int id;
    Integer route;
};

/** The output in use: that of the zone in focus in multi-view, and that of the single view otherwise. */
struct OutputInUse {
    Integer route;
    std::optional<int> zone;

    /** @return null for an output that is not external */
    const DeviceKind* Device() const;
    /** @return nothing for an output without volume control */
    std::optional<VolumeValues> Volume() const;
};

OutputInUse ReadOutput();
Integer ReadInteger(const host::Value& value);
/** Reads "false" as 0 and "true" as 1. */
Integer ReadFeature(const host::Value& feature);
bool HasFeature(const host::Value& feature);

/** Reads the setting's JSON object; an empty one for anything else. */
Json::Value ReadMultiviewInfo();
bool IsMultiviewOn();
std::vector<Zone> ReadZones();
/** All features by their keys, ascending. */
std::map<std::string, Integer> ReadFeatures();
bool IsDone(const char* event);

}  // namespace tv

#endif
