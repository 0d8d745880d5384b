// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Routes.h"

#include <algorithm>
#include <array>

#include "CommandLine.h"
#include "Errors.h"
#include "Print.h"

namespace tv {

namespace {

constexpr DeviceKind HDMI = {
    "hdmi",
    "memory/menu/network/screenmirroring/volume_support_hdmi",
    "memory/menu/network/screenmirroring/get_volume_level_hdmi",
    "memory/menu/network/screenmirroring/get_volume_mute_hdmi",
};
constexpr DeviceKind OPTICAL = {
    "optical",
    "memory/menu/network/screenmirroring/volume_support_optical",
    "memory/menu/network/screenmirroring/get_volume_level_optical",
    "memory/menu/network/screenmirroring/get_volume_mute_optical",
};
constexpr DeviceKind WIFI = {
    "wifi",
    "memory/menu/network/screenmirroring/volume_support_mlr",
    "memory/menu/network/screenmirroring/get_volume_level_mlr",
    "memory/menu/network/screenmirroring/get_volume_mute_mlr",
};
constexpr DeviceKind BLUETOOTH = {
    "bt",
    "memory/menu/network/screenmirroring/volume_support_bt",
    "memory/menu/network/screenmirroring/get_volume_level_bt",
    "memory/menu/network/screenmirroring/get_volume_mute_bt",
};
constexpr DeviceKind USB = {
    "usb",
    "db/usbsound/volume_capability",
    "db/usbsound/volume_level",
    "db/usbsound/volume_mute_status",
};
constexpr DeviceKind AURACAST = {
    "auracast",
    "memory/menu/network/screenmirroring/volume_support_auracast",
    "memory/menu/network/screenmirroring/get_volume_level_auracast",
    "memory/menu/network/screenmirroring/get_volume_mute_auracast",
};

constexpr std::array<Route, 20> ROUTES = {{
    {0, "tv", "TV speaker", nullptr},
    {1, "optical", "optical receiver", &OPTICAL},
    {2, "hdmi", "HDMI receiver", &HDMI},
    {3, "bt", "Bluetooth speaker", &BLUETOOTH},
    {4, "wifi", "Wi-Fi speaker", &WIFI},
    {5, "bt-buds", "Bluetooth earbuds", &BLUETOOTH},
    {6, "multi-output", "several outputs at once", nullptr},
    {7, "other-7", "output without volume control", nullptr},
    {8, "hdmi-2", "HDMI receiver", &HDMI},
    {9, "optical-2", "optical receiver", &OPTICAL},
    {10, "wifi-2", "Wi-Fi speaker", &WIFI},
    {11, "tv-optical", "TV speaker and optical receiver", nullptr},
    {12, "tv-2", "TV speaker", nullptr},
    {13, "tv-3", "TV speaker", nullptr},
    {14, "tv-4", "TV speaker", nullptr},
    {15, "usb", "USB speaker", &USB},
    {16, "other-16", "output without volume control", nullptr},
    {17, "other-17", "output without volume control", nullptr},
    {18, "other-18", "output without volume control", nullptr},
    {19, "auracast", "Auracast speaker", &AURACAST},
}};

constexpr std::array DEVICE_KINDS = {&HDMI, &OPTICAL, &WIFI, &BLUETOOTH, &USB, &AURACAST};

const Route* EndToNull(const Route* found) {
    return found != ROUTES.end() ? found : nullptr;
}

}  // namespace

std::span<const Route> Routes() {
    return ROUTES;
}

std::span<const DeviceKind* const> DeviceKinds() {
    return DEVICE_KINDS;
}

const Route* FindRoute(int code) {
    return EndToNull(
        std::find_if(ROUTES.begin(), ROUTES.end(), [&](const Route& it) { return it.code == code; }));
}

const Route* FindRoute(std::string_view name) {
    return EndToNull(
        std::find_if(ROUTES.begin(), ROUTES.end(), [&](const Route& it) { return it.name == name; }));
}

int RouteIn(const std::string& text) {
    if (const Route* named = FindRoute(text); named != nullptr) {
        return named->code;
    }
    try {
        return tools::Number("the route", text);
    } catch (const tools::UsageError&) {
        throw tools::UsageError("the route must be a code or one of the names, not \"" +
                                tools::Printable(text) + "\"");
    }
}

std::string_view NameOfRoute(int code) {
    const Route* route = FindRoute(code);
    return route != nullptr ? route->name : "unknown";
}

}  // namespace tv
