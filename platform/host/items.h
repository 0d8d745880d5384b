// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The layout of the TV directory: every value that has a name here, with its file, what it may hold, and what
 * a new TV begins with.
 */
#ifndef KAVREL_HOST_ITEMS_H
#define KAVREL_HOST_ITEMS_H

#include <array>
#include <climits>
#include <optional>
#include <string>
#include <string_view>

namespace host {

struct Range {
    int min = INT_MIN;
    int max = INT_MAX;
};

/** A value of the TV: the file that holds it, and what it may hold. */
struct Value {
    std::string path;            // below the TV directory
    std::optional<Range> range;  // the integers it may be; none: it is text
    std::string topic = path;    // what a registration names: this value, or the group that it belongs to
};

/** A value whose file is always the same one. */
struct NamedValue {
    const char* path;
    std::optional<Range> range;
    const char* initial;  // in a new TV; null: a new TV does not have it

    /** The key in the settings store or the feature flags: the path without the folder. */
    constexpr const char* Key() const { return path + std::string_view(path).find('/') + 1; }
    operator Value() const { return {path, range}; }
};

// --- Folders

inline constexpr const char* SETTINGS = "settings";
inline constexpr const char* FEATURES = "features";
inline constexpr const char* EVENTS = "events";
inline constexpr const char* ZONES = "sound/zones";  // each folder in it is a zone

/** The topic of the routes of all zones. */
inline constexpr const char* ZONE_ROUTES = ZONES;

/** Every folder that a new TV has. */
inline constexpr std::array DEFAULT_FOLDERS = {"settings/memory", "settings/db", FEATURES, ZONES,
                                               "zones",           "audio",       EVENTS};

// --- Contents of a file

inline constexpr std::optional<Range> TEXT = std::nullopt;
inline constexpr Range ANY_INTEGER = {};
inline constexpr Range PERCENTAGE = {0, 100};
inline constexpr Range ZERO_OR_ONE = {0, 1};

// --- Sound

inline constexpr NamedValue ROUTE = {"sound/route", ANY_INTEGER, "0"};
inline constexpr NamedValue FOCUS = {"zones/focus", ANY_INTEGER, nullptr};
inline constexpr NamedValue MASTER_VOLUME = {"audio/master_volume", PERCENTAGE, "10"};
inline constexpr NamedValue MASTER_MUTE = {"audio/master_mute", ZERO_OR_ONE, "0"};
inline constexpr NamedValue MAIN_OUT_GAIN = {"audio/main_out_gain2", ANY_INTEGER, "100"};
inline constexpr NamedValue SUB_OUT_GAIN = {"audio/sub_out_gain2", ANY_INTEGER, "100"};

// --- Settings. Integers unless they say otherwise; the settings store itself would hold any text.

/** A JSON object; its "mode" is "on" or "off". */
inline constexpr NamedValue MULTIVIEW_INFO = {"settings/memory/multiscreen/info", TEXT, R"({"mode":"off"})"};
/** The optical cable: 0 pulled, 1 plugged in. */
inline constexpr NamedValue OPTICAL_CABLE = {"settings/memory/sysman/spdif", ANY_INTEGER, nullptr};
/** Mirroring to a mobile device: 1 on, 0 off. */
inline constexpr NamedValue MOBILE_MIRRORING = {"settings/memory/menu/network/screenmirroring/smsrc_status",
                                                ANY_INTEGER, nullptr};
/** The projector: 1 ready, 0 not. */
inline constexpr NamedValue PROJECTOR_READY = {"settings/memory/projector/status/ready", ANY_INTEGER,
                                               nullptr};
/** The zone that a sub Bluetooth headset holds, -1 for none. */
inline constexpr NamedValue SUB_BLUETOOTH_ZONE = {"settings/memory/org.olvane.btapp/sub_audio_zoneid",
                                                  ANY_INTEGER, nullptr};
/** Requests to an external output: a level from 0 to 100, and a mute, 0 or 1. */
inline constexpr NamedValue LEVEL_REQUEST = {"settings/memory/menu/network/screenmirroring/set_volume_level",
                                             ANY_INTEGER, nullptr};
inline constexpr NamedValue MUTE_REQUEST = {"settings/memory/menu/network/screenmirroring/set_volume_mute",
                                            ANY_INTEGER, nullptr};

// --- Features: "true" or "false"

inline constexpr NamedValue INTERNAL_SPEAKER_FEATURE = {
    "features/com.norvik/featureconf/internal_speaker_supported", TEXT, "true"};
inline constexpr NamedValue MULTIVIEW_FEATURE = {"features/com.norvik/featureconf/multiview.support", TEXT,
                                                 "true"};
inline constexpr NamedValue PROJECTOR_FEATURE = {"features/com.norvik/featureconf/projector_feature_support",
                                                 TEXT, "false"};

// --- Events, by the names that their callers use

inline constexpr const char* READY_EVENT = "/tmp/.kavrel_ready";
inline constexpr const char* POPUP_EVENT = "FadeInPopup";

// --- All of them

inline constexpr std::array NAMED_VALUES = {
    ROUTE,
    FOCUS,
    MASTER_VOLUME,
    MASTER_MUTE,
    MAIN_OUT_GAIN,
    SUB_OUT_GAIN,
    MULTIVIEW_INFO,
    OPTICAL_CABLE,
    MOBILE_MIRRORING,
    PROJECTOR_READY,
    SUB_BLUETOOTH_ZONE,
    LEVEL_REQUEST,
    MUTE_REQUEST,
    INTERNAL_SPEAKER_FEATURE,
    MULTIVIEW_FEATURE,
    PROJECTOR_FEATURE,
};

// --- Values that are named while the TV runs

/** The setting or the feature of a key; see IsKey(). */
inline Value KeyValue(std::string_view folder, std::string_view key) {
    return {std::string(folder).append("/").append(key), TEXT};
}

inline std::string ZoneFolder(int zone) {
    return std::string(ZONES) + '/' + std::to_string(zone);
}

inline Value ZoneRoute(int zone) {
    return {ZoneFolder(zone) + "/route", ANY_INTEGER, ZONE_ROUTES};
}

/** The file of a boot event. Every byte of its name but letters, digits, '_' and '-' becomes %XX. */
Value EventValue(std::string_view event);

}  // namespace host

#endif
