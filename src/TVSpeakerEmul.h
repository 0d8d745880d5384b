// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef TVSPEAKEREMUL_H
#define TVSPEAKEREMUL_H

#include <gio/gio.h>

#include "TVSpeaker.h"

namespace NKavrel {

/**
 * Replaces the TV speaker during development: a D-Bus peer keeps the volume, the audio HAL keeps mute. It has
 * handlers and a flag of its own. The inherited handlers stay empty, so its destruction logs "Already unset
 * event handler" for each pair.
 */
class TVSpeakerEmul : public TVSpeaker {
public:
    TVSpeakerEmul();
    ~TVSpeakerEmul() override;

    int SetVolume(int volume) override;
    int GetVolume(int& volume) override;
    void SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                         const MuteEventHandler_t& muteHandler) override;
    void UnsetEventHandler() override;
    void SetChangedCB() override;
    void UnsetChangedCB() override;

    static void VolumeChangedCB(GDBusConnection* connection, const gchar* senderName, const gchar* objectPath,
                                const gchar* interfaceName, const gchar* signalName, GVariant* parameters,
                                gpointer userData);
    static void MuteChangedCB(unsigned int mute, void* data);

private:
    /** Valid only while m_changedCBRegistered is true. */
    unsigned int m_signalSubscriptionId = 0;
    bool m_changedCBRegistered = false;
    VolumeEventHandler_t m_volumeHandler;
    MuteEventHandler_t m_muteHandler;
};

}  // namespace NKavrel

#endif
