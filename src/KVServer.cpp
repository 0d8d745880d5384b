// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVServer.h"

#include <lwipc.h>

#include <csignal>

#include "KVDebug.h"
#include "KVDefine.h"
#include "KVUtils.h"

/** The introspection XML. The build makes it from the file that is installed too. */
extern "C" const char kavrel_interface_xml[];

namespace NKavrel {
namespace {

using KVDefine::BUS_NAME;
using KVDefine::PUBLIC_PATH;
using KVUtils::MessageOf;

const char* const INTERFACE_NAME = BUS_NAME.c_str();
constexpr const char* OBJECT_PATH = "/Org/Olvane/KavrelInternal";
constexpr const char* READY_EVENT = "/tmp/.kavrel_ready";

bool IsConnectionNull(const void* connection, const CallSite& site = {}) {
    return IsNull(connection, "Connection is NULL", site);
}

bool IsServerNull(const void* server, const CallSite& site = {}) {
    return IsNull(server, "pObj is NULL", site);
}

/** Broadcasts a change. If that fails, logs an error of the caller; the change is lost. */
void EmitChange(GDBusConnection* connection, const char* signalName, GVariant* parameters,
                const CallSite& site = {}) {
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_connection_emit_signal(connection, nullptr, OBJECT_PATH, INTERFACE_NAME, signalName,
                                       parameters, &error)) {
        LOGE_AT(site, "Failed g_dbus_connection_emit_signal(). err=%s", MessageOf(error));
    }
}

/**
 * Ends the process when GDBus closes the connection because it cannot read a message: the bus lets values nest
 * deeper than GDBus reads them. GDBus itself ends the process only when the bus has closed the connection. A
 * daemon without a bus serves nobody, and its supervisor starts a new one.
 */
void OnClosed(GDBusConnection* /*connection*/, gboolean isByPeer, const GError* error, gpointer /*unused*/) {
    if (!isByPeer && error != nullptr) {
        raise(SIGTERM);
    }
}

}  // namespace

KVServer::KVServer() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

KVServer::~KVServer() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    GDBusConnection* connection = m_connection;
    if (connection != nullptr && m_DbusRegisterObjId != 0) {
        const gboolean done = g_dbus_connection_unregister_object(connection, m_DbusRegisterObjId);
        LOGE("unregister_object() result %s", done ? "OK" : "FAILED");
    }
    m_filter.reset();
    m_sender.reset();
    if (m_eventHandler != nullptr) {
        m_eventHandler->Deinit();
        m_eventHandler.reset();
    }
    if (m_busOwnerId != 0) {
        g_bus_unown_name(m_busOwnerId);
    }
    m_introspectionData.reset();
    // The first field destroys the volume control object after this. A reset() here would empty the pointer
    // first, and a report in that moment would make a second object.
}

bool KVServer::Init() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    g_autoptr(GError) error = nullptr;
    m_introspectionData.reset(g_dbus_node_info_new_for_xml(kavrel_interface_xml, &error));
    if (m_introspectionData == nullptr) {
        LOGE("Failed g_dbus_node_info_new_for_xml. %s", MessageOf(error));
        return false;
    }
    m_busOwnerId = g_bus_own_name(G_BUS_TYPE_SYSTEM, BUS_NAME.c_str(), G_BUS_NAME_OWNER_FLAGS_NONE,
                                  onBusAcquired, onNameAcquired, onNameLost, this, nullptr);
    LOGI("g_bus_own_name return %d", static_cast<int>(m_busOwnerId));

    VolumeControlImpl& control = *getCurrentSpeaker();
    {
        const auto lock = control.WaitForLock();
        control.SetEventHandler(KVDefine::VOLUME_CHANGED, [this](int supportType, int volume) {
            onVolumeChanged(supportType, volume, this);
        });
        control.SetEventHandler(KVDefine::MUTE_CHANGED, [this](int supportType, int mute) {
            onMuteChanged(supportType, mute, this);
        });
        control.SetEventHandler(KVDefine::SPEAKER_CHANGED, [this](int supportType, int speaker) {
            onSpeakerChanged(supportType, speaker, this);
        });
    }
    m_sender = std::make_unique<KVDbusSender>();
    m_eventHandler = std::make_unique<KVDbusEventHandler>();
    m_eventHandler->Init();
    return true;
}

std::unique_ptr<VolumeControlImpl>& KVServer::getCurrentSpeaker() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_volumeControl == nullptr) {
        m_volumeControl = std::make_unique<VolumeControlImpl>();
    }
    return m_volumeControl;
}

void KVServer::onBusAcquired(GDBusConnection* connection, const gchar* /*name*/, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsConnectionNull(connection) || IsServerNull(user_data)) {
        return;
    }
    static const GDBusInterfaceVTable VTABLE = {methodCallHandler, nullptr, nullptr, {}};
    auto* self = static_cast<KVServer*>(user_data);
    if (self->m_filter == nullptr || !self->m_filter->IsOn(connection)) {
        self->m_filter = std::make_unique<KVMessageFilter>(
            connection, *self->m_introspectionData->interfaces[0], OBJECT_PATH, PUBLIC_PATH.c_str());
        g_signal_connect(connection, "closed", G_CALLBACK(OnClosed), nullptr);
    }
    g_autoptr(GError) error = nullptr;
    self->m_DbusRegisterObjId = g_dbus_connection_register_object(
        connection, OBJECT_PATH, self->m_introspectionData->interfaces[0], &VTABLE, self, nullptr, &error);
    if (self->m_DbusRegisterObjId == 0) {
        LOGE("Failed g_dbus_connection_register_object(). %s", MessageOf(error));
        return;
    }
    LOGI("m_DbusRegisterObjId:%u", self->m_DbusRegisterObjId);
    g_dbus_connection_signal_subscribe(connection, nullptr, INTERFACE_NAME, nullptr, PUBLIC_PATH.c_str(),
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, signalCallHandler, self, nullptr);
}

void KVServer::onNameAcquired(GDBusConnection* connection, const gchar* /*name*/, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsConnectionNull(connection) || IsServerNull(user_data)) {
        return;
    }
    static_cast<KVServer*>(user_data)->m_connection = connection;
    LwipcEventDone(READY_EVENT);
}

void KVServer::onNameLost(GDBusConnection* connection, const gchar* /*name*/, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsConnectionNull(connection) || IsServerNull(user_data)) {
        return;
    }
    auto* self = static_cast<KVServer*>(user_data);
    const guint objectId = self->m_DbusRegisterObjId;
    self->m_connection = nullptr;
    g_dbus_connection_unregister_object(connection, objectId);
    LwipcResetEvent(READY_EVENT);
}

// Not traced, like everything that concerns the filter: the trace is the same with and without one.
KVMessageFilter::Waiting KVServer::TakeMessage(const GVariant* parameters) {
    return m_filter != nullptr ? m_filter->Take(parameters) : nullptr;
}

void KVServer::methodCallHandler(GDBusConnection* connection, const gchar* sender,
                                 const gchar* /*object_path*/, const gchar* /*interface_name*/,
                                 const gchar* method_name, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    // The third text says "signal" on purpose: log readers search for it.
    if (IsConnectionNull(connection) || IsNull(invocation, "invocation is NULL") ||
        IsNull(method_name, "signal_name is NULL") || IsNull(user_data, "user data is NULL")) {
        return;
    }
    auto* self = static_cast<KVServer*>(user_data);
    const KVMessageFilter::Waiting message = self->TakeMessage(parameters);
    const std::string caller = sender != nullptr ? sender : "";
    LOGI("Start sender:%s method_name:%s", caller.c_str(), method_name);
    self->m_sender->m_messageInHand = message;
    self->m_sender->Print(caller);
    self->m_eventHandler->OnMethodCall(method_name, parameters, invocation, self->getCurrentSpeaker().get());
}

void KVServer::signalCallHandler(GDBusConnection* connection, const gchar* sender_name,
                                 const gchar* /*object_path*/, const gchar* /*interface_name*/,
                                 const gchar* signal_name, GVariant* parameters, gpointer user_data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsConnectionNull(connection) || IsNull(sender_name, "sender is NULL") ||
        IsNull(signal_name, "signal_name is NULL") || IsNull(user_data, "user data is NULL")) {
        return;
    }
    auto* self = static_cast<KVServer*>(user_data);
    const KVMessageFilter::Waiting message = self->TakeMessage(parameters);
    LOGI("Start sender:%s signal_name:%s", sender_name, signal_name);
    self->m_sender->m_messageInHand = message;
    self->m_sender->Print(sender_name);
    self->m_eventHandler->OnSignal(signal_name, parameters, self->getCurrentSpeaker().get());
}

void KVServer::onVolumeChanged(int supportType, int volume, void* server) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsServerNull(server)) {
        return;
    }
    GDBusConnection* connection = static_cast<KVServer*>(server)->m_connection;
    if (IsConnectionNull(connection)) {
        return;
    }
    LOGI("Send dbus signal VolumeChanged : %d", volume);
    EmitChange(connection, "SpeakerVolumeChanged", g_variant_new("(ii)", supportType, volume));
}

void KVServer::onMuteChanged(int supportType, int mute, void* server) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsServerNull(server)) {
        return;
    }
    GDBusConnection* connection = static_cast<KVServer*>(server)->m_connection;
    if (IsConnectionNull(connection)) {
        return;
    }
    const gboolean muted = mute != 0;
    LOGI("Send dbus signal MuteChanged : %d", muted);
    EmitChange(connection, "SpeakerMuteChanged", g_variant_new("(ib)", supportType, muted));
}

void KVServer::onSpeakerChanged(int supportType, int speaker, void* server) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsServerNull(server)) {
        return;
    }
    VolumeControlImpl& control = *static_cast<KVServer*>(server)->getCurrentSpeaker();
    const int previous = control.GetPrevSpeakerSelection();
    if (previous == speaker) {
        LOGE("Speaker type is same:%d", speaker);
        return;
    }
    int result = 0;
    if (control.GetMuteOnSpkChanged()) {
        control.SetTVVolumeMute(true);
        control.SetMuteOnSpkChanged(false);
    } else {
        result = control.ApplyAudioGain(KVDefine::GAIN_SRC_UNMUTE, KVDefine::GAIN_MAX,
                                        KVDefine::AUDIO_PATH_BOTH, true);
    }
    LOGI("Speaker changed[%d->%d]. mode:0x%04x, gainMax(ret:%d)", previous, speaker,
         static_cast<unsigned int>(supportType), result);
}

}  // namespace NKavrel
