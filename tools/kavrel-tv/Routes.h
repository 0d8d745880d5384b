// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV's outputs: the platform's route codes, and the names by which a person calls them. */
#ifndef KAVREL_TV_ROUTES_H
#define KAVREL_TV_ROUTES_H

#include <span>
#include <string>
#include <string_view>

namespace tv {

/** An external output's own component, and the settings in which it publishes its state. */
struct DeviceKind {
    std::string_view name;
    const char* supportKey;  // what it can do: the sum of 1 read volume, 2 set it, 4 read mute, 8 set it
    const char* levelKey;
    const char* muteKey;  // 0 or 1
};

/** The settings in which all external outputs, the USB one too, find what they are asked for. */
inline constexpr const char* LEVEL_REQUEST_KEY = "memory/menu/network/screenmirroring/set_volume_level";
inline constexpr const char* MUTE_REQUEST_KEY = "memory/menu/network/screenmirroring/set_volume_mute";

struct Route {
    int code;
    std::string_view name;
    std::string_view words;
    const DeviceKind* device;  // null: the TV's own speaker, or nothing that has a volume
};

/** Ascending by code, with the codes 0 to 19. */
std::span<const Route> Routes();

std::span<const DeviceKind* const> DeviceKinds();

/** Null for a code or name without an entry. */
const Route* FindRoute(int code);
const Route* FindRoute(std::string_view name);

/** The code that a person means by a name or a number; any number may be one.
 *  @throws UsageError */
int RouteIn(const std::string& text);

/** "unknown" for a code without an entry. */
std::string_view NameOfRoute(int code);

}  // namespace tv

#endif
