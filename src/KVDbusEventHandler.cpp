// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVDbusEventHandler.h"

#include <sound_manager.h>

#include "KVDebug.h"
#include "KVDefine.h"
#include "KVUtils.h"
#include "Routes.h"
#include "VolumeControlImpl.h"

namespace NKavrel {
namespace {

// Volume setters check the user data first; gain and connection handlers check the parameters first.
bool IsParametersNull(const GVariant* parameters, const CallSite& site = {}) {
    return IsNull(parameters, "nullptr parameters", site);
}

bool IsUserDataNull(const void* userData, const CallSite& site = {}) {
    return IsNull(userData, "nullptr user data", site);
}

VolumeControlImpl& ControlOf(gpointer userData) {
    return *static_cast<VolumeControlImpl*>(userData);
}

void Reply(GDBusMethodInvocation* invocation, int status) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", status));
}

void Reply(GDBusMethodInvocation* invocation, int value, int status) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(ii)", value, status));
}

/** The route to select when an output goes away: the previous one, or the default one if the previous one is
 * never restored. Logs in the name of the caller. */
int ChooseFallback(VolumeControlImpl& control, const CallSite& site = {}) {
    const int previous = control.GetPrevSpeakerSelection();
    if (!KVUtils::IsBlockedLastSpkType(previous)) {
        return previous;
    }
    const int target = KVUtils::GetDefaultSpeaker();
    LOGI_AT(site, "Previous(type:%d). Set to Default Output(%d)", previous, target);
    return target;
}

}  // namespace

KVDbusEventHandler::KVDbusEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

KVDbusEventHandler::~KVDbusEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void KVDbusEventHandler::Init() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    _AddMedthodCallEvents();
    _AddSignalEvents();
}

void KVDbusEventHandler::Deinit() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_methodEvents.clear();
    m_signalEvents.clear();
}

void KVDbusEventHandler::_AddMedthodCallEvents() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    static constexpr struct {
        const char* name;
        void (KVDbusEventHandler::*handler)(GVariant*, GDBusMethodInvocation*, gpointer);
    } METHODS[] = {
        {"GetSpeakerSupportType", &KVDbusEventHandler::_OnGetSpeakerSupportType},
        {"SetSpeakerVolume", &KVDbusEventHandler::_OnSetSpeakerVolume},
        {"GetSpeakerVolume", &KVDbusEventHandler::_OnGetSpeakerVolume},
        {"SetSpeakerMute", &KVDbusEventHandler::_OnSetSpeakerMute},
        {"GetSpeakerMute", &KVDbusEventHandler::_OnGetSpeakerMute},
        {"ApplyPlayerFadeIn", &KVDbusEventHandler::_OnApplyPlayerVolumeFadeIn},
        {"ApplyUnmuteFadeIn", &KVDbusEventHandler::_OnApplyUnmuteVolumeFadeIn},
        {"ResetPlayerGain", &KVDbusEventHandler::_OnResetPlayerGain},
        {"ApplyGainOnMute", &KVDbusEventHandler::_OnApplyGainOnMute},
    };
    for (const auto& method : METHODS) {
        m_methodEvents.emplace(method.name, std::bind_front(method.handler, this));
    }
    LOGI("Add %ld events", static_cast<long>(m_methodEvents.size()));
}

void KVDbusEventHandler::_AddSignalEvents() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    static constexpr struct {
        const char* name;
        void (KVDbusEventHandler::*handler)(GVariant*, gpointer);
    } SIGNALS[] = {
        {"SpkDisconnected", &KVDbusEventHandler::_OnSpeakerDisconnected},
        {"ApplyPulseAudioGain", &KVDbusEventHandler::_OnApplyPulseAudioGain},
        {"BudsConnected", &KVDbusEventHandler::_OnBudsConnected},
        {"BudsDisconnected", &KVDbusEventHandler::_OnBudsDisconnected},
    };
    for (const auto& signal : SIGNALS) {
        m_signalEvents.emplace(signal.name, std::bind_front(signal.handler, this));
    }
    LOGI("Add %ld signal events", static_cast<long>(m_signalEvents.size()));
}

void KVDbusEventHandler::OnMethodCall(const std::string& name, GVariant* parameters,
                                      GDBusMethodInvocation* invocation, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const auto event = m_methodEvents.find(name);
    if (event == m_methodEvents.end()) {
        LOGE("Not matched methodCall:%s", name.c_str());
        return;
    }
    event->second(parameters, invocation, user_data);
}

void KVDbusEventHandler::OnSignal(const std::string& name, GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const auto event = m_signalEvents.find(name);
    if (event == m_signalEvents.end()) {
        LOGE("Not matched signal:%s", name.c_str());
        return;
    }
    event->second(parameters, user_data);
}

void KVDbusEventHandler::_OnGetSpeakerSupportType(GVariant* /*parameters*/, GDBusMethodInvocation* invocation,
                                                  gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsUserDataNull(user_data)) {
        return;
    }
    int supportType = 0;
    const int status = ControlOf(user_data).GetVolumeSupport(supportType);
    LOGI("Return Current support type(0x%04x), ret:%d", static_cast<unsigned int>(supportType), status);
    Reply(invocation, supportType, status);
}

void KVDbusEventHandler::_OnSetSpeakerVolume(GVariant* parameters, GDBusMethodInvocation* invocation,
                                             gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsUserDataNull(user_data) || IsParametersNull(parameters)) {
        return;
    }
    int volume = 0;
    g_variant_get(parameters, "(i)", &volume);
    const int status = ControlOf(user_data).SetTVVolume(volume);
    LOGI("Return volume %d. ret:%d", volume, status);
    Reply(invocation, status);
}

void KVDbusEventHandler::_OnGetSpeakerVolume(GVariant* /*parameters*/, GDBusMethodInvocation* invocation,
                                             gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsUserDataNull(user_data)) {
        return;
    }
    int volume = 0;
    const int status = ControlOf(user_data).GetTVVolume(volume);
    LOGI("Return Current volume state(%d), ret:%d", volume, status);
    Reply(invocation, volume, status);
}

void KVDbusEventHandler::_OnSetSpeakerMute(GVariant* parameters, GDBusMethodInvocation* invocation,
                                           gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsUserDataNull(user_data) || IsParametersNull(parameters)) {
        return;
    }
    gboolean mute = FALSE;
    g_variant_get(parameters, "(b)", &mute);
    const int status = ControlOf(user_data).SetTVVolumeMute(mute != FALSE);
    LOGI("Return set mute status %d. ret:%d", mute, status);
    Reply(invocation, status);
}

void KVDbusEventHandler::_OnGetSpeakerMute(GVariant* /*parameters*/, GDBusMethodInvocation* invocation,
                                           gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsUserDataNull(user_data)) {
        return;
    }
    bool mute = false;
    const int status = ControlOf(user_data).GetTVVolumeMute(mute);
    LOGI("Return Current mute state(%d), ret:%d", mute, status);
    Reply(invocation, mute ? 1 : 0, status);
}

void KVDbusEventHandler::_OnApplyPlayerVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation,
                                                    gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    _HandleApplyVolumeFadeIn(parameters, invocation, user_data, KVDefine::GAIN_SRC_PLAYER);
}

void KVDbusEventHandler::_OnApplyUnmuteVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation,
                                                    gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    _HandleApplyVolumeFadeIn(parameters, invocation, user_data, KVDefine::GAIN_SRC_UNMUTE);
}

void KVDbusEventHandler::_HandleApplyVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation,
                                                  gpointer user_data, int source) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data)) {
        return;
    }
    int path = 0;
    g_variant_get(parameters, "(i)", &path);
    const char* sourceName = source == KVDefine::GAIN_SRC_UNMUTE ? "Unmute" : "Player";
    LOGI("Apply %s VolumeFadeIn. path:%d", sourceName, path);
    const int status =
        ControlOf(user_data).ApplyVolumeFadeIn(static_cast<KVDefine::eKVGainSrcType>(source), path);
    LOGI("Doen Apply %s VolumeFadeIn. ret:%d", sourceName, status);
    Reply(invocation, status);
}

void KVDbusEventHandler::_OnResetPlayerGain(GVariant* parameters, GDBusMethodInvocation* invocation,
                                            gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data)) {
        return;
    }
    int path = 0;
    g_variant_get(parameters, "(i)", &path);
    LOGI("Reset PlayerGain. path:%d", path);
    const int status =
        ControlOf(user_data).ApplyAudioGain(KVDefine::GAIN_SRC_PLAYER, KVDefine::GAIN_MAX, path, false);
    LOGI("Done Reset PlayerGain:MAX. ret:%d", status);
    Reply(invocation, status);
}

void KVDbusEventHandler::_OnApplyGainOnMute(GVariant* parameters, GDBusMethodInvocation* invocation,
                                            gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data)) {
        return;
    }
    int path = 0;
    int gain = 0;
    g_variant_get(parameters, "(ii)", &path, &gain);
    LOGI("Apply GainOnMute path:%d gain:%d", path, gain);
    const int status = ControlOf(user_data).ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, gain, path, false);
    LOGI("Done Apply GainOnMute:%d. ret:%d", gain, status);
    Reply(invocation, status);
}

void KVDbusEventHandler::_OnApplyPulseAudioGain(GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data) ||
        !KVUtils::IsSignalOfType(parameters, "(ii)", "ApplyPulseAudioGain")) {
        return;
    }
    int gain = 0;
    int duration = 0;
    g_variant_get(parameters, "(ii)", &gain, &duration);
    LOGI("Apply PulseAudioGain %d, duration %d", gain, duration);
    const int status = ControlOf(user_data).ApplyPulseAudioGain(gain, duration);
    LOGI("Done Apply PulseAudioGain %d, duration %d. ret:%d", gain, duration, status);
}

void KVDbusEventHandler::_OnBudsConnected(GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data) ||
        !KVUtils::IsSignalOfType(parameters, "(i)", "BudsConnected")) {
        return;
    }
    int reason = 0;
    g_variant_get(parameters, "(i)", &reason);
    LOGI("Buds Connected. reason:%d", reason);
}

void KVDbusEventHandler::_OnBudsDisconnected(GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data) ||
        !KVUtils::IsSignalOfType(parameters, "(i)", "BudsDisconnected")) {
        return;
    }
    VolumeControlImpl& control = ControlOf(user_data);
    const int target = ChooseFallback(control);
    KVUtils::DbusEmitSignal(KVDefine::PUBLIC_PATH.c_str(), KVDefine::BUS_NAME.c_str(), "SpeakerChangeRequest",
                            g_variant_new("(ii)", target, 1));
    LOGI("Buds disconnected. Connect to previous(type:%d)", target);
    if (target == TV_SPEAKER_ROUTE || target == MULTI_OUTPUT_ROUTE) {
        // The flag comes first: the platform may report the change before the call returns.
        control.SetMuteOnSpkChanged(true);
        sound_manager_set_speaker_selection(target);
    }
}

void KVDbusEventHandler::_OnSpeakerDisconnected(GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsParametersNull(parameters) || IsUserDataNull(user_data) ||
        !KVUtils::IsSignalOfType(parameters, "(is)", "SpkDisconnected")) {
        return;
    }
    VolumeControlImpl& control = ControlOf(user_data);
    const int target = ChooseFallback(control);
    int type = 0;
    const char* name = nullptr;
    g_variant_get(parameters, "(i&s)", &type, &name);
    LOGI("Speaker(type:%d):%s disconnected. Connect to previous(type:%d)", type, name, target);
    control.SetOutputRoute(target);
}

}  // namespace NKavrel
