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
#include "KVMutex.h"

namespace NKavrel {

/** Called with the support word of the current output and the event's value. */
using VolumeEventHandler = std::function<void(int supportType, int value)>;

/**
 * Reads and changes volume, mute and gain of the current output. It owns the speaker of the route in force and
 * the gain controller, follows route, zone and focus, and notifies listeners of changes.
 *
 * Any thread may call any operation. No operation waits for the lock: one that finds it busy logs, changes
 * nothing and answers -1; a report that finds it busy is lost. Listeners run with the lock held, on the thread
 * that reports, and must not wait for a thread that needs this object. The gain operations take no lock of
 * this object and answer -1 until the gain controller exists.
 *
 * Operations answer 0 (or the platform's non-negative code) on success, -1 if they failed or found the lock
 * busy, -2 for an invalid argument, -4 if the output does not support them, or the platform's negative code.
 */
class VolumeControlImpl {
public:
    VolumeControlImpl();
    ~VolumeControlImpl();
    VolumeControlImpl(const VolumeControlImpl&) = delete;
    VolumeControlImpl& operator=(const VolumeControlImpl&) = delete;

    /** Registers the listener of an event (KVDefine). An event keeps its first listener. */
    void SetEventHandler(const std::string& name, const VolumeEventHandler& handler);
    void UnsetEventHandler();
    /** Waits for the lock. Only the server calls it, around its registrations: a report at that moment would
     *  make a registration fail and so silence its signal for the life of the process. */
    std::unique_lock<std::recursive_mutex> WaitForLock();

    /** @param[out] type bits of eVolumeSupport */
    int GetVolumeSupport(int& type);
    /** Asks the output. @param[out] volume the output's own level */
    int GetTVVolume(int& volume);
    /** Unmutes first. @param volume at most 100; the output gets negative values unchanged */
    int SetTVVolume(int volume);
    int GetTVVolumeMute(bool& mute);
    /** An unmute of the TV speaker starts a fade-in. */
    int SetTVVolumeMute(bool mute);

    /** @param value audio path bits (KVDefine) */
    int ApplyVolumeFadeIn(KVDefine::eKVGainSrcType src, int value);
    /** @param gain percent
     *  @param value audio path bits (KVDefine)
     *  @param force whether to apply it also on the multi-output route */
    int ApplyAudioGain(KVDefine::eKVGainSrcType src, int gain, int value, bool force);
    /** @param a target gain in percent
     *  @param b duration in milliseconds, 0 for at once */
    int ApplyPulseAudioGain(int a, int b);

    /** Whether the next reported speaker change mutes the new output. */
    bool GetMuteOnSpkChanged();
    void SetMuteOnSpkChanged(bool mute);

    int GetSpeakerSelection();
    int GetPrevSpeakerSelection();
    /** Asks the platform to switch the route, in multi-view that of every zone except a sub Bluetooth
     *  headset's. The speaker follows when the platform reports the change. */
    void SetOutputRoute(sound_tv_output_route_e route);

    static void SpeakerChangedCallback(sound_tv_output_route_e route, void* data);
    static void SpdifChangedCallback(keynode_t* node, void* data);
    static void Tv2MobileChangedCallback(keynode_t* node, void* data);
    static void MSViewModeChangedCallback(keynode_t* node, void* data);
    static void MSViewSpeakerChangedCallback(sound_tv_output_route_e route, int zone, void* data);
    static void FocusChangedCallback(int zone, void* data);

private:
    std::unique_ptr<ISpeaker>& _GetCurrentSpeaker() KV_REQUIRES(m_mutex);
    void _CreateSpeaker(int route) KV_REQUIRES(m_mutex);
    void _DestroySpeaker() KV_REQUIRES(m_mutex);
    void _ReplaceSpeaker(int route, int zone) KV_REQUIRES(m_mutex);
    void _SetSpeakerEventHandler() KV_REQUIRES(m_mutex);

    /** The analysis cannot know that every caller passes the object itself as `volumeControl`. */
    void _NotifyVolumeEvent(void* volumeControl, const std::string& event)
        KV_REQUIRES(m_mutex) KV_NO_LOCK_ANALYSIS;
    void _OnVolumeChanged(int volume);
    void _OnMuteChanged(int mute);

    int _GetOutputRoute();
    void _InitSoundCallback();
    void _DeInitSoundCallback();
    bool _IsMSViewSupport();
    bool _IsMSViewModeOn();
    void _InitMSViewSoundCallback() KV_REQUIRES(m_mutex);
    void _DeInitMSViewSoundCallback() KV_REQUIRES(m_mutex);

    bool _IsFadeInAvailable(KVDefine::eKVGainSrcType src);
    void _ApplyUnmuteFadeIn(bool mute);
    void _SetGainOnMute(int gain);

    // The fields that callbacks and gain operations use without the lock are atomic.
    std::map<std::string, VolumeEventHandler> m_eventHandlers KV_GUARDED_BY(m_mutex);
    std::unique_ptr<ISpeaker> m_speaker KV_GUARDED_BY(m_mutex);
    /** Only the constructor and the destructor use it. */
    std::unique_ptr<KVAudioGainHandler> m_gainHandler;
    /** m_gainHandler once it is complete, because a report may arrive while it is being made. */
    std::atomic<KVAudioGainHandler*> m_readyGainHandler{nullptr};
    bool m_mute KV_GUARDED_BY(m_mutex) = false;
    int m_volume KV_GUARDED_BY(m_mutex) = 0;
    std::atomic<int> m_speakerSelection{0};
    std::atomic<int> m_prevSpeakerSelection{0};
    /** The zone in focus, 0 outside multi-view. */
    std::atomic<int> m_zoneId{0};
    std::atomic<bool> m_msviewSupported{false};
    std::atomic<bool> m_msviewModeOn{false};
    /** 0 while not registered. */
    int m_focusCallbackId KV_GUARDED_BY(m_mutex) = 0;
    std::atomic<bool> m_muteOnSpkChanged{false};
    std::atomic<int> m_defaultSpeaker{0};
    /** Not 0 while the TV mirrors its sound to a mobile device. */
    std::atomic<int> m_tv2MobileStatus{0};
    /** Recursive because a route report replaces the speaker and calls listeners, which call this object.
     *  Lock order: it comes before every lock of the gain controller. The platform's delivery lock may be taken
     *  before or after it, because operations and reports only try it. */
    KVRecursiveMutex m_mutex;
};

}  // namespace NKavrel

#endif
