// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV's outputs: the platform's route codes, and their names in this tool. */
#ifndef KAVREL_TOOLS_TV_ROUTES_H
#define KAVREL_TOOLS_TV_ROUTES_H

#include <items.h>

#include <CLI/App.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tv {

/** The component behind an external output, and the settings in which it publishes its state. */
struct DeviceKind {
    std::string_view name;
    host::Value support;  // what it can do: the sum of 1 read volume, 2 set volume, 4 read mute, 8 set mute
    host::Value level;
    host::Value mute;  // 0 or 1
};

struct Route {
    int code;
    std::string_view name;
    std::string_view words;
    const DeviceKind* device;  // null for an output that is not external
    bool hasVolume = true;
};

/** The codes 0 to 19, ascending. */
std::span<const Route> Routes();

std::span<const DeviceKind> DeviceKinds();

/** @return null for a code without an entry */
const Route* FindRoute(int code);

/** Accepts the code or the name of an entry, and makes it the code. */
CLI::Validator RouteCode();

/** @return "unknown" for a code without an entry */
std::string_view NameOfRoute(int code);
std::string NameOrCodeOfRoute(int code);
/** @return nothing for a name without an entry */
std::optional<int> CodeOfRoute(std::string_view name);

/** The values that hold an output's level and mute: the TV's own ones, or those that its device publishes. */
struct VolumeValues {
    host::Value level;
    host::Value mute;
};

/** @return nothing for an output without volume control */
std::optional<VolumeValues> VolumeOf(const Route& route);

}  // namespace tv

#endif
