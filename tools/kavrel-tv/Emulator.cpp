// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Emulator.h"

#include <memory>

#include "Clock.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "Print.h"

namespace tv {

// The TV emulator calls its peer under the daemon's own name, which nobody else can own: this one stands
// beside it.
const Peer TV_PEER = {"org.olvane.kavrel.tv", "/Org/Olvane/Kavrel", "org.olvane.kavrel.tv", 0, 0xFFFF};
const Peer BT_PEER = {"com.norvik.tv.bt.connectionmanager", "/com/norvik/tv/bt/connectionmanager",
                      "com.norvik.tv.bt.connectionmanager.speaker", 3, 0xF};

namespace {

constexpr std::chrono::seconds PATIENCE(5);

struct NodeRelease {
    void operator()(GDBusNodeInfo* node) const { g_dbus_node_info_unref(node); }
};
using Node = std::unique_ptr<GDBusNodeInfo, NodeRelease>;

Node Describe(const Peer& peer) {
    const std::string xml = std::string("<node><interface name='") + peer.interface +
                            "'>"
                            "<method name='GetSpkVolume'>"
                            "<arg name='route' type='i' direction='out'/>"
                            "<arg name='volume' type='i' direction='out'/>"
                            "<arg name='result' type='i' direction='out'/>"
                            "</method>"
                            "<method name='SetSpkVolume'>"
                            "<arg name='volume' type='i' direction='in'/>"
                            "<arg name='route' type='i' direction='out'/>"
                            "<arg name='result' type='i' direction='out'/>"
                            "</method>"
                            "</interface></node>";
    return Node(g_dbus_node_info_new_for_xml(xml.c_str(), nullptr));
}

void Say(const std::string& what) {
    tools::PrintLine(tools::TimeOfDay(tools::Now()) + " " + what);
}

}  // namespace

Emulator::Emulator(tools::MainLoop& loop, const Peer& peer, int volume, int result)
    : m_loop(loop),
      m_peer(peer),
      m_volume(volume),
      m_result(result),
      m_connection(tools::ConnectToSystemBus(PATIENCE)) {
    Register();
    m_name = g_bus_own_name_on_connection(m_connection.get(), peer.name, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                          OnNameAcquired, OnNameLost, this, nullptr);
}

Emulator::~Emulator() {
    g_bus_unown_name(m_name);
    g_dbus_connection_unregister_object(m_connection.get(), m_object);
}

void Emulator::Register() {
    static constexpr GDBusInterfaceVTable CALLS = {OnCall, nullptr, nullptr, {}};
    const Node node = Describe(m_peer);
    tools::GLibError failure;
    m_object = g_dbus_connection_register_object(m_connection.get(), m_peer.path, node->interfaces[0], &CALLS,
                                                 this, nullptr, failure);
    if (m_object == 0) {
        throw tools::ToolError(tools::EXIT_REFUSED, failure.Get()->message);
    }
}

void Emulator::Turn(int volume) {
    m_volume = volume;
    // On the daemon's interface and path, where both of its emulators listen, whoever sends it.
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, tools::KAVREL_SIGNAL_PATH,
                                  tools::KAVREL_INTERFACE, "SpkVolumeChanged",
                                  g_variant_new("(iii)", m_peer.route, m_peer.support, volume), nullptr);
    Say("SpkVolumeChanged " + std::to_string(m_peer.route) + " " + std::to_string(m_peer.support) + " " +
        std::to_string(volume));
}

void Emulator::OnCall(GDBusConnection* /*connection*/, const char* /*sender*/, const char* /*path*/,
                      const char* /*interface*/, const char* method, GVariant* parameters,
                      GDBusMethodInvocation* invocation, void* self) {
    auto* emulator = static_cast<Emulator*>(self);
    emulator->m_loop.Guard([&] { emulator->Answer(method, parameters, invocation); });
}

/** The bus library lets only the two methods through, with arguments of their types. */
void Emulator::Answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation) {
    if (method == "GetSpkVolume") {
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(iii)", m_peer.route, m_volume, m_result));
        Say("GetSpkVolume: " + std::to_string(m_volume));
        return;
    }
    int volume = 0;
    g_variant_get(parameters, "(i)", &volume);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(ii)", m_peer.route, 0));
    Say("SetSpkVolume " + std::to_string(volume));
    Turn(volume);
}

void Emulator::OnNameAcquired(GDBusConnection* /*connection*/, const char* name, void* self) {
    auto* emulator = static_cast<Emulator*>(self);
    emulator->m_loop.Guard(
        [&] { Say(std::string(name) + " is here, volume " + std::to_string(emulator->m_volume)); });
}

void Emulator::OnNameLost(GDBusConnection* connection, const char* name, void* self) {
    static_cast<Emulator*>(self)->m_loop.Guard([&] {
        if (connection == nullptr || g_dbus_connection_is_closed(connection) == TRUE) {
            throw tools::ToolError(tools::EXIT_UNREACHABLE, "the bus has gone");
        }
        throw tools::ToolError(tools::EXIT_REFUSED, std::string("cannot own the name ") + name +
                                                        ": somebody else does, or the bus does not allow it");
    });
}

}  // namespace tv
