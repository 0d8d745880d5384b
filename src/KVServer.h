// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVSERVER_H
#define KVSERVER_H

#include <gio/gio.h>

#include <atomic>
#include <memory>

#include "KVDbusEventHandler.h"
#include "KVDbusSender.h"
#include "VolumeControlImpl.h"

namespace NKavrel {

/**
 * The daemon on the bus: owns the name and the exported object, receives all method calls and signals, and
 * announces changes of volume and mute. Everything runs on the main loop, but for the three change handlers,
 * which run on the thread that reports the change.
 */
class KVServer {
public:
    KVServer();
    /** Leaves the bus first and the volume control object last. Nothing may report then, and the main loop
     * may not run again. */
    ~KVServer();
    KVServer(const KVServer&) = delete;
    KVServer& operator=(const KVServer&) = delete;

    /** Once. The bus callbacks come when the main loop runs.
     *  @return whether the interface description could be compiled; if not, nothing else was done */
    bool Init();
    /** The volume control object, made by the first call. */
    std::unique_ptr<VolumeControlImpl>& getCurrentSpeaker();

    static void onBusAcquired(GDBusConnection* connection, const gchar* name, gpointer user_data);
    static void onNameAcquired(GDBusConnection* connection, const gchar* name, gpointer user_data);
    static void onNameLost(GDBusConnection* connection, const gchar* name, gpointer user_data);

    static void methodCallHandler(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                                  const gchar* interface_name, const gchar* method_name, GVariant* parameters,
                                  GDBusMethodInvocation* invocation, gpointer user_data);
    static void signalCallHandler(GDBusConnection* connection, const gchar* sender_name,
                                  const gchar* object_path, const gchar* interface_name,
                                  const gchar* signal_name, GVariant* parameters, gpointer user_data);

    /** Broadcast the change while the name is owned; otherwise it is lost. */
    static void onVolumeChanged(int supportType, int volume, void* server);
    static void onMuteChanged(int supportType, int mute, void* server);
    /** Not broadcast: mutes the new output if that was requested, else brings its unmute gain to full. */
    static void onSpeakerChanged(int supportType, int speaker, void* server);

private:
    struct NodeInfoDeleter {
        void operator()(GDBusNodeInfo* info) const { g_dbus_node_info_unref(info); }
    };

    /** First, so that it outlives all that may call into it. */
    std::unique_ptr<VolumeControlImpl> m_volumeControl;
    std::unique_ptr<KVDbusEventHandler> m_eventHandler;
    std::unique_ptr<KVDbusSender> m_sender;
    /** Of the owned name, not referenced; null while the name is not owned. Atomic: written on the main loop,
     *  read by change handlers on any thread. */
    std::atomic<GDBusConnection*> m_connection{nullptr};
    std::unique_ptr<GDBusNodeInfo, NodeInfoDeleter> m_introspectionData;
    guint m_busOwnerId = 0;
    /** Kept when the name is lost. */
    guint m_DbusRegisterObjId = 0;
};

}  // namespace NKavrel

#endif
