// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "TVSpeaker.h"

#include <audio_hal.h>

namespace NKavrel {
namespace {

constexpr int VOLUME_MODE = 1;
constexpr int SUPPORT_EVERYTHING = 0xFFFF;

/** Whether a HAL call failed. If so, logs `what` and the code as an error of the caller. */
bool Failed(int result, const char* what, const CallSite& site = {}) {
    if (result == 0) {
        return false;
    }
    LOGE_AT(site, "%s %x", what, static_cast<unsigned int>(result));
    return true;
}

}  // namespace

TVSpeaker::TVSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

TVSpeaker::~TVSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    TVSpeaker::UnsetEventHandler();
}

int TVSpeaker::SetVolume(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const int result = audio_set_master_volume(volume, VOLUME_MODE);
    Failed(result, "set master volume error");
    return result;
}

int TVSpeaker::GetVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    int current = 0;
    const int result = audio_get_master_volume(&current);
    if (!Failed(result, "get master volume error")) {
        LOGI("current tv volume [%d]", current);
        volume = current;
    }
    return result;
}

int TVSpeaker::SetVolumeMute(bool mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const int result = audio_set_master_mute(mute);
    Failed(result, "set master mute error");
    return result;
}

int TVSpeaker::GetVolumeMute(bool& mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    bool current = false;
    const int result = audio_get_master_mute(&current);
    if (!Failed(result, "get master mute error")) {
        LOGI("current tv mute [%d]", current);
        mute = current;
    }
    return result;
}

int TVSpeaker::GetVolumeSupportType(int& supportType) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    supportType = SUPPORT_EVERYTHING;
    return 0;
}

void TVSpeaker::SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                                const MuteEventHandler_t& muteHandler) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    StoreHandlers(m_volumeHandler, m_muteHandler, volumeHandler, muteHandler);
}

void TVSpeaker::UnsetEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    ClearHandlers(m_volumeHandler, m_muteHandler);
}

void TVSpeaker::SetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_changedCBRegistered) {
        return;
    }
    if (Failed(audio_register_master_volume_changed_cb(VolumeChangedCallback, this),
               "set volume_changed_cb failed")) {
        return;
    }
    // If this fails, the volume callback stays registered and the next call registers both again.
    if (Failed(audio_register_master_mute_changed_cb(MuteChangedCallback, this),
               "set mute changed_cb failed")) {
        return;
    }
    m_changedCBRegistered = true;
}

void TVSpeaker::UnsetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_changedCBRegistered) {
        return;
    }
    if (Failed(audio_unregister_master_mute_changed_cb(), "unset mute changed_cb failed")) {
        return;
    }
    if (Failed(audio_unregister_master_volume_changed_cb(), "unset volume changed_cb failed")) {
        return;
    }
    m_changedCBRegistered = false;
}

void TVSpeaker::VolumeChangedCallback(unsigned int volume, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    static_cast<TVSpeaker*>(data)->m_volumeHandler(static_cast<int>(volume));
}

void TVSpeaker::MuteChangedCallback(unsigned int mute, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    static_cast<TVSpeaker*>(data)->m_muteHandler(static_cast<int>(mute));
}

}  // namespace NKavrel
