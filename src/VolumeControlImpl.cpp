// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "VolumeControlImpl.h"

#include <json/value.h>
#include <resource_center.h>
#include <system_info.h>

#include "KVDefine.h"
#include "KVUtils.h"
#include "Routes.h"

namespace NKavrel {
namespace {

using KVDefine::FAILED;
using KVDefine::INVALID_ARGUMENT;
using KVDefine::NO_ZONE;

constexpr int VOLUME_MAX = 100;

/** The sound manager's answer for a zone if multi-view has ended. */
constexpr int MULTIVIEW_TERMINATED = static_cast<int>(0xFE6A0004U);

/** Locks without waiting. Logs `busyText` as an error of the caller if another thread holds the mutex. */
bool TryLock(KVRecursiveMutex& mutex, const char* busyText, const CallSite& site = {})
    KV_TRY_ACQUIRE(true, mutex) {
    if (mutex.try_lock()) {
        return true;
    }
    LOGE_AT(site, "%s", busyText);
    return false;
}

bool IsNodeOrDataNull(const keynode_t* node, const void* data, const CallSite& site = {}) {
    return IsNull(node, "pKeyNode is NULL", site) || IsNull(data, "data is NULL", site);
}

/** Reads the value of a reported setting. @return false, after an error line of the caller, if it is negative */
bool ReadStatus(keynode_t* node, const std::string& key, int& value, const CallSite& site = {}) {
    value = vconf_keynode_get_int(node);
    if (value < 0) {
        LOGE_AT(site, "get vconf %s error", key.c_str());
        return false;
    }
    return true;
}

/** The multi-view mode in the platform's JSON text; "error" if the text is not as expected. */
std::string ParseMode(const std::string& info) {
    try {
        return KVUtils::ParseJsonVal(info, "mode");
    } catch (const Json::Exception&) {
        return "error";
    }
}

struct ZoneListDeleter {
    void operator()(rc_zone_list_h list) const { rc_free_zone_list(list); }
};
using ZoneList = std::unique_ptr<_rc_zone_list, ZoneListDeleter>;

/** Null if the platform has no list, which means no zones. */
ZoneList GetZoneList() {
    rc_zone_list_h list = nullptr;
    return ZoneList(rc_get_zone_list(&list) == 0 ? list : nullptr);
}

bool NextZone(const ZoneList& list, rc_zone_h& zone) {
    return list != nullptr && rc_get_next_zone(list.get(), &zone) == 0;
}

}  // namespace

VolumeControlImpl::VolumeControlImpl() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    // The platform may report from the first registration on. The lock refuses such reports until the first
    // speaker exists, so that none meets a half-made object.
    std::unique_lock<KVRecursiveMutex> lock(m_mutex);
    try {
        _InitSoundCallback();
        _InitMSViewSoundCallback();
        m_defaultSpeaker = KVUtils::GetDefaultSpeaker();
        m_speakerSelection = m_defaultSpeaker.load();
        m_prevSpeakerSelection = m_defaultSpeaker.load();
        _CreateSpeaker(_GetOutputRoute());
        lock.unlock();

        m_gainHandler = std::make_unique<KVAudioGainHandler>();
        m_readyGainHandler = m_gainHandler.get();
    } catch (...) {
        if (!lock) {
            lock.lock();
        }
        m_gainHandler.reset();
        m_speaker.reset();
        m_eventHandlers.clear();
        throw;
    }
}

VolumeControlImpl::~VolumeControlImpl() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const KVLockGuard lock(m_mutex);
    UnsetEventHandler();
    _DeInitMSViewSoundCallback();
    _DeInitSoundCallback();
    _DestroySpeaker();
    m_readyGainHandler = nullptr;
    m_gainHandler.reset();
}

void VolumeControlImpl::SetEventHandler(const std::string& name, const VolumeEventHandler& handler) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "mutex lock failed")) {
        return;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    if (!m_eventHandlers.emplace(name, handler).second) {
        LOGE("Already set %s event handler", name.c_str());
    }
}

void VolumeControlImpl::UnsetEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "mutex lock failed")) {
        return;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    m_eventHandlers.clear();
}

std::unique_lock<std::recursive_mutex> VolumeControlImpl::WaitForLock() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return std::unique_lock<std::recursive_mutex>(m_mutex);
}

int VolumeControlImpl::GetVolumeSupport(int& type) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "owns_lock")) {
        return FAILED;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    return _GetCurrentSpeaker()->GetVolumeSupportType(type);
}

int VolumeControlImpl::GetTVVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "owns_lock")) {
        return FAILED;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    return _GetCurrentSpeaker()->GetVolume(volume);
}

int VolumeControlImpl::SetTVVolume(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (volume > VOLUME_MAX) {
        LOGE("invalid param SetTVVolume");
        return INVALID_ARGUMENT;
    }
    if (!TryLock(m_mutex, "owns_lock")) {
        return FAILED;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    if (m_mute) {
        LOGI("SetTvVolumeMute to false");
        _SetGainOnMute(KVDefine::GAIN_MAX);
        const int result = _GetCurrentSpeaker()->SetVolumeMute(false);
        if (result < 0) {
            return result;
        }
    }
    LOGI("Set vol %d->%d.", m_volume, volume);
    return _GetCurrentSpeaker()->SetVolume(volume);
}

int VolumeControlImpl::GetTVVolumeMute(bool& mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "owns_lock")) {
        return FAILED;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    return _GetCurrentSpeaker()->GetVolumeMute(mute);
}

int VolumeControlImpl::SetTVVolumeMute(bool mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "owns_lock")) {
        return FAILED;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    _ApplyUnmuteFadeIn(mute);
    return _GetCurrentSpeaker()->SetVolumeMute(mute);
}

// The two operations below set the interruptible flag oppositely on purpose: nothing interrupts a fade-in that
// was just requested, but a gain change may end a running one.
int VolumeControlImpl::ApplyVolumeFadeIn(KVDefine::eKVGainSrcType src, int value) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    KVAudioGainHandler* gainHandler = m_readyGainHandler;
    if (gainHandler == nullptr) {
        return FAILED;
    }
    if (!_IsFadeInAvailable(src)) {
        return 0;
    }
    if (src == KVDefine::GAIN_SRC_UNMUTE) {
        if (m_tv2MobileStatus != 0) {
            return 0;
        }
        gainHandler->SetFadeInInterruptable(false);
        bool mute = false;  // unmuted if it cannot be read
        GetTVVolumeMute(mute);
        if (!mute) {
            LOGW("UnMute State, Recover gain instead of FadeIn");
            return gainHandler->ApplyAudioGain(src, KVDefine::GAIN_MAX, value);
        }
    }
    return gainHandler->ApplyVolumeFadeIn(src, value);
}

int VolumeControlImpl::ApplyAudioGain(KVDefine::eKVGainSrcType src, int gain, int value, bool force) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    KVAudioGainHandler* gainHandler = m_readyGainHandler;
    if (gainHandler == nullptr) {
        return FAILED;
    }
    if (!force && !_IsFadeInAvailable(src)) {
        return 0;
    }
    if (src == KVDefine::GAIN_SRC_UNMUTE) {
        if (m_tv2MobileStatus != 0) {
            return 0;
        }
        gainHandler->SetFadeInInterruptable(true);
    }
    return gainHandler->ApplyAudioGain(src, gain, value);
}

int VolumeControlImpl::ApplyPulseAudioGain(int a, int b) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    KVAudioGainHandler* gainHandler = m_readyGainHandler;
    return gainHandler != nullptr ? gainHandler->ApplyPulseAudioGain(a, b) : FAILED;
}

bool VolumeControlImpl::GetMuteOnSpkChanged() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return m_muteOnSpkChanged;
}

void VolumeControlImpl::SetMuteOnSpkChanged(bool mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_muteOnSpkChanged = mute;
}

int VolumeControlImpl::GetSpeakerSelection() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return m_speakerSelection;
}

int VolumeControlImpl::GetPrevSpeakerSelection() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return m_prevSpeakerSelection;
}

void VolumeControlImpl::SetOutputRoute(sound_tv_output_route_e route) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_msviewModeOn) {
        sound_manager_set_speaker_selection(route);
    } else {
        const ZoneList zones = GetZoneList();
        const int subBTZone = KVUtils::GetSubBTZoneID();
        rc_zone_h zone = nullptr;
        while (NextZone(zones, zone)) {
            int id = NO_ZONE;
            if (rc_get_zone_id(zone, &id) < 0) {
                continue;
            }
            if (subBTZone != NO_ZONE && subBTZone == id) {
                LOGI("[Zone:%2d] SubBT is connected. Skip current zone", id);
                continue;
            }
            const int result = sound_manager_set_multiview_speaker_selection_with_zone_id(route, id);
            LOGI("[Zone:%2d] Speaker Output(%d). ret:%d", id, route, result);
        }
    }
    LOGI("Set Speaker Output(%d)", route);
}

void VolumeControlImpl::SpeakerChangedCallback(sound_tv_output_route_e route, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    auto* self = static_cast<VolumeControlImpl*>(data);
    if (!TryLock(self->m_mutex, "owns_lock")) {
        return;
    }
    const KVLockGuard lock(self->m_mutex, std::adopt_lock);
    LOGI("Type(%d->%d)", self->m_speakerSelection.load(), route);
    if (route != self->m_speakerSelection) {
        self->_ReplaceSpeaker(route, 0);
    }
}

void VolumeControlImpl::SpdifChangedCallback(keynode_t* node, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    int connected = 0;
    if (IsNodeOrDataNull(node, data) || !ReadStatus(node, KVDefine::SPDIF_KEY, connected)) {
        return;
    }
    if (connected != 0) {
        return;
    }
    auto* self = static_cast<VolumeControlImpl*>(data);
    const int defaultSpeaker = self->m_defaultSpeaker;
    const int route = self->_GetOutputRoute();
    LOGI("Spdif cable is disconnected. route:%d", route);

    if (self->m_msviewModeOn) {
        int focusedZone = NO_ZONE;
        rc_get_audio_focus(&focusedZone);
        const int subBTZone = KVUtils::GetSubBTZoneID();
        if (subBTZone != NO_ZONE && subBTZone == focusedZone) {
            // Read it first: setting the route may make the platform report the change on this thread.
            const int previous = self->m_prevSpeakerSelection;
            if (KVUtils::IsSpdifSpkType(previous)) {
                self->SetOutputRoute(defaultSpeaker);
                LOGI("Prev:%d->%d", previous, defaultSpeaker);
                self->m_prevSpeakerSelection = defaultSpeaker;
            } else {
                LOGE("Skip. Prev:%d", previous);
            }
            return;
        }
    }
    if (KVUtils::IsSpdifSpkType(route)) {
        self->SetOutputRoute(defaultSpeaker);
        return;
    }
    const int previous = self->m_prevSpeakerSelection;
    LOGI("Skip. Curr:%d Prev:%d", route, previous);
    if (KVUtils::IsSpdifSpkType(previous)) {
        // This keeps a later request from selecting the unplugged output again.
        LOGI("Prev:%d->%d", previous, defaultSpeaker);
        self->m_prevSpeakerSelection = defaultSpeaker;
    }
}

void VolumeControlImpl::Tv2MobileChangedCallback(keynode_t* node, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    int status = 0;
    if (IsNodeOrDataNull(node, data) || !ReadStatus(node, KVDefine::TV2MOBILE_KEY, status)) {
        return;
    }
    auto* self = static_cast<VolumeControlImpl*>(data);
    LOGE("TV To Mobile %sable", status != 0 ? "En" : "Dis");
    if (status != 0) {
        // The new status is stored later, because it would make the gain operation do nothing.
        self->ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, KVDefine::GAIN_MAX, KVDefine::AUDIO_PATH_BOTH, false);
    }
    self->m_tv2MobileStatus = status;
}

void VolumeControlImpl::MSViewModeChangedCallback(keynode_t* node, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNodeOrDataNull(node, data)) {
        return;
    }
    const char* info = vconf_keynode_get_str(node);
    if (IsNull(info, "Failed to vconf_keynode_get_str")) {
        return;
    }
    const std::string mode = ParseMode(info);
    LOGI("MSmode:%s", mode.c_str());

    auto* self = static_cast<VolumeControlImpl*>(data);
    if (!TryLock(self->m_mutex, "owns_lock")) {
        return;
    }
    const KVLockGuard lock(self->m_mutex, std::adopt_lock);
    // The speaker stays: the platform reports the route change that follows a mode change.
    if (mode == "on") {
        self->m_msviewModeOn = true;
        int zone = 0;
        const int result = rc_get_audio_focus(&zone);
        if (result == 0) {
            self->m_zoneId = zone;
            LOGI("zoneId:%d", zone);
        } else {
            LOGE("Failed to get zoneID. ret:%d", result);
        }
        return;
    }
    self->m_msviewModeOn = false;
    self->m_zoneId = 0;
    const int route = self->GetSpeakerSelection();
    if (route == BT_ROUTE || route == BT_BUDS_ROUTE) {
        self->ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, KVDefine::GAIN_MAX, KVDefine::AUDIO_PATH_BOTH, false);
        LOGI("View mode changed. Recover gain");
    }
}

void VolumeControlImpl::MSViewSpeakerChangedCallback(sound_tv_output_route_e route, int zone, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    auto* self = static_cast<VolumeControlImpl*>(data);
    if (!TryLock(self->m_mutex, "owns_lock")) {
        return;
    }
    const KVLockGuard lock(self->m_mutex, std::adopt_lock);
    LOGI("Zone:%d Type(%d->%d)", zone, self->m_speakerSelection.load(), route);
    if (route == self->m_speakerSelection) {
        return;
    }
    const int focusedZone = self->m_zoneId;
    if (focusedZone > 0 && focusedZone != zone) {
        LOGI("Focus:%d Speaker Changed. not for %d", focusedZone, zone);
        return;
    }
    self->_ReplaceSpeaker(route, zone);
}

void VolumeControlImpl::FocusChangedCallback(int zone, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    auto* self = static_cast<VolumeControlImpl*>(data);
    if (!self->m_msviewModeOn) {
        LOGE("For single view. not this cb");
        return;
    }
    if (!TryLock(self->m_mutex, "mutex lock failed")) {
        return;
    }
    const KVLockGuard lock(self->m_mutex, std::adopt_lock);
    LOGI("Focus (%d->%d)", self->m_zoneId.load(), zone);
    self->m_zoneId = zone;
    const int route = self->_GetOutputRoute();
    if (route != self->m_speakerSelection) {
        // Unlike a route change, a focus change notifies no listener and keeps the previous route.
        self->_DestroySpeaker();
        self->_CreateSpeaker(route);
    }
}

std::unique_ptr<ISpeaker>& VolumeControlImpl::_GetCurrentSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_speaker == nullptr) {
        _CreateSpeaker(_GetOutputRoute());
    }
    return m_speaker;
}

void VolumeControlImpl::_CreateSpeaker(int route) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_speaker.reset(ISpeaker::CreateSpeaker(route));
    m_speakerSelection = route;
    _SetSpeakerEventHandler();
}

void VolumeControlImpl::_DestroySpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_speaker == nullptr) {
        return;
    }
    m_speaker->UnsetEventHandler();
    m_speaker->UnsetChangedCB();
    m_speaker.reset();
}

void VolumeControlImpl::_ReplaceSpeaker(int route, int zone) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    _DestroySpeaker();
    m_prevSpeakerSelection = m_speakerSelection.load();
    _CreateSpeaker(route);
    m_zoneId = zone;
    _NotifyVolumeEvent(this, KVDefine::SPEAKER_CHANGED);
}

void VolumeControlImpl::_SetSpeakerEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const std::unique_ptr<ISpeaker>& speaker = _GetCurrentSpeaker();
    speaker->SetEventHandler([this](int volume) { _OnVolumeChanged(volume); },
                             [this](int mute) { _OnMuteChanged(mute); });
    speaker->SetChangedCB();
}

// Works on the object that it gets as its argument. The caller holds the lock.
void VolumeControlImpl::_NotifyVolumeEvent(void* volumeControl, const std::string& event) {
    LOGI("event: [%s]", event.c_str());
    if (IsNull(volumeControl, "pVolumeControl")) {
        return;
    }
    auto* control = static_cast<VolumeControlImpl*>(volumeControl);
    const auto listener = control->m_eventHandlers.find(event);
    if (listener == control->m_eventHandlers.end()) {
        return;
    }
    int type = 0;
    if (control->GetVolumeSupport(type) < 0) {
        return;
    }
    int value = 0;
    if (event == KVDefine::VOLUME_CHANGED) {
        value = control->m_volume;
    } else if (event == KVDefine::MUTE_CHANGED) {
        value = control->m_mute ? 1 : 0;
    } else if (event == KVDefine::SPEAKER_CHANGED) {
        value = control->m_speakerSelection;
    }
    const auto handler = listener->second;  // a copy, because the listener may remove all listeners
    handler(type, value);
}

void VolumeControlImpl::_OnVolumeChanged(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "mutex lock failed")) {
        return;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    if (volume == m_volume) {
        // An error on purpose, although the mute filter logs the same case at info.
        LOGE("volume(%d) is same", volume);
        return;
    }
    LOGI("volume is changed : %d", volume);
    m_volume = volume;
    _NotifyVolumeEvent(this, KVDefine::VOLUME_CHANGED);
}

void VolumeControlImpl::_OnMuteChanged(int mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!TryLock(m_mutex, "mutex lock failed")) {
        return;
    }
    const KVLockGuard lock(m_mutex, std::adopt_lock);
    const bool muted = mute != 0;
    if (muted == m_mute) {
        LOGI("mute is same : %d", m_mute);
        return;
    }
    m_mute = muted;
    LOGI("mute changed : [%d]", m_mute);
    _NotifyVolumeEvent(this, KVDefine::MUTE_CHANGED);
}

int VolumeControlImpl::_GetOutputRoute() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    sound_tv_output_route_e route = 0;
    const bool multiview = _IsMSViewModeOn();
    const int zone = m_zoneId;
    int result = multiview ? sound_manager_get_multiview_speaker_selection_with_zone_id(&route, zone)
                           : sound_manager_get_speaker_selection(&route);
    if (multiview && result == MULTIVIEW_TERMINATED) {
        LOGW("Multiview is terminated, call sound_manager_get_speaker_selection");
        result = sound_manager_get_speaker_selection(&route);
    }
    if (result != 0) {
        LOGE("get current speaker type failed");
        return m_defaultSpeaker;
    }
    if (multiview) {
        LOGI("zoneID:%d route:%d", zone, route);
    } else {
        LOGI("route:%d", route);
    }
    return route;
}

void VolumeControlImpl::_InitSoundCallback() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const int result = sound_manager_set_speaker_changed_cb(SpeakerChangedCallback, this);
    if (result != 0) {
        LOGE("speaker changed cb set failed. ret:%d", result);
        return;
    }
    KVUtils::RegisterVconfChangedCb(KVDefine::SPDIF_KEY.c_str(), SpdifChangedCallback, this);
    int spdifConnected = 0;
    KVUtils::VconfGetInt(KVDefine::SPDIF_KEY.c_str(), spdifConnected);
    if (spdifConnected == 0) {
        LOGE("Spdif Cable is not connected");
    }

    KVUtils::RegisterVconfChangedCb(KVDefine::TV2MOBILE_KEY.c_str(), Tv2MobileChangedCallback, this);
    int status = m_tv2MobileStatus;
    KVUtils::VconfGetInt(KVDefine::TV2MOBILE_KEY.c_str(), status);
    m_tv2MobileStatus = status;
    LOGI("tv2Mobile:%d", status);
}

void VolumeControlImpl::_DeInitSoundCallback() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const int result = sound_manager_unset_speaker_changed_cb();
    if (result != 0) {
        LOGE("unset speaker changed cb set failed. ret:%d", result);
        return;
    }
    KVUtils::DeregisterVconfChangedCb(KVDefine::SPDIF_KEY.c_str(), SpdifChangedCallback);
    KVUtils::DeregisterVconfChangedCb(KVDefine::TV2MOBILE_KEY.c_str(), Tv2MobileChangedCallback);
}

bool VolumeControlImpl::_IsMSViewSupport() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    bool supported = false;
    const int result = system_info_get_custom_bool(KVDefine::MULTIVIEW_FEATURE.c_str(), &supported);
    if (result != 0) {
        LOGE("Failed to get system info key %s. ret:%d", KVDefine::MULTIVIEW_FEATURE.c_str(), result);
        return false;
    }
    LOGI("Multi-screen View supported :%d", supported);
    return supported;
}

bool VolumeControlImpl::_IsMSViewModeOn() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_msviewSupported) {
        return false;
    }
    std::string info;
    if (!KVUtils::VconfGetStr(KVDefine::MULTIVIEW_INFO_KEY.c_str(), info)) {
        LOGE("Failed to get vconf %s", KVDefine::MULTIVIEW_INFO_KEY.c_str());
        return false;
    }
    return ParseMode(info) == "on";
}

void VolumeControlImpl::_InitMSViewSoundCallback() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_msviewSupported = _IsMSViewSupport();
    if (!m_msviewSupported) {
        return;
    }
    if (!KVUtils::RegisterVconfChangedCb(KVDefine::MULTIVIEW_INFO_KEY.c_str(), MSViewModeChangedCallback,
                                         this)) {
        LOGE("msview mode vconf cb set failed");
        return;
    }
    int result = sound_manager_set_multiview_speaker_selection_changed_cb(MSViewSpeakerChangedCallback, this);
    if (result != 0) {
        LOGE("multiview speaker changed cb set failed ret:%d", result);
        return;
    }
    const int callbackId = rc_register_audio_focus_changed_callback(FocusChangedCallback, this);
    if (callbackId == 0) {
        LOGE("audio focus changed cb set failed");
        return;
    }
    m_focusCallbackId = callbackId;

    m_msviewModeOn = _IsMSViewModeOn();
    if (!m_msviewModeOn) {
        return;
    }
    int zone = 0;
    result = rc_get_audio_focus(&zone);
    if (result != 0) {
        LOGE("Failed to get zoneID. ret:%d", result);
        return;
    }
    m_zoneId = zone;
    LOGI("zoneId:%d focusID:%d", zone, m_focusCallbackId);
}

void VolumeControlImpl::_DeInitMSViewSoundCallback() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_msviewSupported) {
        return;
    }
    if (!KVUtils::DeregisterVconfChangedCb(KVDefine::MULTIVIEW_INFO_KEY.c_str(), MSViewModeChangedCallback)) {
        LOGE("msview mode vconf cb unset failed");
        return;
    }
    int result = sound_manager_unset_multiview_speaker_selection_changed_cb();
    if (result != 0) {
        LOGE("unset multiview speaker changed cb set failed. ret:%d", result);
        return;
    }
    if (m_focusCallbackId != 0) {
        result = rc_unregister_audio_focus_changed_callback(m_focusCallbackId);
        if (result != 0) {
            LOGE("unset audio focus changed cb set failed. ret:%d", result);
            return;
        }
    }
    m_zoneId = 0;
    m_focusCallbackId = 0;
}

bool VolumeControlImpl::_IsFadeInAvailable(KVDefine::eKVGainSrcType src) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (src == KVDefine::GAIN_SRC_UNMUTE && m_speakerSelection == MULTI_OUTPUT_ROUTE) {
        LOGE("Multi-output Audio, do not apply fade.");
        return false;
    }
    return true;
}

void VolumeControlImpl::_ApplyUnmuteFadeIn(bool mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (mute || m_speakerSelection != TV_SPEAKER_ROUTE) {
        return;
    }
    const int result = ApplyVolumeFadeIn(KVDefine::GAIN_SRC_UNMUTE, KVDefine::AUDIO_PATH_BOTH);
    LOGI("Apply unmute fadein. ret=0x%x", static_cast<unsigned int>(result));
}

void VolumeControlImpl::_SetGainOnMute(int gain) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_speakerSelection != TV_SPEAKER_ROUTE) {
        return;
    }
    const int result = ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, gain, KVDefine::AUDIO_PATH_BOTH, false);
    LOGI("Apply gain on mute to %d after mute. ret=0x%x", gain, static_cast<unsigned int>(result));
}

}  // namespace NKavrel
