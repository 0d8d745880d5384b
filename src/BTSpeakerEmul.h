// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef BTSPEAKEREMUL_H
#define BTSPEAKEREMUL_H

#include <gio/gio.h>

#include "ExternalSpeaker.h"

namespace NKavrel {

/**
 * Development stand-in for a Bluetooth speaker: the volume is asked of the Bluetooth connection manager over
 * D-Bus and its changes come as a signal; mute and support stay with the settings keys of the real one. The
 * level key is not watched.
 */
class BTSpeakerEmul : public ExternalSpeaker {
public:
    BTSpeakerEmul();
    ~BTSpeakerEmul() override;

    int SetVolume(int volume) override;
    int GetVolume(int& volume) override;
    void SetChangedCB() override;
    void UnsetChangedCB() override;

    static void OnVolumeLevelChanged(GDBusConnection* connection, const gchar* senderName,
                                     const gchar* objectPath, const gchar* interfaceName,
                                     const gchar* signalName, GVariant* parameters, gpointer userData);

private:
    /** Non-zero while changes are watched. */
    unsigned int m_signalSubscriptionId = 0;
};

}  // namespace NKavrel

#endif
