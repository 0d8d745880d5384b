// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "tv.h"

using memory::GetTv;
using memory::Guard;

namespace {

// This TV never splits its screen.
constexpr int NO_SUCH_ZONE = static_cast<int>(0xFE6A0004);

}  // namespace

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    *route = GetTv().route;
    return 0;
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    const Guard guard(GetTv().lock);
    if (GetTv().route.exchange(route) != route) {
        GetTv().routeSlot.Report(route);
    }
    return 0;
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* /*route*/,
                                                               int /*zone_id*/) {
    return NO_SUCH_ZONE;
}

int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e /*route*/,
                                                               int /*zone_id*/) {
    return NO_SUCH_ZONE;
}

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    const Guard guard(GetTv().lock);
    return GetTv().routeSlot.Set(callback, user_data);
}

int sound_manager_unset_speaker_changed_cb(void) {
    const Guard guard(GetTv().lock);
    return GetTv().routeSlot.Clear();
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    const Guard guard(GetTv().lock);
    return GetTv().zoneRouteSlot.Set(callback, user_data);
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    const Guard guard(GetTv().lock);
    return GetTv().zoneRouteSlot.Clear();
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    const Guard guard(GetTv().lock);
    return GetTv().tvMuteSlot.Set(callback, user_data);
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    const Guard guard(GetTv().lock);
    return GetTv().tvMuteSlot.Clear();
}
