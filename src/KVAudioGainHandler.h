// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVAUDIOGAINHANDLER_H
#define KVAUDIOGAINHANDLER_H

#include <audio_control.h>
#include <vconf.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "KVDebug.h"
#include "KVDefine.h"
#include "KVMutex.h"

namespace NKavrel {

/** Gain slots and worker threads: each value names one of both. Logs show the numbers. */
enum eKVGainHandlerType : int {
    GAIN_HANDLER_NONE = 0, /**< has no worker; its gain stays 100 */
    GAIN_HANDLER_PULSE_RAMP = 1,
    GAIN_HANDLER_PLAYER_MAIN_OUT = 2,
    GAIN_HANDLER_PLAYER_SUB_OUT = 3,
    GAIN_HANDLER_UNMUTE_MAIN_OUT = 4,
    GAIN_HANDLER_UNMUTE_SUB_OUT = 5,
    GAIN_HANDLER_AUDIO_GAIN_OUT = 6, /**< writes the outputs; its gain stays 100 */
};

inline constexpr int GAIN_HANDLER_COUNT = 7;

/** Thread names of the workers, by eKVGainHandlerType. The popup shows them as names of gain sources. */
inline const std::array<std::string, GAIN_HANDLER_COUNT> GainHandlerName = {
    "", "PulseRampH", "PlayerMainOutH", "PlayerSubOutH", "UnMuteMainOutH", "UnMuteSubOutH", "AudioGainOutH",
};

/**
 * The gain controller. It keeps a gain for each source and hardware output, multiplies them into one total
 * for each output and writes the total to the audio hardware as the output's gain2. Six workers move gains
 * over time.
 *
 * Gains are percentages up to 100: the controller ignores larger values and accepts negative ones. An audio
 * path is a bit mask: 1 main output, 2 sub output. Statuses are 0, -1 failed, -2 invalid argument. Any thread
 * may call any operation; none waits for a lock for more than 3 s.
 *
 * Lock order: a worker's own m_handlerMutex, then m_srcGainMutex[GAIN_HANDLER_AUDIO_GAIN_OUT] (the write of
 * the outputs), then one other m_srcGainMutex or m_pulseMutex at a time. A requester sets values and notifies
 * the worker without taking the worker's mutex. So a request is lost if it comes after the worker's last look
 * at the gain and before its wait.
 */
class KVAudioGainHandler {
public:
    /** Starts the workers and sets both outputs to gain 100.
     *  @throw std::system_error if a thread cannot be started */
    KVAudioGainHandler();
    /** Ends the workers. It waits for the end of a running fade-in (at most 1.5 s) or of one step of a running
     *  ramp. */
    ~KVAudioGainHandler();
    KVAudioGainHandler(const KVAudioGainHandler&) = delete;
    KVAudioGainHandler& operator=(const KVAudioGainHandler&) = delete;

    void SetSrcGain(eKVGainHandlerType type, int gain);
    /** @param[out] gain stays as it was if the slot cannot be locked */
    void GetSrcGain(eKVGainHandlerType type, int& gain);
    /** @param path 1 or 3 for the main output, 2 for the sub output
     *  @param[out] gain product of the three gains in percent, truncated toward zero */
    void GetAudioGain(int path, int& gain);
    /** Write the total of one output if the path has its bit and the hardware holds another value. */
    int SetMainOutGain2(int path);
    int SetSubOutGain2(int path);
    /** Writes the outputs of the path. It leaves the sub output alone if the main output fails. */
    int SetAudioGain(int path);
    /** Stores the gain, writes the outputs of the path, and wakes the gain-out worker (direct) or the worker of
     *  the type. */
    int _ApplyAudioGain(eKVGainHandlerType type, int path, int gain, bool direct);

    /** Sets a gain at once. Without a sub Bluetooth zone, any path sets the unmute gain of both outputs. Path 3
     *  sets the main output's player gain and writes both outputs. */
    int ApplyAudioGain(KVDefine::eKVGainSrcType srcType, int gain, int path);
    /** Sets a gain to 0 and starts its fade-in of 5 % each 75 ms. A path selects the same gains as in
     *  ApplyAudioGain. */
    int ApplyVolumeFadeIn(KVDefine::eKVGainSrcType srcType, int path);
    /** Ramps the pulse gain of both outputs in ten steps.
     *  @param gain target; above 100, the ramp uses the previous target and duration
     *  @param duration in milliseconds, 0 for at once
     *  @return always 0 */
    int ApplyPulseAudioGain(int gain, int duration);
    /** While true, each unmute fade-in, also a running one, stops at the gain it has reached. */
    void SetFadeInInterruptable(bool interruptable);

    void SetPulseTargetValue(int target, int duration);
    void GetPulseTargetValue(int& target, int& duration);
    bool IsMainOutUpdating();
    bool IsSubOutUpdating();

    int SetAudioGainControlChangedCb();
    int UnsetAudioGainControlChangedCb();

    static void FadeInGainHandler(eKVGainHandlerType type, void* self);
    static void PulseGainHandler(void* self);
    static void AudioGainOutHandler(void* self);
    static void AudioGainControlChangedCb(keynode_t* node, void* data);
    static void SubBTChangedCb(keynode_t* node, void* data);
    /** Sends the popup of a finished fade-in that took half a second or more. */
    static void SendPopupMsg(eKVGainHandlerType type, std::chrono::duration<double> seconds);

private:
    void _StartWorkers();
    void _AwaitWorkers();
    void _StopWorkers();

    /** m_srcGainMutex[t] guards slot t. */
    std::array<int, GAIN_HANDLER_COUNT> m_srcGain;
    // Times are in milliseconds.
    int m_pulseTarget KV_GUARDED_BY(m_pulseMutex) = KVDefine::GAIN_MAX;
    int m_pulseDuration KV_GUARDED_BY(m_pulseMutex) = 0;
    /** Atomic because the gain-out worker reads it without the lock. */
    std::atomic<int> m_pulseOutPeriod{60};
    std::atomic<bool> m_pulseRequested{false};
    KVTimedMutex m_pulseMutex;
    /** Entry t guards m_srcGain[t]. The gain-out worker's entry also serialises the writes of both outputs. */
    std::array<KVTimedMutex, GAIN_HANDLER_COUNT> m_srcGainMutex;
    /** Worker t holds entry t, except while it waits. */
    std::array<std::mutex, GAIN_HANDLER_COUNT> m_handlerMutex;
    std::array<std::condition_variable, GAIN_HANDLER_COUNT> m_handlerCond;
    /** Entry t is true while worker t moves its gain. */
    std::array<std::atomic<bool>, GAIN_HANDLER_COUNT> m_updating{};
    std::map<int, std::thread> m_threads;
    std::atomic<bool> m_running{true};
    std::atomic<bool> m_fadeInInterruptable{false};
    std::atomic<bool> m_gainControlDisabled{false};
    /** True while a sub Bluetooth zone exists: then each output has an unmute gain of its own. */
    std::atomic<bool> m_subBTActive{false};
    /** Set once worker t first holds m_handlerMutex[t]; from then on that mutex is free only while t waits. */
    std::array<std::atomic<bool>, GAIN_HANDLER_COUNT> m_settled{};
};

}  // namespace NKavrel

#endif
