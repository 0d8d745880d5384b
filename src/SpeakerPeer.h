// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef SPEAKERPEER_H
#define SPEAKERPEER_H

#include <gio/gio.h>

#include "KVDebug.h"

namespace NKavrel {

/** What a "SpkVolumeChanged" signal carries. */
struct PeerVolume {
    int route = 0;
    int supportType = 0;
    int volume = 0;
};

/**
 * The D-Bus peer behind a speaker emulator: it keeps a volume and tells of its changes. What the functions
 * below log is logged as the emulator's operation that asks.
 */
struct SpeakerPeer {
    const char* busName;
    const char* objectPath;
    const char* interfaceName;
};

/** Blocks until the peer answers. @return the peer's own result, -1 when the call failed */
int GetPeerVolume(const SpeakerPeer& peer, int& volume, const CallSite& site = {});
/** Blocks until the peer answers. @return 0 whatever the peer says, -1 when the call failed */
int SetPeerVolume(const SpeakerPeer& peer, int volume, const CallSite& site = {});

/** Every emulator hears the same signal, on the daemon's own interface and path, from any sender.
 *  The callback runs on the main loop. */
guint SubscribeToPeers(GDBusConnection* connection, GDBusSignalCallback callback, gpointer userData);
/** @return whether the body was as it should be; if not, that is logged and nothing is stored */
bool ReadPeerVolume(GVariant* parameters, PeerVolume& changed, const CallSite& site = {});

}  // namespace NKavrel

#endif
