// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef EXTERNALSPEAKER_H
#define EXTERNALSPEAKER_H

#include <vconf.h>

#include <atomic>
#include <string>

#include "ISpeaker.h"

namespace NKavrel {

/** The Bluetooth speaker's keys, which its emulator uses too. */
inline constexpr const char* BT_SUPPORT_KEY = "memory/menu/network/screenmirroring/volume_support_bt";
inline constexpr const char* BT_VOLUME_LEVEL_KEY = "memory/menu/network/screenmirroring/get_volume_level_bt";
inline constexpr const char* BT_VOLUME_MUTE_KEY = "memory/menu/network/screenmirroring/get_volume_mute_bt";

/**
 * An output outside the TV. A component of its own publishes the device's support word, level and mute in
 * three settings keys; requests go into two keys that all external outputs share, the USB one included.
 * What the device does with a request shows only as a change of its own keys.
 *
 * All external speakers share one static callback: the platform tells registrations apart by key and
 * callback.
 */
class ExternalSpeaker : public ISpeaker {
public:
    ExternalSpeaker(const std::string& supportKey, const std::string& volumeLevelKey,
                    const std::string& volumeMuteKey);
    ~ExternalSpeaker() override;

    int SetVolume(int volume) override;
    int GetVolume(int& volume) override;
    int SetVolumeMute(bool mute) override;
    int GetVolumeMute(bool& mute) override;
    int GetVolumeSupportType(int& supportType) override;
    void SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                         const MuteEventHandler_t& muteHandler) override;
    void UnsetEventHandler() override;
    void SetChangedCB() override;
    void UnsetChangedCB() override;

    /** Whether the device has all bits of `flag` (eVolumeSupport). Asks the device while its word is 0. */
    bool CheckSupport(int flag);

    static void OnVolumeControlChanged(keynode_t* keyNode, void* data);

protected:
    std::string m_supportKey;
    std::string m_volumeLevelKey;
    std::string m_volumeMuteKey;
    std::string m_setVolumeLevelKey;
    std::string m_setVolumeMuteKey;
    /** The device's word, 0 while unknown. Atomic: the platform's thread stores what the device announces. */
    std::atomic<int> m_supportFlags{0};
    VolumeEventHandler_t m_volumeHandler;
    MuteEventHandler_t m_muteHandler;

private:
    bool m_changedCBRegistered = false;
};

class HDMISpeaker : public ExternalSpeaker {
public:
    HDMISpeaker();
    ~HDMISpeaker() override;
};

class OpticalSpeaker : public ExternalSpeaker {
public:
    OpticalSpeaker();
    ~OpticalSpeaker() override;
};

class WifiSpeaker : public ExternalSpeaker {
public:
    WifiSpeaker();
    ~WifiSpeaker() override;
};

class USBSpeaker : public ExternalSpeaker {
public:
    USBSpeaker();
    ~USBSpeaker() override;
};

class BTSpeaker : public ExternalSpeaker {
public:
    BTSpeaker();
    ~BTSpeaker() override;
};

class AuracastSpeaker : public ExternalSpeaker {
public:
    AuracastSpeaker();
    ~AuracastSpeaker() override;
};

}  // namespace NKavrel

#endif
