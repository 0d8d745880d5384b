// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Output.h"

#include <glib.h>
#include <items.h>
#include <json/reader.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "CommandLine.h"
#include "Routes.h"

namespace fs = std::filesystem;

namespace ctl {

namespace {

/** @return nothing if the value is missing, cannot be read, or is not a file */
std::optional<std::string> ReadText(const host::Value& value) {
    const fs::path path = fs::path(TvDirectory()) / value.path;
    std::error_code ignored;
    std::ifstream file(fs::is_regular_file(path, ignored) ? path : fs::path());
    if (!file) {
        return std::nullopt;
    }
    std::string text(std::istreambuf_iterator<char>(file), {});
    g_strstrip(text.data());
    return text.c_str();  // up to the end that g_strstrip() has set
}

std::optional<int> ReadInteger(const host::Value& value) {
    const auto text = ReadText(value);
    return text ? tools::Parsed<int>(*text) : std::nullopt;
}

bool IsMultiviewOn() {
    Json::Value info;
    const auto text = ReadText(host::MULTIVIEW_INFO);
    try {
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        const bool isJson = text && reader->parse(text->data(), text->data() + text->size(), &info, nullptr);
        return isJson && info.isObject() && info["mode"] == "on" &&
               ReadText(host::MULTIVIEW_FEATURE) == "true";
    } catch (const Json::Exception&) {
        return false;  // the text is nested too deeply
    }
}

}  // namespace

std::string TvDirectory() {
    const char* directory = g_getenv("KAVREL_TV_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/kavrel";
}

std::optional<Output> OutputOfTv() {
    const auto focus = IsMultiviewOn() ? ReadInteger(host::FOCUS) : std::nullopt;
    if (const auto route = focus ? ReadInteger(host::ZoneRoute(*focus)) : std::nullopt) {
        return Output{*route, true};
    }
    const auto route = ReadInteger(host::ROUTE);
    return route ? std::optional(Output{*route, false}) : std::nullopt;
}

std::string InWords(const Output& output) {
    const tv::Route* known = tv::FindRoute(output.route);
    const std::string name(tv::NameOfRoute(output.route));
    return name + (known != nullptr ? ", " + std::string(known->words) : "") + " (route " +
           std::to_string(output.route) + ")" + (output.isOfZone ? ", of the zone in focus" : "");
}

void AddTo(Json::Value& object, const std::optional<Output>& output) {
    object["output"] = output ? Json::Value(std::string(tv::NameOfRoute(output->route))) : Json::Value();
    object["route"] = output ? Json::Value(output->route) : Json::Value();
}

}  // namespace ctl
