// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "tv.h"

using memory::GetTv;
using memory::Guard;

// This TV never splits its screen: there are no zones, and none has the focus.

struct _rc_zone_list {};

int rc_get_zone_list(rc_zone_list_h* list) {
    static _rc_zone_list empty;
    *list = &empty;
    return 0;
}

int rc_get_next_zone(rc_zone_list_h /*list*/, rc_zone_h* /*zone*/) {
    return memory::FAILURE;
}

int rc_get_zone_id(rc_zone_h /*zone*/, int* /*zone_id*/) {
    return memory::FAILURE;
}

int rc_free_zone_list(rc_zone_list_h /*list*/) {
    return 0;
}

int rc_get_audio_focus(int* /*zone_id*/) {
    return memory::FAILURE;
}

int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    const Guard guard(GetTv().lock);
    auto& slots = GetTv().focusSlots;
    const int id = slots.empty() ? 1 : slots.rbegin()->first + 1;
    slots[id] = {callback, user_data};
    return id;
}

int rc_unregister_audio_focus_changed_callback(int callback_id) {
    const Guard guard(GetTv().lock);
    return GetTv().focusSlots.erase(callback_id) == 1 ? 0 : memory::FAILURE;
}
