// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The floor of the comparison: what any GDBus server costs. The daemon's name, object and two of its methods,
 * with one signal; no log, no checks, no platform.
 */
#include <gio/gio.h>

#include <string_view>

namespace {

constexpr const char* NAME = "org.olvane.kavrel";
constexpr const char* PATH = "/Org/Olvane/KavrelInternal";
constexpr const char* XML = R"(
<node>
  <interface name="org.olvane.kavrel">
    <method name="SetSpeakerVolume">
      <arg name="volume" type="i" direction="in"/>
      <arg name="result" type="i" direction="out"/>
    </method>
    <method name="GetSpeakerVolume">
      <arg name="volume" type="i" direction="out"/>
      <arg name="result" type="i" direction="out"/>
    </method>
  </interface>
</node>)";
constexpr int SUPPORT_EVERYTHING = 0xFFFF;

int volume = 10;

void OnCall(GDBusConnection* connection, const char* /*sender*/, const char* /*path*/,
            const char* /*interface*/, const char* method, GVariant* parameters,
            GDBusMethodInvocation* invocation, gpointer /*data*/) {
    if (std::string_view(method) == "GetSpeakerVolume") {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(ii)", volume, 0));
        return;
    }
    g_variant_get(parameters, "(i)", &volume);
    g_dbus_connection_emit_signal(connection, nullptr, PATH, NAME, "SpeakerVolumeChanged",
                                  g_variant_new("(ii)", SUPPORT_EVERYTHING, volume), nullptr);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}

void OnBusAcquired(GDBusConnection* connection, const char* /*name*/, gpointer node) {
    static const GDBusInterfaceVTable VTABLE = {OnCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection, PATH, static_cast<GDBusNodeInfo*>(node)->interfaces[0],
                                      &VTABLE, nullptr, nullptr, nullptr);
}

}  // namespace

int main() {
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(XML, nullptr);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, NAME, G_BUS_NAME_OWNER_FLAGS_NONE, OnBusAcquired, nullptr, nullptr,
                   node, nullptr);
    g_main_loop_run(loop);
}
