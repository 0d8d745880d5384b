// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "ISpeaker.h"

#include <unistd.h>

#include "BTSpeakerEmul.h"
#include "ExternalSpeaker.h"
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
    switch (route) {
        case 0:
        case 6:
        case 11:
        case 12:
        case 13:
        case 14:
            if (Exists(TV_EMULATOR_SWITCH)) {
                LOGI("Create TV Speaker Emulator");
                return new TVSpeakerEmul();
            }
            LOGI("Create TV Speaker");
            return new TVSpeaker();
        case 1:
        case 9:
            LOGI("Create Optical Speaker");
            return new OpticalSpeaker();
        case 2:
        case 8:
            LOGI("Create HDMI Speaker");
            return new HDMISpeaker();
        case 3:
        case 5:
            if (Exists(BT_EMULATOR_SWITCH)) {
                LOGI("Create BT Speaker Emulator");
                return new BTSpeakerEmul();
            }
            LOGI("Create BT Speaker");
            return new BTSpeaker();
        case 4:
        case 10:
            LOGI("Create WIFI Speaker");
            return new WifiSpeaker();
        case 15:
            LOGI("Create USB Speaker");
            return new USBSpeaker();
        case 19:
            LOGI("Create Auracast Speaker");
            return new AuracastSpeaker();
        default:
            LOGI("Type(%d) is invalid, Create Unknown Speaker", route);
            return new UnknownSpeaker();
    }
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

void StoreHandlers(VolumeEventHandler_t& volumeSlot, MuteEventHandler_t& muteSlot,
                   const VolumeEventHandler_t& volumeHandler, const MuteEventHandler_t& muteHandler,
                   const CallSite& site) {
    if (volumeSlot) {
        LOGE_AT(site, "Already set event handler");
        return;
    }
    volumeSlot = volumeHandler;
    muteSlot = muteHandler;
}

void ClearHandlers(VolumeEventHandler_t& volumeSlot, MuteEventHandler_t& muteSlot, const CallSite& site) {
    if (!volumeSlot) {
        LOGE_AT(site, "Already unset event handler");
        return;
    }
    volumeSlot = nullptr;
    muteSlot = nullptr;
}

}  // namespace NKavrel
