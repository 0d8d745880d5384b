// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_hal.h>

#include <cerrno>
#include <string>

#include <dlog.h>
#include "directory.h"
#include "reports.h"

namespace {

constexpr host::Range VOLUMES{0, 100};

host::Slot volumeSlot;
host::Slot muteSlot;

host::Item MasterVolume() {
    return {"audio/master_volume", VOLUMES};
}

int Register(host::Slot& slot, const host::Item& item, audio_master_changed_cb callback, void* user_data) {
    if (callback == nullptr)
        return host::Failure(EINVAL);
    return slot.Set(item, [=](const host::Change& change) {
        callback(static_cast<unsigned int>(change.Integer()), user_data);
    });
}

}  // namespace

int audio_get_master_volume(int* volume) {
    return volume != nullptr ? host::Read(MasterVolume(), *volume) : host::Failure(EINVAL);
}

int audio_set_master_volume(int volume, int /*mode*/) {
    if (volume < VOLUMES.min || volume > VOLUMES.max)
        return host::Failure(ERANGE);
    return host::Reports::Get().Set(MasterVolume(), std::to_string(volume));
}

int audio_get_master_mute(bool* mute) {
    int value = 0;
    const int result = mute != nullptr ? host::Read(host::MasterMute(), value) : host::Failure(EINVAL);
    if (result == 0)
        *mute = value == 1;
    return result;
}

int audio_set_master_mute(bool mute) {
    return host::Reports::Get().Set(host::MasterMute(), mute ? "1" : "0");
}

int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Register(volumeSlot, MasterVolume(), callback, user_data);
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Register(muteSlot, host::MasterMute(), callback, user_data);
}

int audio_unregister_master_volume_changed_cb(void) {
    return volumeSlot.Clear(MasterVolume());
}

int audio_unregister_master_mute_changed_cb(void) {
    return muteSlot.Clear(host::MasterMute());
}
