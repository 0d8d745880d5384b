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
 * The D-Bus peer behind a speaker emulator: it keeps a volume and tells of its changes. Everything is logged
 * as the emulator's operation that asks.
 */
class SpeakerPeer {
public:
    constexpr SpeakerPeer(const char* busName, const char* objectPath, const char* interfaceName)
        : m_busName(busName), m_objectPath(objectPath), m_interfaceName(interfaceName) {}

    /** Blocks until the peer answers. @return the peer's own result, -1 when the call failed */
    int GetVolume(int& volume, const CallSite& site) const;
    /** Blocks until the peer answers. @return 0 whatever the peer says, -1 when the call failed */
    int SetVolume(int volume, const CallSite& site) const;

    /** Every emulator hears the same signal, on the daemon's own interface and path, from any sender.
     *  The callback runs on the main loop. */
    static guint Subscribe(GDBusConnection* connection, GDBusSignalCallback callback, gpointer userData);
    /** @return whether the body was as it should be; if not, that is logged and nothing is stored */
    static bool ReadVolumeChanged(GVariant* parameters, PeerVolume& changed, const CallSite& site);

private:
    const char* m_busName;
    const char* m_objectPath;
    const char* m_interfaceName;
};

}  // namespace NKavrel

#endif
