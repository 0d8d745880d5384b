// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Snapshot.h"

#include <json/reader.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace tv {

namespace {

std::vector<std::pair<std::string, Integer>> ReadFeatures() {
    std::vector<std::pair<std::string, Integer>> features;
    const fs::path folder = host::Root() / host::FEATURES;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        const bool isValue = !entry->path().filename().string().starts_with('.');
        if (isValue && entry->is_regular_file(ignored)) {
            const std::string key = entry->path().lexically_relative(folder);
            features.emplace_back(key, ReadFeature(host::KeyValue(host::FEATURES, key)));
        }
    }
    std::sort(features.begin(), features.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    return features;
}

bool IsMultiviewOn() {
    return HasFeature(host::MULTIVIEW_FEATURE) && ReadMultiviewInfo()["mode"] == "on";
}

bool IsDone(const char* event) {
    bool isDone = false;
    return !host::Exists(host::EventValue(event), isDone) && isDone;
}

}  // namespace

const DeviceKind* OutputInUse::Device() const {
    const Route* known = route ? FindRoute(route.value) : nullptr;
    return known != nullptr ? known->device : nullptr;
}

Integer ReadInteger(const host::Value& value) {
    Integer integer;
    integer.error = host::Read(value, integer.value).number;
    return integer;
}

Integer ReadFeature(const host::Value& feature) {
    std::string text;
    if (const host::Error error = host::Read(feature, text)) {
        return {error.number};
    }
    return text == "true" || text == "false" ? Integer{0, text == "true" ? 1 : 0} : Integer{EINVAL};
}

bool HasFeature(const host::Value& feature) {
    return ReadFeature(feature).value == 1;
}

Json::Value ReadMultiviewInfo() {
    std::string text;
    Json::Value info;
    try {
        if (!host::Read(host::MULTIVIEW_INFO, text)) {
            const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
            reader->parse(text.data(), text.data() + text.size(), &info, nullptr);
        }
    } catch (const Json::Exception&) {
        // The text is nested too deeply; the TV does not write that.
    }
    return info.isObject() ? info : Json::Value(Json::objectValue);
}

std::vector<Zone> ReadZones() {
    std::vector<int> ids;
    std::vector<Zone> zones;
    if (!host::GetZones(ids)) {
        std::transform(ids.begin(), ids.end(), std::back_inserter(zones), [](int id) {
            return Zone{id, ReadInteger(host::ZoneRoute(id))};
        });
    }
    return zones;
}

OutputInUse ReadOutput() {
    const Integer focus = IsMultiviewOn() ? ReadInteger(host::FOCUS) : Integer{};
    const Integer route = focus ? ReadInteger(host::ZoneRoute(focus.value)) : Integer{};
    return route ? OutputInUse{route, focus.value} : OutputInUse{ReadInteger(host::ROUTE), std::nullopt};
}

Snapshot ReadTv() {
    Snapshot tv;
    tv.directory = host::Root();
    tv.ready = IsDone(host::READY_EVENT);
    tv.output = ReadOutput();
    if (const DeviceKind* kind = tv.output.Device(); kind != nullptr) {
        tv.device = {ReadInteger(kind->support), ReadInteger(kind->level), ReadInteger(kind->mute)};
    }
    tv.route = ReadInteger(host::ROUTE);
    tv.multiview = IsMultiviewOn();
    tv.zones = ReadZones();
    tv.focus = ReadInteger(host::FOCUS);
    tv.volume = ReadInteger(host::MASTER_VOLUME);
    tv.mute = ReadInteger(host::MASTER_MUTE);
    tv.mainGain = ReadInteger(host::MAIN_OUT_GAIN);
    tv.subGain = ReadInteger(host::SUB_OUT_GAIN);
    tv.cable = ReadInteger(host::OPTICAL_CABLE);
    tv.mobile = ReadInteger(host::MOBILE_MIRRORING);
    tv.projector = ReadInteger(host::PROJECTOR_READY);
    tv.subBluetooth = ReadInteger(host::SUB_BLUETOOTH_ZONE);
    tv.popup = IsDone(host::POPUP_EVENT);
    tv.features = ReadFeatures();
    return tv;
}

}  // namespace tv
