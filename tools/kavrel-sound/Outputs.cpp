// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Outputs.h"

#include <algorithm>

#include "CommandLine.h"
#include "Print.h"

namespace sound {

namespace {

constexpr int TV_SPEAKER = 0;

std::string CheckSink(const std::string& name) {
    if (name.empty()) {
        return "the name of a sink is missing";
    }
    return name == KAVREL_SINK ? tools::Quoted(name) + " is the sink that programs play to, not an output"
                               : "";
}

std::string CheckOutput(std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        return tools::Quoted(text) + " is not ROUTE=SINK, such as hdmi=NAME";
    }
    std::string route = text.substr(0, equals);
    const std::string sink = text.substr(equals + 1);
    if (std::string error = tv::RouteCode()(route); !error.empty()) {
        return error;
    }
    text = route + "=" + sink;
    return CheckSink(sink);
}

bool AreOfOneKind(const tv::Route& first, const tv::Route& second) {
    return first.device == second.device && first.hasVolume && second.hasVolume;
}

}  // namespace

CLI::Validator OutputOption() {
    return {CheckOutput, ""};
}

CLI::Validator SinkOption() {
    return {[](const std::string& name) { return CheckSink(name); }, ""};
}

Outputs::Outputs(const std::vector<std::string>& options) {
    for (const std::string& option : options) {
        const std::size_t equals = option.find('=');
        m_named[tools::Parsed<int>(option.substr(0, equals)).value()] = option.substr(equals + 1);
    }
}

Choice Outputs::ChoiceOf(int route, const std::string& defaultSink) const {
    if (const auto named = m_named.find(route); named != m_named.end()) {
        return {named->second, "--output"};
    }
    const tv::Route* const known = tv::FindRoute(route);
    if (known == nullptr) {
        return {"", "unknown route"};
    }
    if (!known->hasVolume) {
        return {"", "no sink is named for it"};
    }
    if (known->device == nullptr) {
        const auto named = m_named.find(TV_SPEAKER);
        return named != m_named.end() ? Choice{named->second, "as the TV speaker"}
                                      : Choice{defaultSink, "the default sink"};
    }
    const auto same = std::find_if(m_named.begin(), m_named.end(), [&](const auto& entry) {
        return AreOfOneKind(*known, *tv::FindRoute(entry.first));
    });
    return same != m_named.end() ? Choice{same->second, "as " + tv::NameOrCodeOfRoute(same->first)}
                                 : Choice{"", "no sink is named for it"};
}

Choice Outputs::ChoiceOfKind(const tv::DeviceKind* device, std::optional<int> inUse,
                             const std::string& defaultSink) const {
    const tv::Route* const used = inUse ? tv::FindRoute(*inUse) : nullptr;
    if (used != nullptr && used->device == device && used->hasVolume) {
        return ChoiceOf(*inUse, defaultSink);
    }
    const auto routes = tv::Routes();
    const auto first = std::find_if(routes.begin(), routes.end(), [device](const tv::Route& route) {
        return route.device == device && route.hasVolume;
    });
    return ChoiceOf(first->code, defaultSink);
}

}  // namespace sound
