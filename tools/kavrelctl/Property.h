// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_PROPERTY_H
#define KAVRELCTL_PROPERTY_H

#include <json/value.h>

#include <array>
#include <string>

#include "KavrelClient.h"

namespace ctl {

/** The properties of the output in use that a client can read. */
enum class Property { VOLUME, MUTE, SUPPORT };

inline constexpr std::array PROPERTIES = {Property::VOLUME, Property::MUTE, Property::SUPPORT};

/** "volume": the key in JSON, and the title in a list. */
const char* NameOf(Property property);
/** The daemon's method that returns the property. */
const char* GetterOf(Property property);

/** "30"; "on"; "read volume (0x0001)"; or the status in words, if it is below 0. */
std::string InWords(Property property, const tools::Reading& reading);
/** Adds the property to a JSON object: its value, or null, and its status. */
void AddTo(Json::Value& object, Property property, const tools::Reading& reading);

}  // namespace ctl

#endif
