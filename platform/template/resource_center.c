// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, no zone of multi-view changes its output or gets the focus. */
#include <resource_center.h>

#include "not_there.h"

int rc_get_zone_list(rc_zone_list_h* list) {
    (void)list;
    return NOT_THERE;
}

int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone) {
    (void)list;
    (void)zone;
    return NOT_THERE;
}

int rc_get_zone_id(rc_zone_h zone, int* zone_id) {
    (void)zone;
    (void)zone_id;
    return NOT_THERE;
}

int rc_free_zone_list(rc_zone_list_h list) {
    (void)list;
    return NOT_THERE;
}

int rc_get_audio_focus(int* zone_id) {
    (void)zone_id;
    return NOT_THERE;
}

int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    (void)callback;
    (void)user_data;
    return 0; /* the failure code of this call; an id is above 0 */
}

int rc_unregister_audio_focus_changed_callback(int callback_id) {
    (void)callback_id;
    return NOT_THERE;
}
