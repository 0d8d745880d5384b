// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, kavreld takes the sound to come from the TV's own speaker, and follows no change of output. */
#include <sound_manager.h>

#include "not_there.h"

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route) {
    (void)route;
    return NOT_THERE;
}

int sound_manager_set_speaker_selection(sound_tv_output_route_e route) {
    (void)route;
    return NOT_THERE;
}

int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id) {
    (void)route;
    (void)zone_id;
    return NOT_THERE;
}

int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id) {
    (void)route;
    (void)zone_id;
    return NOT_THERE;
}

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data) {
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int sound_manager_unset_speaker_changed_cb(void) {
    return NOT_THERE;
}

int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data) {
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int sound_manager_unset_multiview_speaker_selection_changed_cb(void) {
    return NOT_THERE;
}

int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data) {
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int sound_manager_unset_tv_master_mute_changed_cb(void) {
    return NOT_THERE;
}
