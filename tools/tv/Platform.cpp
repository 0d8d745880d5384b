// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Platform.h"

#include <json/reader.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <system_error>

#include "Errors.h"
#include "Print.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

constexpr const char* FOLDER_OF_EVERY_TV = "sound";
constexpr const char* MARK_OF_A_NEW_TV = ".filling";  // while another process fills the directory

/** The platform fills an empty directory with the default TV, as it does for the daemon. */
bool IsTv(const fs::path& directory) {
    const auto isValue = [](const fs::directory_entry& entry) {
        return !entry.path().filename().string().starts_with('.');
    };
    return fs::exists(directory / FOLDER_OF_EVERY_TV) || fs::exists(directory / MARK_OF_A_NEW_TV) ||
           std::none_of(fs::directory_iterator(directory), fs::directory_iterator(), isValue);
}

[[noreturn]] void RefuseTv(const std::string& reason) {
    throw tools::ToolError(tools::EXIT_UNREACHABLE, reason);
}

}  // namespace

void OpenTv(const std::string& directory) {
    const std::string shown = tools::Printable(directory);
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        RefuseTv("there is no TV directory " + shown + "; ./run makes one, --dir names another");
    }
    try {
        if (!IsTv(directory)) {
            RefuseTv(shown + " is not a TV directory");
        }
    } catch (const fs::filesystem_error& failure) {
        RefuseTv("cannot read " + shown + ": " + failure.code().message());
    }
    g_setenv("KAVREL_TV_DIR", directory.c_str(), TRUE);
    if (const host::Error& failure = host::OpenTv()) {
        RefuseTv(failure.text);
    }
}

void ThrowIfFailed(const host::Error& error) {
    if (!error) {
        return;
    }
    const std::string reason =
        error.text.empty() ? std::generic_category().message(error.number) : error.text;
    if (error.number == EACCES) {
        throw tools::ToolError(tools::EXIT_NOT_ALLOWED,
                               "not allowed: needs root or the group audio: " + reason);
    }
    throw tools::ToolError(tools::EXIT_REFUSED, reason);
}

std::string ReadFile(const std::string& name) {
    char* contents = nullptr;
    gsize length = 0;
    tools::GLibError error;
    if (!g_file_get_contents(name.c_str(), &contents, &length, error)) {
        throw tools::ToolError(tools::EXIT_REFUSED, tools::Printable(error->message));
    }
    const tools::GLibPtr<char> owner(contents);
    return {contents, length};
}

const DeviceKind* OutputInUse::Device() const {
    const Route* known = route ? FindRoute(route.value) : nullptr;
    return known != nullptr ? known->device : nullptr;
}

std::optional<VolumeValues> OutputInUse::Volume() const {
    const Route* known = route ? FindRoute(route.value) : nullptr;
    return known != nullptr ? VolumeOf(*known) : std::nullopt;
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
    static_cast<void>(host::GetZones(ids));  // an error leaves none
    zones.reserve(ids.size());
    for (const int id : ids) {
        zones.push_back({id, ReadInteger(host::ZoneRoute(id))});
    }
    return zones;
}

OutputInUse ReadOutput() {
    const Integer focus = IsMultiviewOn() ? ReadInteger(host::FOCUS) : Integer{};
    const Integer route = focus ? ReadInteger(host::ZoneRoute(focus.value)) : Integer{};
    return route ? OutputInUse{route, focus.value} : OutputInUse{ReadInteger(host::ROUTE), std::nullopt};
}

std::map<std::string, Integer> ReadFeatures() {
    std::map<std::string, Integer> features;
    const fs::path folder = host::Root() / host::FEATURES;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        const bool isValue = !entry->path().filename().string().starts_with('.');
        if (isValue && entry->is_regular_file(ignored)) {
            const std::string key = entry->path().lexically_relative(folder);
            features[key] = ReadFeature(host::KeyValue(host::FEATURES, key));
        }
    }
    return features;
}

bool IsMultiviewOn() {
    return HasFeature(host::MULTIVIEW_FEATURE) && ReadMultiviewInfo()["mode"] == "on";
}

bool IsDone(const char* event) {
    bool isDone = false;
    return !host::Exists(host::EventValue(event), isDone) && isDone;
}

}  // namespace tv
