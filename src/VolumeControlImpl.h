// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef VOLUMECONTROLIMPL_H
#define VOLUMECONTROLIMPL_H

#include <sound_manager.h>
#include <vconf.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ISpeaker.h"
#include "KVAudioGainHandler.h"
#include "KVDefine.h"

namespace NKavrel {

/** A listener: the support word of the current output, and the event's value. */
using VolumeEventHandler = std::function<void(int supportType, int value)>;

/**
 * The one object through which volume, mute and gain of the current output are read and changed. It owns the
 * speaker of the route in force and the gain controller, follows route, zone and focus, and tells listeners.
 *
 * Any thread may call any operation. The lock is only ever tried: an operation that finds it busy logs,
 * changes nothing and answers -1, and a report that finds it busy is lost. Listeners run with the lock held,
 * on the thread that reports, and must not wait for a thread that needs this object. The gain operations take
 * no lock of this object and answer -1 while there is no gain controller yet.
 *
 * Operations answer 0 (or the platform's non-negative code) on success, -1 busy or failed, -2 invalid
 * argument, -4 not supported by the output, or the platform's negative code.
 */
class VolumeControlImpl {
public:
    VolumeControlImpl();
    ~VolumeControlImpl();
    VolumeControlImpl(const VolumeControlImpl&) = delete;
    VolumeControlImpl& operator=(const VolumeControlImpl&) = delete;

    /** Registers a listener for an event (KVDefine); the first one of a name stays. */
    void SetEventHandler(const std::string& name, const VolumeEventHandler& handler);
    void UnsetEventHandler();
    /** Waits for the lock. For the server alone, around its registrations: a report in that instant would
     *  otherwise make a registration fail, and silence that signal for the life of the process. */
    std::unique_lock<std::recursive_mutex> WaitForLock();

    /** @param[out] type bits of eVolumeSupport */
    int GetVolumeSupport(int& type);
    /** @param[out] volume the output's own level, asked afresh */
    int GetTVVolume(int& volume);
    /** Unmutes first. @param volume at most 100; the output judges negative ones */
    int SetTVVolume(int volume);
    int GetTVVolumeMute(bool& mute);
    /** An unmute of the TV speaker fades in. */
    int SetTVVolumeMute(bool mute);

    /** @param value audio path bits (KVDefine) */
    int ApplyVolumeFadeIn(KVDefine::eKVGainSrcType src, int value);
    /** @param gain percent
     *  @param value audio path bits (KVDefine)
     *  @param force also while the multi-output route is in use */
    int ApplyAudioGain(KVDefine::eKVGainSrcType src, int gain, int value, bool force);
    /** @param a target gain in percent
     *  @param b duration in milliseconds, 0 for at once */
    int ApplyPulseAudioGain(int a, int b);

    /** A request to mute once, when the next speaker change is reported. */
    bool GetMuteOnSpkChanged();
    void SetMuteOnSpkChanged(bool mute);

    int GetSpeakerSelection();
    int GetPrevSpeakerSelection();
    /** Asks the platform to switch, in multi-view every zone but the one a sub Bluetooth headset holds. The
     *  speaker follows when the platform reports the change. */
    void SetOutputRoute(sound_tv_output_route_e route);

    static void SpeakerChangedCallback(sound_tv_output_route_e route, void* data);
    static void SpdifChangedCallback(keynode_t* node, void* data);
    static void Tv2MobileChangedCallback(keynode_t* node, void* data);
    static void MSViewModeChangedCallback(keynode_t* node, void* data);
    static void MSViewSpeakerChangedCallback(sound_tv_output_route_e route, int zone, void* data);
    static void FocusChangedCallback(int zone, void* data);

private:
    std::unique_ptr<ISpeaker>& _GetCurrentSpeaker();
    void _CreateSpeaker(int route);
    void _DestroySpeaker();
    void _ReplaceSpeaker(int route, int zone);
    void _SetSpeakerEventHandler();

    void _NotifyVolumeEvent(void* volumeControl, const std::string& event);
    void _OnVolumeChanged(int volume);
    void _OnMuteChanged(int mute);

    int _GetOutputRoute();
    void _InitSoundCallback();
    void _DeInitSoundCallback();
    bool _IsMSViewSupport();
    bool _IsMSViewModeOn();
    void _InitMSViewSoundCallback();
    void _DeInitMSViewSoundCallback();

    bool _IsFadeInAvailable(KVDefine::eKVGainSrcType src);
    void _ApplyUnmuteFadeIn(bool mute);
    void _SetGainOnMute(int gain);

    // Guarded by m_mutex. Atomic are those that callbacks and gain operations read or write without it.
    std::map<std::string, VolumeEventHandler> m_eventHandlers;
    std::unique_ptr<ISpeaker> m_speaker;
    std::unique_ptr<KVAudioGainHandler> m_gainHandler;
    /** m_gainHandler once it is complete: a report may come while it is being made. */
    std::atomic<KVAudioGainHandler*> m_readyGainHandler{nullptr};
    bool m_mute = false;
    int m_volume = 0;
    std::atomic<int> m_speakerSelection{0};
    std::atomic<int> m_prevSpeakerSelection{0};
    /** The zone in focus, 0 outside multi-view. */
    std::atomic<int> m_zoneId{0};
    std::atomic<bool> m_msviewSupported{false};
    std::atomic<bool> m_msviewModeOn{false};
    /** 0 while not registered. */
    int m_focusCallbackId = 0;
    std::atomic<bool> m_muteOnSpkChanged{false};
    std::atomic<int> m_defaultSpeaker{0};
    /** Non-zero while the sound is mirrored to a mobile device. */
    std::atomic<int> m_tv2MobileStatus{0};
    /** Recursive: a route report replaces the speaker and calls listeners, which ask this object again. Taken
     *  before any lock of the gain controller; the platform's delivery lock may be held or taken around it.
     */
    std::recursive_mutex m_mutex;
};

}  // namespace NKavrel

#endif
