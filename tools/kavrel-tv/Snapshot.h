// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The state of the whole TV at one time. */
#ifndef KAVREL_TV_SNAPSHOT_H
#define KAVREL_TV_SNAPSHOT_H

#include <directory.h>
#include <json/value.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Routes.h"

namespace tv {

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
};

/** The values that the component behind an external output has published. */
struct DeviceState {
    Integer support;
    Integer level;
    Integer mute;
};

struct Snapshot {
    std::string directory;
    bool ready = false;  // the daemon serves

    OutputInUse output;
    DeviceState device;  // of the output, if that is an external one
    Integer route;       // of the single view
    bool multiview = false;
    std::vector<Zone> zones;
    Integer focus;

    Integer volume;
    Integer mute;
    Integer mainGain;
    Integer subGain;

    Integer cable;
    Integer mobile;
    Integer projector;
    Integer subBluetooth;  // a zone; missing or -1: none
    bool popup = false;
    std::vector<std::pair<std::string, Integer>> features;
};

Integer ReadInteger(const host::Value& value);
/** Reads "false" as 0 and "true" as 1. */
Integer ReadFeature(const host::Value& feature);
bool HasFeature(const host::Value& feature);

/** Reads the setting's JSON object; an empty one for anything else. */
Json::Value ReadMultiviewInfo();
std::vector<Zone> ReadZones();
OutputInUse ReadOutput();
Snapshot ReadTv();

}  // namespace tv

#endif
