// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Routes.h"

#include <algorithm>
#include <array>
#include <vector>

#include "CommandLine.h"
#include "Print.h"

namespace tv {

namespace {

host::Value Setting(const std::string& key) {
    return host::KeyValue(host::SETTINGS, key);
}

/** The settings of every device but the USB speaker. */
DeviceKind Device(std::string_view name, const std::string& suffix) {
    const std::string folder = "memory/menu/network/screenmirroring/";
    return {name, Setting(folder + "volume_support_" + suffix),
            Setting(folder + "get_volume_level_" + suffix), Setting(folder + "get_volume_mute_" + suffix)};
}

const std::array DEVICE_KINDS = {
    Device("hdmi", "hdmi"),
    Device("optical", "optical"),
    Device("wifi", "mlr"),
    Device("bt", "bt"),
    DeviceKind{"usb", Setting("db/usbsound/volume_capability"), Setting("db/usbsound/volume_level"),
               Setting("db/usbsound/volume_mute_status")},
    Device("auracast", "auracast"),
};
const auto& [HDMI, OPTICAL, WIFI, BLUETOOTH, USB, AURACAST] = DEVICE_KINDS;

/** By code. */
const std::array<Route, 20> ROUTES = {{
    {0, "tv", "TV speaker", nullptr},
    {1, "optical", "optical receiver", &OPTICAL},
    {2, "hdmi", "HDMI receiver", &HDMI},
    {3, "bt", "Bluetooth speaker", &BLUETOOTH},
    {4, "wifi", "Wi-Fi speaker", &WIFI},
    {5, "bt-buds", "Bluetooth earbuds", &BLUETOOTH},
    {6, "multi-output", "several outputs at once", nullptr},
    {7, "other-7", "output without volume control", nullptr, false},
    {8, "hdmi-2", "HDMI receiver", &HDMI},
    {9, "optical-2", "optical receiver", &OPTICAL},
    {10, "wifi-2", "Wi-Fi speaker", &WIFI},
    {11, "tv-optical", "TV speaker and optical receiver", nullptr},
    {12, "tv-2", "TV speaker", nullptr},
    {13, "tv-3", "TV speaker", nullptr},
    {14, "tv-4", "TV speaker", nullptr},
    {15, "usb", "USB speaker", &USB},
    {16, "other-16", "output without volume control", nullptr, false},
    {17, "other-17", "output without volume control", nullptr, false},
    {18, "other-18", "output without volume control", nullptr, false},
    {19, "auracast", "Auracast speaker", &AURACAST},
}};

/** "0 tv, 1 optical, ..." */
std::string CodesAndNames() {
    std::vector<std::string> routes;
    routes.reserve(ROUTES.size());
    for (const Route& route : ROUTES) {
        routes.push_back(std::to_string(route.code) + " " + std::string(route.name));
    }
    return tools::Joined(routes, ", ");
}

}  // namespace

std::span<const Route> Routes() {
    return ROUTES;
}

std::span<const DeviceKind> DeviceKinds() {
    return DEVICE_KINDS;
}

const Route* FindRoute(int code) {
    return code >= 0 && code < static_cast<int>(ROUTES.size()) ? &ROUTES[static_cast<std::size_t>(code)]
                                                               : nullptr;
}

CLI::Validator RouteCode() {
    const auto check = [](std::string& text) -> std::string {
        const auto named = CodeOfRoute(text);
        const auto code = named ? named : tools::Parsed<int>(text);
        if (!code || FindRoute(*code) == nullptr) {
            return tools::Quoted(text) + " is neither the code nor the name of a route: " + CodesAndNames();
        }
        text = std::to_string(*code);
        return {};
    };
    return {check, ""};
}

std::string_view NameOfRoute(int code) {
    const Route* route = FindRoute(code);
    return route != nullptr ? route->name : "unknown";
}

std::string NameOrCodeOfRoute(int code) {
    const Route* route = FindRoute(code);
    return route != nullptr ? std::string(route->name) : std::to_string(code);
}

std::optional<int> CodeOfRoute(std::string_view name) {
    const auto* const named = std::find_if(ROUTES.begin(), ROUTES.end(), [name](const Route& route) {
        return tools::IsSameWord(route.name, name);
    });
    return named != ROUTES.end() ? std::optional(named->code) : std::nullopt;
}

std::optional<VolumeValues> VolumeOf(const Route& route) {
    if (route.device != nullptr) {
        return VolumeValues{route.device->level, route.device->mute};
    }
    return route.hasVolume ? std::optional<VolumeValues>({host::MASTER_VOLUME, host::MASTER_MUTE})
                           : std::nullopt;
}

}  // namespace tv
