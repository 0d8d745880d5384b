// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_EMULATOR_H
#define KAVREL_TV_EMULATOR_H

#include <gio/gio.h>

#include <string>

#include "GLibPtr.h"
#include "MainLoop.h"

namespace tv {

/** One of the two speakers that an emulator of the daemon takes its volume from. */
struct Peer {
    const char* name;  // on the bus
    const char* path;
    const char* interface;
    int route;  // what it says of itself in its signals and answers
    int support;
};

extern const Peer TV_PEER;
extern const Peer BT_PEER;

/**
 * A speaker on the bus: answers "GetSpkVolume" and "SetSpkVolume", and announces each volume it is given with
 * "SpkVolumeChanged". Prints what it does.
 */
class Emulator {
public:
    /** @param result the last value of every answer of GetSpkVolume: 0 for success
     *  @throws ToolError if there is no bus; what happens to its name later ends the loop with one */
    Emulator(tools::MainLoop& loop, const Peer& peer, int volume, int result);
    ~Emulator();
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    /** Turned at the speaker itself. */
    void Turn(int volume);

private:
    static void OnCall(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interface, const char* method, GVariant* parameters,
                       GDBusMethodInvocation* invocation, void* self);
    static void OnNameAcquired(GDBusConnection* connection, const char* name, void* self);
    static void OnNameLost(GDBusConnection* connection, const char* name, void* self);
    void Answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation);
    void Register();

    tools::MainLoop& m_loop;
    const Peer& m_peer;
    int m_volume;
    const int m_result;
    tools::GLibPtr<GDBusConnection> m_connection;
    guint m_object = 0;
    guint m_name = 0;
};

}  // namespace tv

#endif
