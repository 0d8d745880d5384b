// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ISpeaker.h"

#include <unistd.h>

#include "BTSpeakerEmul.h"
#include "ExternalSpeaker.h"
#include "Routes.h"
#include "TVSpeaker.h"
#include "TVSpeakerEmul.h"

namespace NKavrel {
namespace {

constexpr const char* TV_EMULATOR_SWITCH = "/opt/etc/.enable_tv_spk";
constexpr const char* BT_EMULATOR_SWITCH = "/opt/etc/.enable_bt_spk";

bool Exists(const char* path) {
    return access(path, F_OK) == 0;
}

}  // namespace

ISpeaker* ISpeaker::CreateSpeaker(sound_tv_output_route_e route) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    switch (OutputOf(route).kind) {
        case eSpeakerKind::TV:
            if (Exists(TV_EMULATOR_SWITCH)) {
                LOGI("Create TV Speaker Emulator");
                return new TVSpeakerEmul();
            }
            LOGI("Create TV Speaker");
            return new TVSpeaker();
        case eSpeakerKind::OPTICAL:
            LOGI("Create Optical Speaker");
            return new OpticalSpeaker();
        case eSpeakerKind::HDMI:
            LOGI("Create HDMI Speaker");
            return new HDMISpeaker();
        case eSpeakerKind::BT:
            if (Exists(BT_EMULATOR_SWITCH)) {
                LOGI("Create BT Speaker Emulator");
                return new BTSpeakerEmul();
            }
            LOGI("Create BT Speaker");
            return new BTSpeaker();
        case eSpeakerKind::WIFI:
            LOGI("Create WIFI Speaker");
            return new WifiSpeaker();
        case eSpeakerKind::USB:
            LOGI("Create USB Speaker");
            return new USBSpeaker();
        case eSpeakerKind::AURACAST:
            LOGI("Create Auracast Speaker");
            return new AuracastSpeaker();
        case eSpeakerKind::UNKNOWN:
            break;
    }
    LOGI("Type(%d) is invalid, Create Unknown Speaker", route);
    return new UnknownSpeaker();
}

UnknownSpeaker::UnknownSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

UnknownSpeaker::~UnknownSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

int UnknownSpeaker::SetVolume(int /*volume*/) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return 0;
}

int UnknownSpeaker::GetVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    volume = 0;
    return 0;
}

int UnknownSpeaker::SetVolumeMute(bool /*mute*/) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return 0;
}

int UnknownSpeaker::GetVolumeMute(bool& mute) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    mute = false;
    return 0;
}

int UnknownSpeaker::GetVolumeSupportType(int& supportType) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    supportType = 0;
    return 0;
}

void UnknownSpeaker::SetEventHandler(const VolumeEventHandler_t& /*volumeHandler*/,
                                     const MuteEventHandler_t& /*muteHandler*/) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void UnknownSpeaker::UnsetEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void UnknownSpeaker::SetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void UnknownSpeaker::UnsetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void StoreHandlers(VolumeEventHandler_t& storedVolume, MuteEventHandler_t& storedMute,
                   const VolumeEventHandler_t& volumeHandler, const MuteEventHandler_t& muteHandler,
                   const CallSite& site) {
    if (storedVolume) {
        LOGE_AT(site, "Already set event handler");
        return;
    }
    storedVolume = volumeHandler;
    storedMute = muteHandler;
}

void ClearHandlers(VolumeEventHandler_t& storedVolume, MuteEventHandler_t& storedMute, const CallSite& site) {
    if (!storedVolume) {
        LOGE_AT(site, "Already unset event handler");
        return;
    }
    storedVolume = nullptr;
    storedMute = nullptr;
}

}  // namespace NKavrel
