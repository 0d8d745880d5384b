// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVSERVER_H
#define KVSERVER_H

#include <gio/gio.h>

#include <atomic>
#include <memory>

#include "KVDbusEventHandler.h"
#include "KVDbusSender.h"
#include "KVMessageFilter.h"
#include "VolumeControlImpl.h"

namespace NKavrel {

/**
 * Serves the bus: owns the name and the exported object, receives all method calls and signals, and
 * broadcasts changes of volume and mute. Everything runs on the main loop, except the three change handlers,
 * which run on the thread that reports the change.
 */
class KVServer {
public:
    KVServer();
    /** Leaves the bus first and destroys the volume control object last. The platform may not report
     *  meanwhile, and the main loop may not run afterwards. */
    ~KVServer();
    KVServer(const KVServer&) = delete;
    KVServer& operator=(const KVServer&) = delete;

    /** Call it once. The bus callbacks run when the main loop does.
     *  @return false, after doing nothing else, if the interface description cannot be compiled */
    bool Init();
    /** The volume control object. The first call makes it. */
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

    /** Broadcast the change. While the daemon does not own its name, the change is lost. */
    static void onVolumeChanged(int supportType, int volume, void* server);
    static void onMuteChanged(int supportType, int mute, void* server);
    /** Mutes the new output if that was requested, else sets its unmute gain to 100. Broadcasts nothing. */
    static void onSpeakerChanged(int supportType, int speaker, void* server);

private:
    KVMessageFilter::Waiting TakeMessage(const GVariant* parameters);

    struct NodeInfoDeleter {
        void operator()(GDBusNodeInfo* info) const { g_dbus_node_info_unref(info); }
    };

    /** The first field, so that it outlives everything that calls it. */
    std::unique_ptr<VolumeControlImpl> m_volumeControl;
    std::unique_ptr<KVDbusEventHandler> m_eventHandler;
    std::unique_ptr<KVDbusSender> m_sender;
    /** The connection that owns the name, or null. Holds no reference. Atomic because the main loop writes it
     *  and change handlers read it on any thread. */
    std::atomic<GDBusConnection*> m_connection{nullptr};
    std::unique_ptr<GDBusNodeInfo, NodeInfoDeleter> m_introspectionData;
    /** Null until the bus is acquired. */
    std::unique_ptr<KVMessageFilter> m_filter;
    guint m_busOwnerId = 0;
    /** Keeps its value when the name is lost. */
    guint m_DbusRegisterObjId = 0;
};

}  // namespace NKavrel

#endif
