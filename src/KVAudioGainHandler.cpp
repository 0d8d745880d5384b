// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVAudioGainHandler.h"

#include <pthread.h>
#include <system_info.h>

#include <algorithm>
#include <cstdint>
#include <sstream>

#include "KVUtils.h"

namespace NKavrel {
namespace {

using namespace std::chrono_literals;
using KVDefine::AUDIO_PATH_BOTH;
using KVDefine::AUDIO_PATH_MAIN_OUT;
using KVDefine::AUDIO_PATH_SUB_OUT;
using KVDefine::FAILED;
using KVDefine::GAIN_MAX;
using KVDefine::INVALID_ARGUMENT;
using KVDefine::NO_ZONE;
using SteadyClock = std::chrono::steady_clock;

constexpr auto LOCK_TIMEOUT = 3s;
constexpr auto SETTLE_TIME = 200ms;  // enough for a worker that has read m_running to reach its wait

constexpr int FADE_STEP = 5;
constexpr auto FADE_INTERVAL = 75ms;
constexpr int PULSE_STEPS = 10;
constexpr int PULSE_STEPS_PER_WAKE = 3;
constexpr int PULSE_PERIODS = 20;
constexpr auto OUT_PERIOD = 60ms;
constexpr std::chrono::duration<double> POPUP_THRESHOLD = 0.5s;

constexpr const char* PROJECTOR_FEATURE = "com.norvik/featureconf/projector_feature_support";
constexpr const char* PROJECTOR_READY_KEY = "memory/projector/status/ready";

struct HardwareOutput {
    int path;
    int (*AudioControl::*getGain2)(int*);
    int (*AudioControl::*setGain2)(int);
};
constexpr HardwareOutput MAIN_OUT = {AUDIO_PATH_MAIN_OUT, &AudioControl::get_main_out_gain2,
                                     &AudioControl::set_main_out_gain2};
constexpr HardwareOutput SUB_OUT = {AUDIO_PATH_SUB_OUT, &AudioControl::get_sub_out_gain2,
                                    &AudioControl::set_sub_out_gain2};

// A request may carry any int, so sums and products wrap in 32 bits instead of overflowing.
int WrappingAdd(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int WrappingSubtract(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int WrappingMultiply(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

/** Waits at most LOCK_TIMEOUT. Logs an error of the caller if the mutex stays busy. */
bool LockInTime(KVTimedMutex& mutex, const CallSite& site = {}) KV_TRY_ACQUIRE(true, mutex) {
    if (mutex.try_lock_until(SteadyClock::now() + LOCK_TIMEOUT)) {
        return true;
    }
    LOGE_AT(site, "mutex lock failed");
    return false;
}

/** Writes the total of one output, unless the hardware holds it already. Logs in the name of the caller. */
int WriteOutput(KVAudioGainHandler& handler, const HardwareOutput& output, KVTimedMutex& writeMutex,
                const CallSite& site = {}) {
    if (!LockInTime(writeMutex, site)) {
        return FAILED;
    }
    const KVLockGuard lock(writeMutex, std::adopt_lock);
    const AudioControl* hardware = AudioControl_getInstance();
    if (IsNull(hardware, "AudioControl_getInstance is failed", site)) {
        return FAILED;
    }
    int total = 0;
    handler.GetAudioGain(output.path, total);
    int current = 0;
    (hardware->*output.getGain2)(&current);
    if (current == total) {
        return 0;
    }
    const int result = (hardware->*output.setGain2)(total);
    if (result != 0) {
        LOGE_AT(site, "Failed to set gain2(%d). ret:%d", total, result);
        return FAILED;
    }
    LOGI_AT(site, "[Path:%02x] gain2:%d", static_cast<unsigned int>(output.path), total);
    return 0;
}

/** Applies `gain` to the slots of a source and path. Logs in the name of the caller. */
int ApplyToSource(KVAudioGainHandler& handler, KVDefine::eKVGainSrcType srcType, int path, int gain,
                  bool direct, bool subBTActive, const CallSite& site = {}) {
    if ((path & AUDIO_PATH_BOTH) == 0) {
        LOGE_AT(site, "Invalid audioPath:%d", path);
        return INVALID_ARGUMENT;
    }
    const bool mainOut = (path & AUDIO_PATH_MAIN_OUT) != 0;
    switch (srcType) {
        case KVDefine::GAIN_SRC_PLAYER:
            return handler._ApplyAudioGain(
                mainOut ? GAIN_HANDLER_PLAYER_MAIN_OUT : GAIN_HANDLER_PLAYER_SUB_OUT, path, gain, direct);
        case KVDefine::GAIN_SRC_UNMUTE:
            if (subBTActive) {
                return mainOut ? handler._ApplyAudioGain(GAIN_HANDLER_UNMUTE_MAIN_OUT, AUDIO_PATH_MAIN_OUT,
                                                         gain, direct)
                               : handler._ApplyAudioGain(GAIN_HANDLER_UNMUTE_SUB_OUT, AUDIO_PATH_SUB_OUT,
                                                         gain, direct);
            }
            if (handler._ApplyAudioGain(GAIN_HANDLER_UNMUTE_MAIN_OUT, AUDIO_PATH_MAIN_OUT, gain, direct) !=
                0) {
                return FAILED;
            }
            return handler._ApplyAudioGain(GAIN_HANDLER_UNMUTE_SUB_OUT, AUDIO_PATH_SUB_OUT, gain, direct);
        default:
            LOGE_AT(site, "Invalid gainOut srcType:%d", static_cast<int>(srcType));
            return INVALID_ARGUMENT;
    }
}

/** @return false, after an error line of the caller, if the feature flag cannot be read */
bool AskProjectorFeature(bool& supported, const CallSite& site = {}) {
    supported = false;
    const int result = system_info_get_custom_bool(PROJECTOR_FEATURE, &supported);
    if (result != 0) {
        LOGE_AT(site, "Failed to get Projector FMS Key. ret:%d", result);
        return false;
    }
    return true;
}

void NameThread(eKVGainHandlerType type) {
    pthread_setname_np(pthread_self(), GainHandlerName[type].c_str());
}

/** Lets the constructor know that a worker holds its mutex and keeps it until it waits. */
void Settle(std::atomic<bool>& settled) {
    settled = true;
    settled.notify_all();
}

}  // namespace

KVAudioGainHandler::KVAudioGainHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_srcGain.fill(GAIN_MAX);
    _StartWorkers();
    for (int type = GAIN_HANDLER_NONE; type < GAIN_HANDLER_COUNT; ++type) {
        SetSrcGain(static_cast<eKVGainHandlerType>(type), GAIN_MAX);
        m_updating[type] = false;
    }
    const int result = ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, GAIN_MAX, AUDIO_PATH_BOTH);
    LOGI("Create AudioGainHandler. Reset AudioGain(MAX). ret:%d", result);
    SetAudioGainControlChangedCb();
    KVUtils::RegisterVconfChangedCb(KVDefine::SUB_BT_ZONE_KEY.c_str(), SubBTChangedCb, this);
    m_subBTActive = KVUtils::GetSubBTZoneID() != NO_ZONE;
}

KVAudioGainHandler::~KVAudioGainHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    _StopWorkers();
    UnsetAudioGainControlChangedCb();
    KVUtils::DeregisterVconfChangedCb(KVDefine::SUB_BT_ZONE_KEY.c_str(), SubBTChangedCb);
}

void KVAudioGainHandler::_StartWorkers() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const auto start = [this](int type, auto... body) {
        std::thread& thread = m_threads[type];  // allocated before the thread runs
        thread = std::thread(body...);
    };
    try {
        for (const auto type : {GAIN_HANDLER_UNMUTE_MAIN_OUT, GAIN_HANDLER_UNMUTE_SUB_OUT,
                                GAIN_HANDLER_PLAYER_MAIN_OUT, GAIN_HANDLER_PLAYER_SUB_OUT}) {
            start(type, FadeInGainHandler, type, this);
        }
        start(GAIN_HANDLER_PULSE_RAMP, PulseGainHandler, this);
        start(GAIN_HANDLER_AUDIO_GAIN_OUT, AudioGainOutHandler, this);
    } catch (...) {
        _AwaitWorkers();
        _StopWorkers();
        throw;
    }
    _AwaitWorkers();
}

void KVAudioGainHandler::_AwaitWorkers() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    for (const auto& [type, thread] : m_threads) {
        if (!thread.joinable()) {
            continue;  // this thread could not be started
        }
        m_settled[type].wait(false);
        // The mutex is free as soon as the worker waits.
        const std::lock_guard<std::mutex> waiting(m_handlerMutex[type]);
    }
}

void KVAudioGainHandler::_StopWorkers() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    m_running = false;
    std::this_thread::sleep_for(SETTLE_TIME);
    for (int type = GAIN_HANDLER_PULSE_RAMP; type < GAIN_HANDLER_COUNT; ++type) {
        m_handlerCond[type].notify_all();
    }
    for (auto& [type, thread] : m_threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    m_threads.clear();
}

void KVAudioGainHandler::SetSrcGain(eKVGainHandlerType type, int gain) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (gain > GAIN_MAX) {
        return;
    }
    if (!LockInTime(m_srcGainMutex[type])) {
        return;
    }
    const KVLockGuard lock(m_srcGainMutex[type], std::adopt_lock);
    m_srcGain[type] = gain;
}

void KVAudioGainHandler::GetSrcGain(eKVGainHandlerType type, int& gain) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!LockInTime(m_srcGainMutex[type])) {
        return;
    }
    const KVLockGuard lock(m_srcGainMutex[type], std::adopt_lock);
    gain = m_srcGain[type];
}

void KVAudioGainHandler::GetAudioGain(int path, int& gain) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const bool mainOut = (path & AUDIO_PATH_MAIN_OUT) != 0;
    int unmute = 0;
    int player = 0;
    int pulse = 0;
    GetSrcGain(mainOut ? GAIN_HANDLER_UNMUTE_MAIN_OUT : GAIN_HANDLER_UNMUTE_SUB_OUT, unmute);
    GetSrcGain(mainOut ? GAIN_HANDLER_PLAYER_MAIN_OUT : GAIN_HANDLER_PLAYER_SUB_OUT, player);
    GetSrcGain(GAIN_HANDLER_PULSE_RAMP, pulse);
    const int total = WrappingMultiply(pulse, WrappingMultiply(player, unmute)) / (GAIN_MAX * GAIN_MAX);
    LOGI("Path:%d player:%3d pulse:%3d unmute:%3d Total:%3d", path, player, pulse, unmute, total);
    gain = total;
}

int KVAudioGainHandler::SetMainOutGain2(int path) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if ((path & MAIN_OUT.path) == 0) {
        return 0;
    }
    return WriteOutput(*this, MAIN_OUT, m_srcGainMutex[GAIN_HANDLER_AUDIO_GAIN_OUT]);
}

int KVAudioGainHandler::SetSubOutGain2(int path) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if ((path & SUB_OUT.path) == 0) {
        return 0;
    }
    return WriteOutput(*this, SUB_OUT, m_srcGainMutex[GAIN_HANDLER_AUDIO_GAIN_OUT]);
}

int KVAudioGainHandler::SetAudioGain(int path) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_gainControlDisabled) {
        LOGE("Disable Gain Control");
        return 0;
    }
    const int result = SetMainOutGain2(path);
    return result != 0 ? result : SetSubOutGain2(path);
}

int KVAudioGainHandler::_ApplyAudioGain(eKVGainHandlerType type, int path, int gain, bool direct) {
    SetSrcGain(type, gain);
    if (SetAudioGain(path) != 0) {
        LOGE("Failed to set SetAudioGain(type:%d) path:%d. gain:%d", static_cast<int>(type), path, gain);
        return FAILED;
    }
    m_handlerCond[direct ? GAIN_HANDLER_AUDIO_GAIN_OUT : type].notify_all();
    return 0;
}

int KVAudioGainHandler::ApplyAudioGain(KVDefine::eKVGainSrcType srcType, int gain, int path) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return ApplyToSource(*this, srcType, path, gain, true, m_subBTActive);
}

int KVAudioGainHandler::ApplyVolumeFadeIn(KVDefine::eKVGainSrcType srcType, int path) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return ApplyToSource(*this, srcType, path, 0, false, m_subBTActive);
}

int KVAudioGainHandler::ApplyPulseAudioGain(int gain, int duration) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    SetPulseTargetValue(gain, duration);
    m_pulseRequested = true;
    m_handlerCond[GAIN_HANDLER_PULSE_RAMP].notify_all();
    return 0;
}

void KVAudioGainHandler::SetFadeInInterruptable(bool interruptable) {
    m_fadeInInterruptable = interruptable;
}

void KVAudioGainHandler::SetPulseTargetValue(int target, int duration) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (target > GAIN_MAX) {
        return;
    }
    if (!LockInTime(m_pulseMutex)) {
        return;
    }
    const KVLockGuard lock(m_pulseMutex, std::adopt_lock);
    m_pulseDuration = duration;
    m_pulseTarget = target;
    m_pulseOutPeriod = duration / PULSE_PERIODS;
}

void KVAudioGainHandler::GetPulseTargetValue(int& target, int& duration) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!LockInTime(m_pulseMutex)) {
        return;
    }
    const KVLockGuard lock(m_pulseMutex, std::adopt_lock);
    target = m_pulseTarget;
    duration = m_pulseDuration;
}

bool KVAudioGainHandler::IsMainOutUpdating() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return m_updating[GAIN_HANDLER_UNMUTE_MAIN_OUT] || m_updating[GAIN_HANDLER_PLAYER_MAIN_OUT] ||
           m_updating[GAIN_HANDLER_PULSE_RAMP];
}

bool KVAudioGainHandler::IsSubOutUpdating() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return m_updating[GAIN_HANDLER_UNMUTE_SUB_OUT] || m_updating[GAIN_HANDLER_PLAYER_SUB_OUT] ||
           m_updating[GAIN_HANDLER_PULSE_RAMP];
}

// A fade worker sleeps until a fade is requested, then raises the gain of its slot step by step. Meanwhile the
// gain-out worker writes the hardware. A running fade does not look at m_running.
void KVAudioGainHandler::FadeInGainHandler(eKVGainHandlerType type, void* self) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(self, "Invalid userData")) {
        return;
    }
    auto& handler = *static_cast<KVAudioGainHandler*>(self);
    const char* name = GainHandlerName[type].c_str();
    const bool isUnmute = type == GAIN_HANDLER_UNMUTE_MAIN_OUT || type == GAIN_HANDLER_UNMUTE_SUB_OUT;
    std::condition_variable& wake = handler.m_handlerCond[type];
    std::condition_variable& wakeGainOut = handler.m_handlerCond[GAIN_HANDLER_AUDIO_GAIN_OUT];
    NameThread(type);

    while (handler.m_running) {
        std::unique_lock<std::mutex> lock(handler.m_handlerMutex[type]);
        Settle(handler.m_settled[type]);
        handler.m_updating[type] = false;
        LOGI("Sleep %s", name);
        wake.wait(lock);
        if (!handler.m_running) {
            break;
        }
        const auto start = std::chrono::system_clock::now();
        handler.m_updating[type] = true;
        int gain = 0;
        handler.GetSrcGain(type, gain);
        LOGI("Wake %s. gain:%d", name, gain);
        wakeGainOut.notify_all();

        while (gain < GAIN_MAX) {
            if (isUnmute && handler.m_fadeInInterruptable) {
                LOGI("Interruptable status[type:%d]. gain:%d", static_cast<int>(type), gain);
                break;
            }
            handler.SetSrcGain(type, std::min(gain + FADE_STEP, GAIN_MAX));
            wake.wait_until(lock, SteadyClock::now() + FADE_INTERVAL);
            // If another request has changed the gain, the fade goes on from the new value.
            handler.GetSrcGain(type, gain);
        }
        LOGI("handlerGainType:%d, LastGain:%d", static_cast<int>(type), gain);
        wakeGainOut.notify_all();
        if (KVUtils::IsPopupSupported()) {
            SendPopupMsg(type, std::chrono::system_clock::now() - start);
        }
    }
    handler.m_updating[type] = false;
    LOGI("%s is done", name);
}

// Each turn of the pulse worker's loop starts a ramp, sets a gain at once, or makes one step of the running
// ramp. A request with duration 0 sets the gain at once and leaves the start and the remaining steps of a ramp
// as they are: on purpose, the ramp then goes on to the new target.
void KVAudioGainHandler::PulseGainHandler(void* self) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(self, "Invalid userData")) {
        return;
    }
    constexpr auto type = GAIN_HANDLER_PULSE_RAMP;
    auto& handler = *static_cast<KVAudioGainHandler*>(self);
    const char* name = GainHandlerName[type].c_str();
    std::condition_variable& wake = handler.m_handlerCond[type];
    NameThread(type);

    int remain = 0;
    unsigned int timeout = 0;  // in milliseconds; a negative duration makes it nearly endless
    int start = 0;
    int target = 0;
    int duration = 0;
    while (handler.m_running) {
        std::unique_lock<std::mutex> lock(handler.m_handlerMutex[type]);
        bool wakeGainOut = true;
        if (remain == 0) {
            Settle(handler.m_settled[type]);
            LOGI("remain count is %d, Nothing to do!", remain);
            handler.m_updating[type] = false;
            LOGI("Sleep %s", name);
            wake.wait(lock, [&handler] { return handler.m_pulseRequested || !handler.m_running; });
            if (!handler.m_running) {
                break;
            }
            handler.m_updating[type] = true;
            LOGI("Wake %s", name);
        } else {
            LOGI("remain count is %d, timedwait %u", remain, timeout);
            // NOLINTNEXTLINE(bugprone-spuriously-wake-up-functions): no predicate, a request shortens the step
            wake.wait_until(lock, SteadyClock::now() + std::chrono::milliseconds(timeout));
            wakeGainOut = remain % PULSE_STEPS_PER_WAKE == 0;
        }
        if (wakeGainOut) {
            handler.m_handlerCond[GAIN_HANDLER_AUDIO_GAIN_OUT].notify_all();
        }

        if (!handler.m_pulseRequested) {
            --remain;
            const int way = WrappingMultiply(PULSE_STEPS - remain, WrappingSubtract(target, start));
            const int gain = WrappingAdd(start, way / PULSE_STEPS);
            handler.SetSrcGain(type, gain);
            LOGI("Remain[%d]. gain:%d", remain, gain);
            continue;
        }
        handler.GetPulseTargetValue(target, duration);
        if (duration != 0) {
            handler.GetSrcGain(type, start);
            handler.m_pulseRequested = false;
            timeout = static_cast<unsigned int>(duration / PULSE_STEPS);
            LOGI("startVolume:%d, remainCount:%d, timeout:%u", start, PULSE_STEPS, timeout);
            remain = PULSE_STEPS;
        } else {
            handler.SetSrcGain(type, target);
            handler.SetAudioGain(AUDIO_PATH_BOTH);
            handler.m_pulseRequested = false;
        }
    }
    handler.m_updating[type] = false;
    LOGI("%s is done", name);
}

// The gain-out worker sleeps until a gain moves. It then writes the outputs whose gain moves, period by period,
// and at rest both outputs once more. WriteOutput skips a write that changes nothing.
void KVAudioGainHandler::AudioGainOutHandler(void* self) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(self, "Invalid userData")) {
        return;
    }
    constexpr auto type = GAIN_HANDLER_AUDIO_GAIN_OUT;
    auto& handler = *static_cast<KVAudioGainHandler*>(self);
    std::condition_variable& wake = handler.m_handlerCond[type];
    NameThread(type);

    while (handler.m_running) {
        std::unique_lock<std::mutex> lock(handler.m_handlerMutex[type]);
        Settle(handler.m_settled[type]);
        LOGI("Sleep AudioGainOut");
        wake.wait(lock);
        if (!handler.m_running) {
            break;
        }
        const bool mainOut = handler.IsMainOutUpdating();
        const bool subOut = handler.IsSubOutUpdating();
        LOGI("AudioGainOut. Update(M:%d/S:%d)", mainOut, subOut);
        do {
            if (handler.IsMainOutUpdating()) {
                handler.SetAudioGain(AUDIO_PATH_MAIN_OUT);
            }
            if (handler.IsSubOutUpdating()) {
                handler.SetAudioGain(AUDIO_PATH_SUB_OUT);
            }
            const std::chrono::milliseconds period =
                handler.m_pulseRequested ? std::chrono::milliseconds(handler.m_pulseOutPeriod.load())
                                         : OUT_PERIOD;
            wake.wait_until(lock, SteadyClock::now() + period);
        } while (handler.IsMainOutUpdating() || handler.IsSubOutUpdating());
        handler.SetAudioGain(AUDIO_PATH_BOTH);
    }
    LOGI("%s is done", GainHandlerName[type].c_str());
}

int KVAudioGainHandler::SetAudioGainControlChangedCb() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    bool supported = false;
    if (!AskProjectorFeature(supported)) {
        return FAILED;
    }
    if (!supported) {
        return 0;
    }
    KVUtils::RegisterVconfChangedCb(PROJECTOR_READY_KEY, AudioGainControlChangedCb, this);
    int ready = 0;  // not ready if the setting cannot be read
    KVUtils::VconfGetInt(PROJECTOR_READY_KEY, ready);
    m_gainControlDisabled = ready == 0;
    LOGI("Key[%s] value:%d, %sable Gain control", PROJECTOR_READY_KEY, ready, ready == 0 ? "Dis" : "En");
    return 0;
}

int KVAudioGainHandler::UnsetAudioGainControlChangedCb() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    bool supported = false;
    if (!AskProjectorFeature(supported)) {
        return FAILED;
    }
    if (supported) {
        KVUtils::DeregisterVconfChangedCb(PROJECTOR_READY_KEY, AudioGainControlChangedCb);
    }
    return 0;
}

// The two key callbacks write no gain: the hardware gets the totals at the next write.
void KVAudioGainHandler::AudioGainControlChangedCb(keynode_t* node, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(node, "pKeyNode is NULL") || IsNull(data, "data is NULL")) {
        return;
    }
    const int ready = vconf_keynode_get_int(node);
    static_cast<KVAudioGainHandler*>(data)->m_gainControlDisabled = ready == 0;
    LOGI("Key[%s] Changed:%d, gain control is %sabled", PROJECTOR_READY_KEY, ready,
         ready != 0 ? "En" : "Dis");
}

void KVAudioGainHandler::SubBTChangedCb(keynode_t* node, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(node, "pKeyNode is NULL") || IsNull(data, "data is NULL")) {
        return;
    }
    const int zone = vconf_keynode_get_int(node);
    static_cast<KVAudioGainHandler*>(data)->m_subBTActive = zone != NO_ZONE;
    LOGI("Key[%s] Changed to %d", KVDefine::SUB_BT_ZONE_KEY.c_str(), zone);
}

void KVAudioGainHandler::SendPopupMsg(eKVGainHandlerType type, std::chrono::duration<double> seconds) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if ((seconds - POPUP_THRESHOLD).count() < 0) {
        LOGE("Time(%f) is under (%f)", seconds.count(), POPUP_THRESHOLD.count());
        return;
    }
    std::ostringstream message;
    message << "Gain Source:" << GainHandlerName[type] << "<br> Duration(sec):" << seconds.count();
    LOGI("MSG :%s", message.str().c_str());
    KVUtils::DbusEmitSignal("/Org/Olvane/KVPopupNoti", "org.olvane.kv_popupnoti", "PopupNoti",
                            g_variant_new("(s)", message.str().c_str()));
}

}  // namespace NKavrel
