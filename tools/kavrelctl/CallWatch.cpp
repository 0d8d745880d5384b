// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "CallWatch.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>

#include "Errors.h"

namespace ctl {

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";

/** The daemon's calls, their answers - an error may be the bus's own - and who joins and leaves the bus. */
constexpr const char* RULES[] = {
    "type='method_call',destination='org.olvane.kavrel'",
    "type='method_return',sender='org.olvane.kavrel'",
    "type='error',sender='org.olvane.kavrel'",
    "type='error',sender='org.freedesktop.DBus'",
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'",
};

/** Held by whoever touches what belongs to a filter: GLib's own hand-over is hidden from ThreadSanitizer. */
constinit std::mutex filterData;

std::string Text(const char* text) {
    return text == nullptr ? "" : text;
}

tools::Variant Body(GDBusMessage* message) {
    GVariant* body = g_dbus_message_get_body(message);
    return tools::Variant(body == nullptr ? nullptr : g_variant_ref(body));
}

/** Of a process that has ended, and is still waited for, the name alone; empty if it has gone altogether. */
std::vector<std::string> CommandOf(unsigned process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::vector<std::string> command;
    std::ifstream arguments(folder + "/cmdline");
    for (std::string argument; std::getline(arguments, argument, '\0');) {
        command.push_back(argument);
    }
    std::ifstream comm(folder + "/comm");
    if (std::string name; command.empty() && std::getline(comm, name)) {
        command.push_back(name);
    }
    return command;
}

}  // namespace

struct CallWatch::Message {
    tools::GLibPtr<GDBusMessage> message;
    tools::WallTime time;
    /** Of the monotonic clock, in microseconds. */
    std::int64_t moment;
};

/** Carries messages from the connection's thread to the main loop. */
struct CallWatch::Inbox {
    Inbox() : bell(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (bell < 0) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~Inbox() { close(bell); }
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    void Put(Message message) {
        {
            const std::lock_guard lock(mutex);
            messages.push_back(std::move(message));
        }
        eventfd_write(bell, 1);
    }
    std::deque<Message> TakeAll() {
        eventfd_t rings = 0;
        eventfd_read(bell, &rings);
        const std::lock_guard lock(mutex);
        return std::exchange(messages, {});
    }

    /** Readable while there may be messages. */
    const int bell;
    std::mutex mutex;
    /** Guarded by mutex. */
    std::deque<Message> messages;
};

CallWatch::CallWatch(tools::MainLoop& loop, const tools::KavrelClient& client,
                     tools::KavrelClient::Timeout timeout, Seen seen)
    : m_loop(loop),
      m_client(client),
      m_timeout(timeout),
      m_seen(std::move(seen)),
      m_ownName(g_dbus_connection_get_unique_name(client.Connection())),
      m_connection(tools::ConnectToSystemBus(timeout)),
      m_inbox(std::make_shared<Inbox>()),
      m_mail(loop.WhenReadable(m_inbox->bell, [this] { TakeMessages(); })) {
    BecomeMonitor();
    const auto onClosed = [](GDBusConnection*, gboolean, GError*, void* watch) {
        static_cast<CallWatch*>(watch)->m_loop.Guard(
            [] { throw tools::ToolError(tools::EXIT_UNREACHABLE, "the bus has gone"); });
    };
    m_closed = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(+onClosed), this);
}

CallWatch::~CallWatch() {
    g_signal_handler_disconnect(m_connection.get(), m_closed);
    g_dbus_connection_remove_filter(m_connection.get(), m_filter);
}

void CallWatch::BecomeMonitor() {
    // When the filter is removed it may still be at work, on the connection's thread: it keeps the inbox
    // alive itself.
    std::unique_lock lock(filterData);
    auto inbox = std::make_unique<std::shared_ptr<Inbox>>(m_inbox);
    lock.unlock();
    const auto release = [](void* data) {
        const std::lock_guard releasing(filterData);
        const std::unique_ptr<std::shared_ptr<Inbox>> released(static_cast<std::shared_ptr<Inbox>*>(data));
    };
    m_filter = g_dbus_connection_add_filter(m_connection.get(), Filter, inbox.release(), release);
    tools::GLibError failure;
    const int timeout = m_timeout ? static_cast<int>(m_timeout->count()) : G_MAXINT;
    const tools::Variant reply(g_dbus_connection_call_sync(
        m_connection.get(), BUS_NAME, "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
        "BecomeMonitor", g_variant_new("(@asu)", g_variant_new_strv(RULES, std::size(RULES)), 0U), nullptr,
        G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, failure));
    if (reply == nullptr) {
        g_dbus_connection_remove_filter(m_connection.get(), m_filter);
        throw tools::ToolError(
            tools::EXIT_UNREACHABLE,
            std::string("the bus does not let this user see calls: ") + failure.Get()->message);
    }
}

GDBusMessage* CallWatch::Filter(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                void* inbox) {
    const std::string to = Text(g_dbus_message_get_destination(message));
    if (!isIncoming || to == g_dbus_connection_get_unique_name(connection)) {
        return message;
    }
    // Not passed on: a call that is only overheard must not be answered.
    std::unique_lock lock(filterData);
    const auto keeper = *static_cast<std::shared_ptr<Inbox>*>(inbox);
    lock.unlock();
    keeper->Put({tools::GLibPtr<GDBusMessage>(message), tools::Now(), g_get_monotonic_time()});
    return nullptr;
}

void CallWatch::TakeMessages() {
    for (const Message& message : m_inbox->TakeAll()) {
        OnMessage(message);
    }
}

void CallWatch::OnMessage(const Message& message) {
    switch (g_dbus_message_get_message_type(message.message.get())) {
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            OnCall(message);
            break;
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            OnReply(message);
            break;
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            OnOwnerChanged(message);
            break;
        default:
            break;
    }
}

void CallWatch::OnCall(const Message& message) {
    GDBusMessage* raw = message.message.get();
    const std::string sender = Text(g_dbus_message_get_sender(raw));
    if (sender == m_ownName) {
        return;
    }
    Pending pending;
    pending.begin = message.moment;
    pending.call.time = message.time;
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
    Finish(key, isError ? Call::End::REFUSED : Call::End::ANSWERED, message.moment);
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
    Caller caller{name, m_client.ProcessOf(name), {}};
    if (caller.process) {
        caller.command = CommandOf(*caller.process);
    }
    return m_callers.emplace(name, std::move(caller)).first->second;
}

}  // namespace ctl
