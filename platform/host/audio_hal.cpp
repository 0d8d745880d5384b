// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_hal.h>

#include <cerrno>
#include <string>

#include "reports.h"
#include "seam.h"

namespace {

host::SingleRegistration volumeRegistration;
host::SingleRegistration muteRegistration;

int Register(host::SingleRegistration& registration, const host::Value& value,
             audio_master_changed_cb callback, void* user_data) {
    if (callback == nullptr) {
        return host::FailureCode(EINVAL);
    }
    return registration.Set(value, [=](const host::Change& change) {
        callback(static_cast<unsigned int>(change.Integer()), user_data);
    });
}

}  // namespace

int audio_get_master_volume(int* volume) {
    return volume != nullptr ? host::Result(host::Read(host::MASTER_VOLUME, *volume))
                             : host::FailureCode(EINVAL);
}

int audio_set_master_volume(int volume, int /*mode*/) {
    if (volume < host::PERCENTAGE.min || volume > host::PERCENTAGE.max) {
        return host::FailureCode(ERANGE);
    }
    return host::Result(host::Reports::Get().Set(host::MASTER_VOLUME, std::to_string(volume)));
}

int audio_get_master_mute(bool* mute) {
    int value = 0;
    const int result =
        mute != nullptr ? host::Result(host::Read(host::MASTER_MUTE, value)) : host::FailureCode(EINVAL);
    if (result == 0) {
        *mute = value == 1;
    }
    return result;
}

int audio_set_master_mute(bool mute) {
    return host::Result(host::Reports::Get().Set(host::MASTER_MUTE, mute ? "1" : "0"));
}

int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Register(volumeRegistration, host::MASTER_VOLUME, callback, user_data);
}

int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data) {
    return Register(muteRegistration, host::MASTER_MUTE, callback, user_data);
}

int audio_unregister_master_volume_changed_cb(void) {
    return volumeRegistration.Clear(host::MASTER_VOLUME);
}

int audio_unregister_master_mute_changed_cb(void) {
    return muteRegistration.Clear(host::MASTER_MUTE);
}
