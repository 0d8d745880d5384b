// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Property.h"

namespace ctl {

const char* NameOf(Property property) {
    constexpr const char* NAMES[] = {"volume", "mute", "support"};
    return NAMES[static_cast<int>(property)];
}

const char* GetterOf(Property property) {
    constexpr const char* GETTERS[] = {"GetSpeakerVolume", "GetSpeakerMute", "GetSpeakerSupportType"};
    return GETTERS[static_cast<int>(property)];
}

std::string InWords(Property property, const tools::Reading& reading) {
    if (property == Property::SUPPORT && reading.status == tools::FAILED_OR_BUSY) {
        return "unknown: the output's device has not said, or kavreld is busy (-1)";
    }
    if (reading.status < 0) {
        return tools::StatusInWords(reading.status);
    }
    switch (property) {
        case Property::MUTE:
            return reading.value != 0 ? "on" : "off";
        case Property::SUPPORT:
            return tools::SupportInWords(reading.value);
        default:
            return std::to_string(reading.value);
    }
}

void AddTo(Json::Value& object, Property property, const tools::Reading& reading) {
    const std::string name = NameOf(property);
    const bool isKnown = reading.status >= 0;
    const Json::Value value =
        property == Property::MUTE ? Json::Value(reading.value != 0) : Json::Value(reading.value);
    object[name] = isKnown ? value : Json::Value();
    object[name + "_status"] = reading.status;
    if (property == Property::SUPPORT) {
        Json::Value& words = object["support_words"] = Json::Value(Json::arrayValue);
        for (const auto& word : tools::SupportWords(isKnown ? reading.value : 0)) {
            words.append(word);
        }
    }
}

}  // namespace ctl
