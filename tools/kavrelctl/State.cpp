// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "State.h"

#include <algorithm>

namespace ctl {

namespace {

Json::Value InJson(Item item, int value) {
    return item == Item::MUTE ? Json::Value(value != 0) : Json::Value(value);
}

}  // namespace

const ItemInfo& InfoOf(Item item) {
    return *std::find_if(ITEMS.begin(), ITEMS.end(), [=](const auto& info) { return info.item == item; });
}

std::string InWords(Item item, const tools::Reading& reading) {
    if (reading.status < 0) {
        return tools::StatusInWords(reading.status);
    }
    switch (item) {
        case Item::MUTE:
            return reading.value != 0 ? "on" : "off";
        case Item::SUPPORT:
            return tools::SupportInWords(reading.value);
        default:
            return std::to_string(reading.value);
    }
}

void AddTo(Json::Value& object, Item item, const tools::Reading& reading) {
    const std::string name = InfoOf(item).name;
    const bool isKnown = reading.status >= 0;
    object[name] = isKnown ? InJson(item, reading.value) : Json::Value();
    object[name + "_status"] = reading.status;
    if (item == Item::SUPPORT) {
        Json::Value& words = object["support_words"] = Json::Value(Json::arrayValue);
        for (const auto& word : tools::SupportWords(isKnown ? reading.value : 0)) {
            words.append(word);
        }
    }
}

}  // namespace ctl
