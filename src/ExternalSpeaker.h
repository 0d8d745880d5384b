// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef EXTERNALSPEAKER_H
#define EXTERNALSPEAKER_H

#include <vconf.h>

#include <atomic>
#include <string>

#include "ISpeaker.h"

namespace NKavrel {

/** The Bluetooth speaker's name in its settings keys. Its emulator uses the same keys. */
inline constexpr const char* BT_DEVICE = "bt";

/**
 * Drives an output outside the TV. The output's own component publishes the device's support word, level and
 * mute in three settings keys. Requests go into two keys that all external outputs share, the USB one
 * included. Only a change of the device's own keys shows that it has carried out a request.
 *
 * All external speakers share one static callback; the platform tells registrations apart by key and
 * callback.
 */
class ExternalSpeaker : public ISpeaker {
public:
    ExternalSpeaker(const std::string& supportKey, const std::string& volumeLevelKey,
                    const std::string& volumeMuteKey);
    /** For a device whose three keys differ from those of other devices only in this name. */
    explicit ExternalSpeaker(const std::string& device);
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

    /** Whether the support word has all bits of `flag` (eVolumeSupport). Reads the key while the word is 0. */
    bool CheckSupport(int flag);

    static void OnVolumeControlChanged(keynode_t* keyNode, void* data);

protected:
    std::string m_supportKey;
    std::string m_volumeLevelKey;
    std::string m_volumeMuteKey;
    std::string m_setVolumeLevelKey;
    std::string m_setVolumeMuteKey;
    /** The support word, 0 while unknown. Atomic because the platform's thread stores a changed word. */
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
