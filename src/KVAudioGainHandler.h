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

namespace NKavrel {

/** One gain slot and one worker thread for each value; any int may be carried. Logs show the numbers. */
enum eKVGainHandlerType : int {
    GAIN_HANDLER_NONE = 0, /**< no worker; its gain stays at full */
    GAIN_HANDLER_PULSE_RAMP = 1,
    GAIN_HANDLER_PLAYER_MAIN_OUT = 2,
    GAIN_HANDLER_PLAYER_SUB_OUT = 3,
    GAIN_HANDLER_UNMUTE_MAIN_OUT = 4,
    GAIN_HANDLER_UNMUTE_SUB_OUT = 5,
    GAIN_HANDLER_AUDIO_GAIN_OUT = 6, /**< writes the outputs; its gain stays at full */
};

inline constexpr int GAIN_HANDLER_COUNT = 7;

/** Thread names of the workers, by eKVGainHandlerType; also the gain sources' names in the popup. */
inline const std::array<std::string, GAIN_HANDLER_COUNT> GainHandlerName = {
    "", "PulseRampH", "PlayerMainOutH", "PlayerSubOutH", "UnMuteMainOutH", "UnMuteSubOutH", "AudioGainOutH",
};

/**
 * The gain controller: keeps a gain for each source and output, multiplies them into one total for each
 * output and writes that to the audio hardware as the output's gain2. Six workers move gains over time.
 *
 * Gains are percentages, at most 100; a larger one is ignored, a negative one is taken as it is. An audio
 * path is a bit mask: 1 main output, 2 sub output. Statuses are 0, -1 failed, -2 invalid argument. Callable
 * from any thread; no lock is waited for longer than 3 s.
 *
 * Lock order: a worker's own m_handlerMutex, then m_srcGainMutex[GAIN_HANDLER_AUDIO_GAIN_OUT] (the write of
 * the outputs), then one other m_srcGainMutex or m_pulseMutex at a time. Requesters set values and notify;
 * they never take a worker's mutex. A request in the moment in which its worker neither looks nor waits is
 * therefore not remembered.
 */
class KVAudioGainHandler {
public:
    /** Starts the workers and brings both outputs to full gain.
     *  @throw std::system_error when a thread cannot be started */
    KVAudioGainHandler();
    /** Ends the workers. A fade-in under way is finished first (at most 1.5 s from 0), of a ramp only the
     * step. */
    ~KVAudioGainHandler();
    KVAudioGainHandler(const KVAudioGainHandler&) = delete;
    KVAudioGainHandler& operator=(const KVAudioGainHandler&) = delete;

    void SetSrcGain(eKVGainHandlerType type, int gain);
    /** @param[out] gain untouched when the slot could not be locked */
    void GetSrcGain(eKVGainHandlerType type, int& gain);
    /** @param path 1 or 3 for the main output, 2 for the sub output
     *  @param[out] gain product of the three sources in percent, truncated toward zero */
    void GetAudioGain(int path, int& gain);
    /** Write the total of one output, if the path has its bit and the hardware does not hold it already. */
    int SetMainOutGain2(int path);
    int SetSubOutGain2(int path);
    /** Writes the outputs of the path; the sub output not when the main one failed. */
    int SetAudioGain(int path);
    /** Stores, writes, and wakes the gain-out worker (direct) or the worker of the type. */
    int _ApplyAudioGain(eKVGainHandlerType type, int path, int gain, bool direct);

    /** Sets a gain at once. The unmute gain goes to both outputs whatever the path, unless a sub Bluetooth
     * zone exists; the player gain of path 3 is the main output's, written to both. */
    int ApplyAudioGain(KVDefine::eKVGainSrcType srcType, int gain, int path);
    /** Drops a gain to 0 and lets it fade in: 5 % each 75 ms. Routed like ApplyAudioGain. */
    int ApplyVolumeFadeIn(KVDefine::eKVGainSrcType srcType, int path);
    /** Ramps the pulse gain of both outputs in ten steps.
     *  @param gain above 100: the previous target and duration are used again
     *  @param duration milliseconds, 0 for at once
     *  @return always 0 */
    int ApplyPulseAudioGain(int gain, int duration);
    /** Whether unmute fade-ins, also those under way, stop where they are. */
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
    /** Announces a fade-in of half a second or more on the screen. */
    static void SendPopupMsg(eKVGainHandlerType type, std::chrono::duration<double> seconds);

private:
    void _StartWorkers();
    void _AwaitWorkers();
    void _StopWorkers();

    /** Slot t is guarded by m_srcGainMutex[t]. */
    std::array<int, GAIN_HANDLER_COUNT> m_srcGain;
    // Guarded by m_pulseMutex; times in milliseconds.
    int m_pulseTarget = KVDefine::GAIN_MAX;
    int m_pulseDuration = 0;
    /** Atomic: the gain-out worker reads it without the lock. */
    std::atomic<int> m_pulseOutPeriod{60};
    std::atomic<bool> m_pulseRequested{false};
    std::timed_mutex m_pulseMutex;
    /**
     * Entry t guards m_srcGain[t]; that of the gain-out worker
     * also serialises the writes of both outputs.
     */
    std::array<std::timed_mutex, GAIN_HANDLER_COUNT> m_srcGainMutex;
    /** Entry t is held by worker t whenever it does not wait. */
    std::array<std::mutex, GAIN_HANDLER_COUNT> m_handlerMutex;
    std::array<std::condition_variable, GAIN_HANDLER_COUNT> m_handlerCond;
    /** Whether worker t is moving its gain. */
    std::array<std::atomic<bool>, GAIN_HANDLER_COUNT> m_updating{};
    std::map<int, std::thread> m_threads;
    std::atomic<bool> m_running{true};
    std::atomic<bool> m_fadeInInterruptable{false};
    std::atomic<bool> m_gainControlDisabled{false};
    /** A sub Bluetooth zone exists: the unmute gains of the outputs are apart. */
    std::atomic<bool> m_subBTActive{false};
    /** Whether worker t has come, at least once, to where it holds its mutex and keeps it until it waits. */
    std::array<std::atomic<bool>, GAIN_HANDLER_COUNT> m_settled{};
};

}  // namespace NKavrel

#endif
