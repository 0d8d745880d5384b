// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef TVSPEAKER_H
#define TVSPEAKER_H

#include "ISpeaker.h"

namespace NKavrel {

/**
 * Drives the TV's own speaker: the audio HAL's master volume and mute. Operations return the HAL's error
 * codes. The object is the user data of both HAL callbacks, so call UnsetChangedCB before destroying it.
 */
class TVSpeaker : public ISpeaker {
public:
    TVSpeaker();
    ~TVSpeaker() override;

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

    static void VolumeChangedCallback(unsigned int volume, void* data);
    static void MuteChangedCallback(unsigned int mute, void* data);

private:
    bool m_changedCBRegistered = false;
    VolumeEventHandler_t m_volumeHandler;
    MuteEventHandler_t m_muteHandler;
};

}  // namespace NKavrel

#endif
