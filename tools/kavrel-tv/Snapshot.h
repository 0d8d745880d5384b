// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The state of the whole TV at one moment. */
#ifndef KAVREL_TV_SNAPSHOT_H
#define KAVREL_TV_SNAPSHOT_H

#include <json/value.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Routes.h"

namespace tv {

inline constexpr const char* MULTIVIEW_KEY = "memory/multiscreen/info";
inline constexpr const char* CABLE_KEY = "memory/sysman/spdif";
inline constexpr const char* MOBILE_KEY = "memory/menu/network/screenmirroring/smsrc_status";
inline constexpr const char* PROJECTOR_KEY = "memory/projector/status/ready";
inline constexpr const char* SUB_BT_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";
inline constexpr const char* POPUP_EVENT = "FadeInPopup";
inline constexpr const char* READY_EVENT = "/tmp/.kavrel_ready";

inline constexpr const char* INTERNAL_SPEAKER_FEATURE = "com.norvik/featureconf/internal_speaker_supported";
inline constexpr const char* MULTIVIEW_FEATURE = "com.norvik/featureconf/multiview.support";
inline constexpr const char* PROJECTOR_FEATURE = "com.norvik/featureconf/projector_feature_support";

inline constexpr const char* ROUTE_PATH = "sound/route";
inline constexpr const char* FOCUS_PATH = "zones/focus";
inline constexpr const char* VOLUME_PATH = "audio/master_volume";
inline constexpr const char* MUTE_PATH = "audio/master_mute";
inline constexpr const char* MAIN_GAIN_PATH = "audio/main_out_gain2";
inline constexpr const char* SUB_GAIN_PATH = "audio/sub_out_gain2";

/** A value as its file has it. */
struct Number {
    int error = ENOENT;  // 0, ENOENT for a value that is not there, another errno for one that cannot be read
    int value = 0;       // if there is no error

    explicit operator bool() const { return error == 0; }
    bool IsMissing() const { return error == ENOENT; }
};

struct Zone {
    int id;
    Number route;
};

/** What plays now: the route of the zone in focus in multi-view, else that of the single view. */
struct Output {
    Number route;
    std::optional<int> zone;

    /** Null: no external output. */
    const DeviceKind* Device() const;
};

/** What the component behind an external output has published. */
struct DeviceState {
    Number support;
    Number level;
    Number mute;
};

struct Snapshot {
    std::string directory;
    bool ready = false;  // the daemon serves

    Output output;
    DeviceState device;  // of the output, if that is an external one
    Number route;        // of the single view
    bool multiview = false;
    std::vector<Zone> zones;
    Number focus;

    Number volume;
    Number mute;
    Number mainGain;
    Number subGain;

    Number cable;
    Number mobile;
    Number projector;
    Number subBluetooth;  // a zone; missing or -1: none
    bool popup = false;
    std::vector<std::pair<std::string, Number>> features;
};

Number ReadSetting(const std::string& key);
/** 0 or 1. */
Number ReadFeature(const std::string& key);

/** The setting's JSON object; an empty one for anything else. */
Json::Value ReadMultiviewInfo();
/** Whether the TV has multi-view and it is on. */
bool IsMultiviewOn();
std::vector<Zone> ReadZones();
Number ReadFocus();
Output ReadOutput();
DeviceState ReadDevice(const DeviceKind& kind);
Snapshot ReadTv();

}  // namespace tv

#endif
