// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_STATE_H
#define KAVRELCTL_STATE_H

#include <json/value.h>

#include <array>
#include <string>

#include "KavrelClient.h"

namespace ctl {

/** What the daemon tells of the output in use. */
enum class Item { VOLUME, MUTE, SUPPORT };

struct ItemInfo {
    Item item;
    /** Key in JSON, and title in a list. */
    const char* name;
    /** Method of the daemon that answers it. */
    const char* getter;
};

inline constexpr std::array<ItemInfo, 3> ITEMS = {{
    {Item::VOLUME, "volume", "GetSpeakerVolume"},
    {Item::MUTE, "mute", "GetSpeakerMute"},
    {Item::SUPPORT, "support", "GetSpeakerSupportType"},
}};

const ItemInfo& InfoOf(Item item);

/** "30"; "on"; "read volume (0x0001)"; or the status in words, if that is below 0. */
std::string InWords(Item item, const tools::Reading& reading);
/** Adds the item to a JSON object: its value, or null, and its status. */
void AddTo(Json::Value& object, Item item, const tools::Reading& reading);

}  // namespace ctl

#endif
