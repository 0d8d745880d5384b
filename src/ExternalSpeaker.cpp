// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ExternalSpeaker.h"

#include "KVDefine.h"
#include "KVUtils.h"

namespace NKavrel {
namespace {

using KVDefine::FAILED;
using KVDefine::NOT_SUPPORTED;
using KVDefine::SCREEN_MIRRORING;

constexpr const char* SUPPORT_UNREADABLE = "Failed to get volume support status";

int Refuse(const char* operation, int supportFlags, const CallSite& site = {}) {
    LOGE_AT(site, "%s is not supported. 0x%04x", operation, static_cast<unsigned int>(supportFlags));
    return NOT_SUPPORTED;
}

/** Returns the result of a step. Logs `failure` as an error of the caller if the step failed. */
bool Succeeded(bool result, const char* failure, const CallSite& site = {}) {
    if (!result) {
        LOGE_AT(site, "%s", failure);
    }
    return result;
}

}  // namespace

ExternalSpeaker::ExternalSpeaker(const std::string& supportKey, const std::string& volumeLevelKey,
                                 const std::string& volumeMuteKey)
    : m_supportKey(supportKey),
      m_volumeLevelKey(volumeLevelKey),
      m_volumeMuteKey(volumeMuteKey),
      m_setVolumeLevelKey(SCREEN_MIRRORING + "set_volume_level"),
      m_setVolumeMuteKey(SCREEN_MIRRORING + "set_volume_mute") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

ExternalSpeaker::ExternalSpeaker(const std::string& device)
    : ExternalSpeaker(SCREEN_MIRRORING + "volume_support_" + device,
                      SCREEN_MIRRORING + "get_volume_level_" + device,
                      SCREEN_MIRRORING + "get_volume_mute_" + device) {}

ExternalSpeaker::~ExternalSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    ExternalSpeaker::UnsetEventHandler();
}

int ExternalSpeaker::SetVolume(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_SET_VOLUME)) {
        return Refuse("SET VOLUME", m_supportFlags);
    }
    const bool done = KVUtils::VconfSetInt(m_setVolumeLevelKey.c_str(), volume);
    return Succeeded(done, "Failed to set volume") ? 0 : FAILED;
}

int ExternalSpeaker::GetVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_GET_VOLUME)) {
        return Refuse("GET VOLUME", m_supportFlags);
    }
    int current = 0;
    if (!Succeeded(KVUtils::VconfGetInt(m_volumeLevelKey.c_str(), current), "Failed to get volume")) {
        return FAILED;
    }
    LOGI("current Ext Speaker volume [%d]", current);
    volume = current;
    return 0;
}

int ExternalSpeaker::SetVolumeMute(bool mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_SET_MUTE)) {
        return Refuse("SET MUTE", m_supportFlags);
    }
    const bool done = KVUtils::VconfSetInt(m_setVolumeMuteKey.c_str(), mute ? 1 : 0);
    return Succeeded(done, "Failed to set mute") ? 0 : FAILED;
}

int ExternalSpeaker::GetVolumeMute(bool& mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_GET_MUTE)) {
        return Refuse("GET MUTE", m_supportFlags);
    }
    int current = 0;
    if (!Succeeded(KVUtils::VconfGetInt(m_volumeMuteKey.c_str(), current), "Failed to get mute")) {
        return FAILED;
    }
    LOGI("current mute [%d]", current);
    mute = current != 0;
    return 0;
}

int ExternalSpeaker::GetVolumeSupportType(int& supportType) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    int flags = 0;
    if (!Succeeded(KVUtils::VconfGetInt(m_supportKey.c_str(), flags), SUPPORT_UNREADABLE)) {
        return FAILED;
    }
    m_supportFlags = flags;
    supportType = flags;
    LOGI("current spk support [0x%04x]", static_cast<unsigned int>(flags));
    return 0;
}

void ExternalSpeaker::SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                                      const MuteEventHandler_t& muteHandler) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    StoreHandlers(m_volumeHandler, m_muteHandler, volumeHandler, muteHandler);
}

void ExternalSpeaker::UnsetEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    ClearHandlers(m_volumeHandler, m_muteHandler);
}

void ExternalSpeaker::SetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_changedCBRegistered) {
        return;
    }
    const auto watch = [this](const std::string& key) {
        return KVUtils::RegisterVconfChangedCb(key.c_str(), OnVolumeControlChanged, this);
    };
    // A failing step leaves the registrations before it in place.
    if (Succeeded(watch(m_volumeLevelKey), "get_volume_level callback set failed") &&
        Succeeded(watch(m_volumeMuteKey), "get_volume_mute callback set failed") &&
        Succeeded(watch(m_supportKey), "get_volume_support callback set failed")) {
        m_changedCBRegistered = true;
    }
}

void ExternalSpeaker::UnsetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_changedCBRegistered) {
        return;
    }
    const auto ignore = [](const std::string& key) {
        return KVUtils::DeregisterVconfChangedCb(key.c_str(), OnVolumeControlChanged);
    };
    // The support key shares the mute key's text.
    if (Succeeded(ignore(m_supportKey), "get_volume_mute callback unset failed") &&
        Succeeded(ignore(m_volumeMuteKey), "get_volume_mute callback unset failed") &&
        Succeeded(ignore(m_volumeLevelKey), "get_volume_level callback unset failed")) {
        m_changedCBRegistered = false;
    }
}

bool ExternalSpeaker::CheckSupport(int flag) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_supportFlags == 0) {
        int flags = 0;
        if (!Succeeded(KVUtils::VconfGetInt(m_supportKey.c_str(), flags), SUPPORT_UNREADABLE)) {
            return false;
        }
        m_supportFlags = flags;
    }
    return (flag & ~m_supportFlags) == 0;
}

void ExternalSpeaker::OnVolumeControlChanged(keynode_t* keyNode, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(keyNode, "keyNode is NULL") || IsNull(data, "data is NULL")) {
        return;
    }
    const char* keyName = vconf_keynode_get_name(keyNode);
    const std::string name = keyName != nullptr ? keyName : "";
    if (name.empty()) {
        LOGE("Failed to get keyName");
        return;
    }
    const int value = vconf_keynode_get_int(keyNode);
    LOGI("KeyName:%s val:%d", name.c_str(), value);

    auto* speaker = static_cast<ExternalSpeaker*>(data);
    if (name == speaker->m_volumeLevelKey) {
        speaker->m_volumeHandler(value);
    } else if (name == speaker->m_volumeMuteKey) {
        speaker->m_muteHandler(value);
    } else if (name == speaker->m_supportKey) {
        LOGI("Volume support flag changed 0x%04x to 0x%04x",
             static_cast<unsigned int>(speaker->m_supportFlags), static_cast<unsigned int>(value));
        speaker->m_supportFlags = value;
    } else {
        LOGE("Wrong key:%s", name.c_str());
    }
}

HDMISpeaker::HDMISpeaker() : ExternalSpeaker("hdmi") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

HDMISpeaker::~HDMISpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

OpticalSpeaker::OpticalSpeaker() : ExternalSpeaker("optical") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

OpticalSpeaker::~OpticalSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

WifiSpeaker::WifiSpeaker() : ExternalSpeaker("mlr") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

WifiSpeaker::~WifiSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

USBSpeaker::USBSpeaker()
    : ExternalSpeaker("db/usbsound/volume_capability", "db/usbsound/volume_level",
                      "db/usbsound/volume_mute_status") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

USBSpeaker::~USBSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

BTSpeaker::BTSpeaker() : ExternalSpeaker(BT_DEVICE) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

BTSpeaker::~BTSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

AuracastSpeaker::AuracastSpeaker() : ExternalSpeaker("auracast") {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

AuracastSpeaker::~AuracastSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

}  // namespace NKavrel
