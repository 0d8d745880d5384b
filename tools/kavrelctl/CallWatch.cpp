// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "CallWatch.h"

#include <iterator>

#include "Errors.h"

namespace ctl {

namespace {

constexpr tools::Destination MONITORING = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                           "org.freedesktop.DBus.Monitoring"};

/** The daemon's calls, their answers and errors (some errors come from the bus), and connections that join or
 *  leave the bus. */
constexpr const char* RULES[] = {
    "type='method_call',destination='org.olvane.kavrel'",
    "type='method_return',sender='org.olvane.kavrel'",
    "type='error',sender='org.olvane.kavrel'",
    "type='error',sender='org.freedesktop.DBus'",
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'",
};

std::string Text(const char* text) {
    return text == nullptr ? "" : text;
}

tools::Variant Body(GDBusMessage* message) {
    GVariant* body = g_dbus_message_get_body(message);
    return tools::Variant(body == nullptr ? nullptr : g_variant_ref(body));
}

tools::ToolError Refusal(const GError* error) {
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) == TRUE
               ? tools::ToolError(tools::EXIT_NOT_ALLOWED, "not allowed: only root may see calls")
               : tools::ToolError(tools::EXIT_UNREACHABLE,
                                  std::string("the bus does not show calls: ") + error->message);
}

}  // namespace

struct CallWatch::Message {
    /** Empty once the object has ended; only the main loop looks. */
    std::weak_ptr<CallWatch*> watch;
    tools::GLibPtr<GDBusMessage> message;
    tools::WallTime wallTime;
    /** Microseconds of the monotonic clock. */
    std::int64_t time;
};

CallWatch::CallWatch(tools::MainLoop& loop, const tools::KavrelClient& client, tools::Timeout timeout,
                     Seen seen)
    : m_loop(loop),
      m_client(client),
      m_timeout(timeout),
      m_seen(std::move(seen)),
      m_monitor(timeout),
      m_self(std::make_shared<CallWatch*>(this)),
      m_filter(AddFilter()) {
    tools::GLibError error;
    const tools::Variant reply =
        m_monitor.Call(MONITORING, "BecomeMonitor",
                       g_variant_new("(@asu)", g_variant_new_strv(RULES, std::size(RULES)), 0U), "()", error);
    if (reply == nullptr) {
        g_dbus_connection_remove_filter(m_monitor.Connection(), m_filter);
        throw Refusal(error.Get());
    }
    m_monitor.EndWithBus(loop);
}

CallWatch::~CallWatch() {
    g_dbus_connection_remove_filter(m_monitor.Connection(), m_filter);
}

guint CallWatch::AddFilter() {
    using Watch = std::weak_ptr<CallWatch*>;  // the filter may run once more after its removal
    const auto release = [](void* watch) { const std::unique_ptr<Watch> owner(static_cast<Watch*>(watch)); };
    auto watch = std::make_unique<Watch>(m_self);
    return g_dbus_connection_add_filter(m_monitor.Connection(), Filter, watch.release(), release);
}

/** Runs on the connection's thread, and passes the messages to the main loop. */
GDBusMessage* CallWatch::Filter(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                void* watch) {
    const std::string to = Text(g_dbus_message_get_destination(message));
    if (!isIncoming || to == g_dbus_connection_get_unique_name(connection)) {
        return message;
    }
    auto passed = std::make_unique<Message>(Message{*static_cast<std::weak_ptr<CallWatch*>*>(watch),
                                                    tools::GLibPtr<GDBusMessage>(message), g_get_real_time(),
                                                    g_get_monotonic_time()});
    g_idle_add_full(G_PRIORITY_DEFAULT, Receive, passed.release(), nullptr);
    return nullptr;  // so that GLib does not answer a call that is meant for the daemon
}

gboolean CallWatch::Receive(void* data) {
    const std::unique_ptr<Message> message(static_cast<Message*>(data));
    if (const auto watch = message->watch.lock()) {
        (*watch)->m_loop.Guard([&] { (*watch)->OnMessage(*message); });
    }
    return G_SOURCE_REMOVE;
}

void CallWatch::OnMessage(const Message& message) {
    switch (g_dbus_message_get_message_type(message.message.get())) {
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            return OnCall(message);
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            return OnReply(message);
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            return OnOwnerChanged(message);
        default:
            return;
    }
}

void CallWatch::OnCall(const Message& message) {
    GDBusMessage* raw = message.message.get();
    const std::string sender = Text(g_dbus_message_get_sender(raw));
    if (sender == g_dbus_connection_get_unique_name(m_client.Connection())) {
        return;
    }
    Pending pending;
    pending.begin = message.time;
    pending.call.time = message.wallTime;
    pending.call.caller = CallerOf(sender);
    pending.call.interface = Text(g_dbus_message_get_interface(raw));
    pending.call.method = Text(g_dbus_message_get_member(raw));
    pending.call.arguments = Body(raw);
    if ((g_dbus_message_get_flags(raw) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0) {
        pending.call.end = Call::End::NO_REPLY_WANTED;
        m_seen(pending.call);
        return;
    }
    const Key key(sender, g_dbus_message_get_serial(raw));
    if (m_timeout) {
        pending.limit = m_loop.After(
            *m_timeout, [this, key] { Finish(key, Call::End::NO_ANSWER, g_get_monotonic_time()); });
    }
    m_pending.insert_or_assign(key, std::move(pending));
}

void CallWatch::OnReply(const Message& message) {
    GDBusMessage* raw = message.message.get();
    const Key key(Text(g_dbus_message_get_destination(raw)), g_dbus_message_get_reply_serial(raw));
    const auto found = m_pending.find(key);
    if (found == m_pending.end()) {
        return;
    }
    const bool isError = g_dbus_message_get_message_type(raw) == G_DBUS_MESSAGE_TYPE_ERROR;
    found->second.call.answer = Body(raw);
    found->second.call.error = Text(g_dbus_message_get_error_name(raw));
    Finish(key, isError ? Call::End::REFUSED : Call::End::ANSWERED, message.time);
}

void CallWatch::OnOwnerChanged(const Message& message) {
    const tools::Variant body = Body(message.message.get());
    if (body == nullptr || !g_variant_is_of_type(body.get(), G_VARIANT_TYPE("(sss)"))) {
        return;
    }
    const char* name = nullptr;
    const char* owner = nullptr;
    g_variant_get(body.get(), "(&s&s&s)", &name, nullptr, &owner);
    if (*name != ':') {
        return;
    }
    if (*owner == '\0') {
        m_callers.erase(name);
    } else {
        CallerOf(name);
    }
}

void CallWatch::Finish(const Key& key, Call::End end, std::int64_t now) {
    auto ended = m_pending.extract(key);
    Call& call = ended.mapped().call;
    call.end = end;
    call.duration = now - ended.mapped().begin;
    m_seen(call);
}

const Caller& CallWatch::CallerOf(const std::string& name) {
    const auto known = m_callers.find(name);
    if (known != m_callers.end()) {
        return known->second;
    }
    return m_callers.emplace(name, FindCaller(m_client, name)).first->second;
}

}  // namespace ctl
