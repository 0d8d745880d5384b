// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <sound_manager.h>

#include <cerrno>
#include <charconv>
#include <string>

#include "reports.h"
#include "seam.h"

namespace {

constexpr int NO_SUCH_ZONE = static_cast<int>(0xFE6A0004);

host::SingleRegistration speakerRegistration;
host::SingleRegistration zoneRegistration;
host::SingleRegistration muteRegistration;

/** The topic of a registration for the routes of all zones. */
host::Value AnyZoneRoute() {
    return {host::ZONE_ROUTES, host::ANY_INTEGER};
}

int ZoneOf(const host::Change& change) {
    const std::size_t start = std::string(host::ZONE_ROUTES).size() + 1;
    int zone = 0;
    std::from_chars(change.path.data() + start, change.path.data() + change.path.size(), zone);
    return zone;
}

}  // namespace

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    return route != nullptr ? host::Result(host::Read(host::ROUTE, *route)) : host::FailureCode(EINVAL);
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    return host::Result(host::Reports::Get().Set(host::ROUTE, std::to_string(route)));
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    if (route == nullptr) {
        return host::FailureCode(EINVAL);
    }
    return host::HasZone(zone_id) ? host::Result(host::Read(host::ZoneRoute(zone_id), *route)) : NO_SUCH_ZONE;
}

int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id) {
    if (!host::HasZone(zone_id)) {
        return NO_SUCH_ZONE;
    }
    return host::Result(host::Reports::Get().Set(host::ZoneRoute(zone_id), std::to_string(route)));
}

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    if (callback == nullptr) {
        return host::FailureCode(EINVAL);
    }
    return speakerRegistration.Set(
        host::ROUTE, [=](const host::Change& change) { callback(change.Integer(), user_data); });
}

int sound_manager_unset_speaker_changed_cb(void) {
    return speakerRegistration.Clear(host::ROUTE);
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    if (callback == nullptr) {
        return host::FailureCode(EINVAL);
    }
    return zoneRegistration.Set(AnyZoneRoute(), [=](const host::Change& change) {
        callback(change.Integer(), ZoneOf(change), user_data);
    });
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return zoneRegistration.Clear(AnyZoneRoute());
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    if (callback == nullptr) {
        return host::FailureCode(EINVAL);
    }
    return muteRegistration.Set(host::MASTER_MUTE, [=](const host::Change& change) {
        callback(static_cast<unsigned int>(change.Integer()), user_data);
    });
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return muteRegistration.Clear(host::MASTER_MUTE);
}
