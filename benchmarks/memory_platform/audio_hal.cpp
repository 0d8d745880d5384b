// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "tv.h"

using memory::GetTv;
using memory::Guard;

int audio_get_master_volume(int* volume) {
    *volume = GetTv().volume;
    return 0;
}

int audio_set_master_volume(int volume, int /*mode*/) {
    if (volume < 0 || volume > 100) {
        return memory::FAILURE;
    }
    const Guard guard(GetTv().lock);
    if (GetTv().volume.exchange(volume) != volume) {
        GetTv().volumeSlot.Report(static_cast<unsigned int>(volume));
    }
    return 0;
}

int audio_get_master_mute(bool* mute) {
    *mute = GetTv().mute;
    return 0;
}

int audio_set_master_mute(bool mute) {
    const Guard guard(GetTv().lock);
    if (GetTv().mute.exchange(mute) != mute) {
        GetTv().muteSlot.Report(mute ? 1U : 0U);
        GetTv().tvMuteSlot.Report(mute ? 1U : 0U);
    }
    return 0;
}

int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    const Guard guard(GetTv().lock);
    return GetTv().volumeSlot.Set(callback, user_data);
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    const Guard guard(GetTv().lock);
    return GetTv().muteSlot.Set(callback, user_data);
}

int audio_unregister_master_volume_changed_cb(void) {
    const Guard guard(GetTv().lock);
    return GetTv().volumeSlot.Clear();
}

int audio_unregister_master_mute_changed_cb(void) {
    const Guard guard(GetTv().lock);
    return GetTv().muteSlot.Clear();
}
