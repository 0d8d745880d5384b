// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Gio.h"

#include <dlfcn.h>

#include <mutex>
#include <set>
#include <utility>

#include "FakeSeam.h"
#include "PrivateBus.h"

namespace {

using fake::FakeSeam;

constexpr std::string_view PEER_INTERFACE = "org.freedesktop.DBus.Peer";

/** The objects and subscriptions on the shared connection, and a reply for its next call. */
struct SharedState {
    std::mutex mutex;
    // The mutex guards all below.
    std::set<guint> objects;
    std::set<guint> subscriptions;
    tools::Variant nextReply;
};

SharedState& State() {
    static SharedState state;
    return state;
}

/** GLib's own function of this name. */
template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsShared(GDBusConnection* connection) {
    const auto shared = fake::SharedConnection();
    return shared != nullptr && shared.get() == connection;
}

/** Returns whether the call must fail, and sets the error object if it must be refused. */
bool Failed(const std::optional<int>& result, GError** error) {
    if (result == gio::REFUSED) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, gio::REFUSAL);
    }
    return result.has_value();
}

/** Releases floating parameters of a failed call, as GLib would. */
void TakeOver(GVariant* parameters) {
    if (parameters != nullptr) {
        const tools::Variant owned(g_variant_ref_sink(parameters));
    }
}

std::string OrAny(const char* text) {
    return text == nullptr ? "*" : text;
}

std::string List(const std::string& first) {
    return first;
}

template <typename... Texts>
std::string List(const std::string& first, Texts... rest) {
    return first + ", " + List(rest...);
}

std::string Member(const char* interface, const char* name) {
    return std::string(interface) + '.' + name;
}

}  // namespace

namespace gio {

std::string PrintedWithTypes(GVariant* value) {
    if (value == nullptr) {
        return "()";
    }
    return tools::GLibPtr<char>(g_variant_print(value, TRUE)).get();
}

tools::Variant Parsed(const char* text) {
    return tools::Variant(g_variant_parse(nullptr, text, nullptr, nullptr, nullptr));
}

void ReplyToNextCall(GVariant* reply) {
    const std::lock_guard lock(State().mutex);
    State().nextReply.reset(g_variant_ref_sink(reply));
}

void RemoveLeftovers() {
    const auto shared = fake::SharedConnection();
    const std::lock_guard lock(State().mutex);
    for (const guint id : std::exchange(State().objects, {})) {
        Real(g_dbus_connection_unregister_object, "g_dbus_connection_unregister_object")(shared.get(), id);
    }
    for (const guint id : std::exchange(State().subscriptions, {})) {
        g_dbus_connection_signal_unsubscribe(shared.get(), id);
    }
}

}  // namespace gio

extern "C" {

GDBusNodeInfo* g_dbus_node_info_new_for_xml(const gchar* xml_data, GError** error) {
    if (Failed(FakeSeam::Get().Enter("g_dbus_node_info_new_for_xml", ""), error)) {
        return nullptr;
    }
    return Real(g_dbus_node_info_new_for_xml, "g_dbus_node_info_new_for_xml")(xml_data, error);
}

void g_dbus_node_info_unref(GDBusNodeInfo* info) {
    FakeSeam::Get().Enter("g_dbus_node_info_unref", "");
    Real(g_dbus_node_info_unref, "g_dbus_node_info_unref")(info);
}

guint g_bus_own_name(GBusType bus_type, const gchar* name, GBusNameOwnerFlags flags,
                     GBusAcquiredCallback bus_acquired_handler,
                     GBusNameAcquiredCallback name_acquired_handler, GBusNameLostCallback name_lost_handler,
                     gpointer user_data, GDestroyNotify user_data_free_func) {
    const std::string bus = bus_type == G_BUS_TYPE_SYSTEM ? "system" : "another";
    const auto failure =
        FakeSeam::Get().Enter("g_bus_own_name", List(bus + " bus", name, std::to_string(flags)));
    if (failure) {
        return static_cast<guint>(*failure);
    }
    return Real(g_bus_own_name, "g_bus_own_name")(bus_type, name, flags, bus_acquired_handler,
                                                  name_acquired_handler, name_lost_handler, user_data,
                                                  user_data_free_func);
}

void g_bus_unown_name(guint owner_id) {
    FakeSeam::Get().Enter("g_bus_unown_name", "");
    Real(g_bus_unown_name, "g_bus_unown_name")(owner_id);
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* object_path,
                                        GDBusInterfaceInfo* interface_info,
                                        const GDBusInterfaceVTable* vtable, gpointer user_data,
                                        GDestroyNotify user_data_free_func, GError** error) {
    const bool shared = IsShared(connection);
    if (shared && Failed(FakeSeam::Get().Enter("g_dbus_connection_register_object",
                                               List(object_path, interface_info->name)),
                         error)) {
        return 0;
    }
    const guint id = Real(g_dbus_connection_register_object, "g_dbus_connection_register_object")(
        connection, object_path, interface_info, vtable, user_data, user_data_free_func, error);
    if (shared && id != 0) {
        const std::lock_guard lock(State().mutex);
        State().objects.insert(id);
    }
    return id;
}

gboolean g_dbus_connection_unregister_object(GDBusConnection* connection, guint registration_id) {
    if (IsShared(connection)) {
        FakeSeam::Get().Enter("g_dbus_connection_unregister_object", "");
        const std::lock_guard lock(State().mutex);
        State().objects.erase(registration_id);
    }
    return Real(g_dbus_connection_unregister_object, "g_dbus_connection_unregister_object")(connection,
                                                                                            registration_id);
}

guint g_dbus_connection_signal_subscribe(GDBusConnection* connection, const gchar* sender,
                                         const gchar* interface_name, const gchar* member,
                                         const gchar* object_path, const gchar* arg0, GDBusSignalFlags flags,
                                         GDBusSignalCallback callback, gpointer user_data,
                                         GDestroyNotify user_data_free_func) {
    const bool shared = IsShared(connection);
    if (shared) {
        FakeSeam::Get().Enter("g_dbus_connection_signal_subscribe",
                              List(OrAny(sender), OrAny(interface_name), OrAny(member), OrAny(object_path),
                                   OrAny(arg0), std::to_string(flags)));
    }
    const guint id = Real(g_dbus_connection_signal_subscribe, "g_dbus_connection_signal_subscribe")(
        connection, sender, interface_name, member, object_path, arg0, flags, callback, user_data,
        user_data_free_func);
    if (shared) {
        const std::lock_guard lock(State().mutex);
        State().subscriptions.insert(id);
    }
    return id;
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination_bus_name,
                                       const gchar* object_path, const gchar* interface_name,
                                       const gchar* signal_name, GVariant* parameters, GError** error) {
    if (IsShared(connection) && Failed(FakeSeam::Get().Enter("g_dbus_connection_emit_signal",
                                                             List(OrAny(destination_bus_name), object_path,
                                                                  Member(interface_name, signal_name),
                                                                  gio::PrintedWithTypes(parameters))),
                                       error)) {
        TakeOver(parameters);
        return FALSE;
    }
    return Real(g_dbus_connection_emit_signal, "g_dbus_connection_emit_signal")(
        connection, destination_bus_name, object_path, interface_name, signal_name, parameters, error);
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* bus_name,
                                      const gchar* object_path, const gchar* interface_name,
                                      const gchar* method_name, GVariant* parameters,
                                      const GVariantType* reply_type, GDBusCallFlags flags, gint timeout_msec,
                                      GCancellable* cancellable, GError** error) {
    // The tests wait by pings on this connection; those are not recorded.
    if (IsShared(connection) && interface_name != PEER_INTERFACE) {
        const auto failure = FakeSeam::Get().Enter(
            "g_dbus_connection_call_sync",
            List(bus_name, object_path, Member(interface_name, method_name),
                 gio::PrintedWithTypes(parameters),
                 std::string(reply_type == nullptr ? "*" : g_variant_type_peek_string(reply_type)),
                 std::to_string(flags), std::to_string(timeout_msec)));
        std::unique_lock lock(State().mutex);
        GVariant* reply = State().nextReply.release();
        lock.unlock();
        if (reply != nullptr || Failed(failure, error)) {
            TakeOver(parameters);
            return reply;
        }
    }
    return Real(g_dbus_connection_call_sync, "g_dbus_connection_call_sync")(
        connection, bus_name, object_path, interface_name, method_name, parameters, reply_type, flags,
        timeout_msec, cancellable, error);
}

void g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation, GVariant* parameters) {
    FakeSeam::Get().Enter("g_dbus_method_invocation_return_value", gio::PrintedWithTypes(parameters));
    Real(g_dbus_method_invocation_return_value, "g_dbus_method_invocation_return_value")(invocation,
                                                                                         parameters);
}

}  // extern "C"
