// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef SPEAKERPEER_H
#define SPEAKERPEER_H

#include <gio/gio.h>

#include "KVDebug.h"

namespace NKavrel {

/** The arguments of a "SpkVolumeChanged" signal. */
struct PeerVolume {
    int route = 0;
    int supportType = 0;
    int volume = 0;
};

/**
 * Where to reach the D-Bus peer of a speaker emulator. The peer keeps a volume and signals its changes. The
 * functions below log in the name of their caller.
 */
struct SpeakerPeer {
    const char* busName;
    const char* objectPath;
    const char* interfaceName;
};

/** Asks the peer and waits for its answer. @return the peer's own result, -1 if the call failed */
int GetPeerVolume(const SpeakerPeer& peer, int& volume, const CallSite& site = {});
/** Asks the peer and waits for its answer. @return 0 for any answer, -1 if the call failed */
int SetPeerVolume(const SpeakerPeer& peer, int volume, const CallSite& site = {});

/** Subscribes to "SpkVolumeChanged" on the daemon's own interface and path, from any sender, for both
 *  emulators alike. The callback runs on the main loop. */
guint SubscribeToPeers(GDBusConnection* connection, GDBusSignalCallback callback, gpointer userData);
/** Reads the signal's body. @return false, after an error line, if the body has another type */
bool ReadPeerVolume(GVariant* parameters, PeerVolume& changed, const CallSite& site = {});

}  // namespace NKavrel

#endif
