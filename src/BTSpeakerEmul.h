// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef BTSPEAKEREMUL_H
#define BTSPEAKEREMUL_H

#include <gio/gio.h>

#include "ExternalSpeaker.h"

namespace NKavrel {

/**
 * Replaces a Bluetooth speaker during development. It asks the Bluetooth connection manager for the volume
 * over D-Bus and hears of changes by a signal, so it does not watch the level key. Mute and support word come
 * from the settings keys of the real speaker.
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
    /** 0 while the emulator does not watch for changes. */
    unsigned int m_signalSubscriptionId = 0;
};

}  // namespace NKavrel

#endif
