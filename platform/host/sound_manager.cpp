// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <sound_manager.h>

#include <cerrno>
#include <charconv>
#include <string>

#include "directory.h"
#include "reports.h"

namespace {

constexpr int NO_SUCH_ZONE = static_cast<int>(0xFE6A0004);

host::Slot speakerSlot;
host::Slot multiviewSlot;
host::Slot muteSlot;

host::Item Route() {
    return {"sound/route", host::Range{}};
}

/** The registration for all zones; the path is that of no value. */
host::Item AnyZoneRoute() {
    return {host::ZONE_ROUTES, host::Range{}};
}

int ZoneOf(const host::Change& change) {
    const std::size_t start = std::string(host::ZONE_ROUTES).size() + 1;
    int zone = 0;
    std::from_chars(change.path.data() + start, change.path.data() + change.path.size(), zone);
    return zone;
}

}  // namespace

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    return route != nullptr ? host::Read(Route(), *route) : host::Failure(EINVAL);
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    return host::Reports::Get().Set(Route(), std::to_string(route));
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    if (route == nullptr)
        return host::Failure(EINVAL);
    return host::HasZone(zone_id) ? host::Read(host::ZoneRoute(zone_id), *route) : NO_SUCH_ZONE;
}

int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id) {
    if (!host::HasZone(zone_id))
        return NO_SUCH_ZONE;
    return host::Reports::Get().Set(host::ZoneRoute(zone_id), std::to_string(route));
}

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    if (callback == nullptr)
        return host::Failure(EINVAL);
    return speakerSlot.Set(Route(),
                           [=](const host::Change& change) { callback(change.Integer(), user_data); });
}

int sound_manager_unset_speaker_changed_cb(void) {
    return speakerSlot.Clear(Route());
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    if (callback == nullptr)
        return host::Failure(EINVAL);
    return multiviewSlot.Set(AnyZoneRoute(), [=](const host::Change& change) {
        callback(change.Integer(), ZoneOf(change), user_data);
    });
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return multiviewSlot.Clear(AnyZoneRoute());
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    if (callback == nullptr)
        return host::Failure(EINVAL);
    return muteSlot.Set(host::MasterMute(), [=](const host::Change& change) {
        callback(static_cast<unsigned int>(change.Integer()), user_data);
    });
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return muteSlot.Clear(host::MasterMute());
}
