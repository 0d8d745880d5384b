// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Snapshot.h"

#include <directory.h>
#include <json/reader.h>
#include <json/value.h>
#include <lwipc.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <system_error>

#include "Platform.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

constexpr const char* SETTINGS = "settings/";
constexpr const char* FEATURES = "features/";

Number ReadNumber(const std::string& path, host::Range range = {}) {
    Number number;
    std::string text;
    number.error = host::Read({path, range}, text).number;
    if (number) {
        host::ParseInteger(text, range, number.value);
    }
    return number;
}

std::vector<std::pair<std::string, Number>> ReadFeatures() {
    std::vector<std::pair<std::string, Number>> features;
    const fs::path folder = host::Root() / FEATURES;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        const bool isValue = !entry->path().filename().string().starts_with('.');
        if (isValue && entry->is_regular_file(ignored)) {
            const std::string key = entry->path().lexically_relative(folder);
            features.emplace_back(key, ReadFeature(key));
        }
    }
    std::sort(features.begin(), features.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    return features;
}

}  // namespace

const DeviceKind* Output::Device() const {
    const Route* known = route ? FindRoute(route.value) : nullptr;
    return known != nullptr ? known->device : nullptr;
}

Number ReadSetting(const std::string& key) {
    return ReadNumber(SETTINGS + key);
}

Number ReadFeature(const std::string& key) {
    std::string text;
    if (const host::Error error = host::Read(host::KeyValue(host::FEATURES, key), text)) {
        return {error.number};
    }
    return text == "true" || text == "false" ? Number{0, text == "true" ? 1 : 0} : Number{EINVAL};
}

Json::Value ReadMultiviewInfo() {
    std::string text;
    Json::Value info;
    static_cast<void>(host::Read(host::KeyValue(host::SETTINGS, MULTIVIEW_KEY), text));
    try {
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        reader->parse(text.data(), text.data() + text.size(), &info, nullptr);
    } catch (const Json::Exception&) {
        // It is nested too deeply, which is not what the TV writes.
    }
    return info.isObject() ? info : Json::Value(Json::objectValue);
}

bool IsMultiviewOn() {
    return ReadFeature(MULTIVIEW_FEATURE).value == 1 && ReadMultiviewInfo()["mode"] == "on";
}

std::vector<Zone> ReadZones() {
    std::vector<int> ids;
    static_cast<void>(host::GetZones(ids));
    std::vector<Zone> zones;
    zones.reserve(ids.size());
    for (const int id : ids) {
        zones.push_back({id, ReadNumber(host::ZoneRoute(id).path)});
    }
    return zones;
}

Number ReadFocus() {
    return ReadNumber(FOCUS_PATH);
}

Output ReadOutput() {
    if (IsMultiviewOn()) {
        const Number focus = ReadFocus();
        const Number route = focus ? ReadNumber(host::ZoneRoute(focus.value).path) : Number{};
        if (route) {
            return {route, focus.value};
        }
    }
    return {ReadNumber(ROUTE_PATH), std::nullopt};
}

DeviceState ReadDevice(const DeviceKind& kind) {
    return {ReadSetting(kind.supportKey), ReadSetting(kind.levelKey), ReadSetting(kind.muteKey)};
}

Snapshot ReadTv() {
    Snapshot tv;
    tv.directory = host::Root();
    tv.ready = LwipcIsDone(READY_EVENT) == 1;
    tv.output = ReadOutput();
    if (const DeviceKind* kind = tv.output.Device(); kind != nullptr) {
        tv.device = ReadDevice(*kind);
    }
    tv.route = ReadNumber(ROUTE_PATH);
    tv.multiview = IsMultiviewOn();
    tv.zones = ReadZones();
    tv.focus = ReadFocus();
    tv.volume = ReadNumber(VOLUME_PATH, {0, 100});
    tv.mute = ReadNumber(MUTE_PATH, {0, 1});
    tv.mainGain = ReadNumber(MAIN_GAIN_PATH);
    tv.subGain = ReadNumber(SUB_GAIN_PATH);
    tv.cable = ReadSetting(CABLE_KEY);
    tv.mobile = ReadSetting(MOBILE_KEY);
    tv.projector = ReadSetting(PROJECTOR_KEY);
    tv.subBluetooth = ReadSetting(SUB_BT_KEY);
    tv.popup = LwipcIsDone(POPUP_EVENT) == 1;
    tv.features = ReadFeatures();
    TakePlatformError();  // what cannot be read is shown in its place
    return tv;
}

}  // namespace tv
