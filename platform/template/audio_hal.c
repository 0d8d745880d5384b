// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, volume and mute methods answer NOT_THERE while the TV's own speaker plays. */
#include <audio_hal.h>

#include "not_there.h"

int audio_get_master_volume(int* volume) {
    (void)volume;
    return NOT_THERE;
}

int audio_set_master_volume(int volume, int mode) {
    (void)volume;
    (void)mode;
    return NOT_THERE;
}

int audio_get_master_mute(bool* mute) {
    (void)mute;
    return NOT_THERE;
}

int audio_set_master_mute(bool mute) {
    (void)mute;
    return NOT_THERE;
}

int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int audio_unregister_master_volume_changed_cb(void) {
    return NOT_THERE;
}

int audio_unregister_master_mute_changed_cb(void) {
    return NOT_THERE;
}
