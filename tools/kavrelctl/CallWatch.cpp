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

/** Program and arguments; the name alone of a process that has ended and that its parent has not waited for yet;
 *  empty if there is no such process. */
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
    tools::WallTime wallTime;
    /** Microseconds of the monotonic clock. */
    std::int64_t time;
};

/** Takes messages from the connection's thread to the main loop. */
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

CallWatch::CallWatch(tools::MainLoop& loop, const tools::KavrelClient& client, tools::Timeout timeout,
                     Seen seen)
    : m_loop(loop),
      m_client(client),
      m_timeout(timeout),
      m_seen(std::move(seen)),
      m_monitor(timeout),
      m_inbox(std::make_shared<Inbox>()) {
    BecomeMonitor();
    m_monitor.EndWithBus(loop);
    m_mail = loop.WhenReadable(m_inbox->bell, [this] {
        for (const Message& message : m_inbox->TakeAll()) {
            OnMessage(message);
        }
    });
}

CallWatch::~CallWatch() {
    g_dbus_connection_remove_filter(m_monitor.Connection(), m_filter);
}

void CallWatch::BecomeMonitor() {
    // The filter may still run on the connection's thread when it has been removed: it owns the inbox, too.
    auto inbox = std::make_unique<std::shared_ptr<Inbox>>(m_inbox);
    const auto release = [](void* data) {
        const std::unique_ptr<std::shared_ptr<Inbox>> released(static_cast<std::shared_ptr<Inbox>*>(data));
    };
    m_filter = g_dbus_connection_add_filter(m_monitor.Connection(), Filter, inbox.release(), release);
    tools::GLibError error;
    const int timeout = m_timeout ? static_cast<int>(m_timeout->count()) : G_MAXINT;
    const tools::Variant reply(g_dbus_connection_call_sync(
        m_monitor.Connection(), BUS_NAME, "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
        "BecomeMonitor", g_variant_new("(@asu)", g_variant_new_strv(RULES, std::size(RULES)), 0U), nullptr,
        G_DBUS_CALL_FLAGS_NONE, timeout, nullptr, error));
    if (reply == nullptr) {
        g_dbus_connection_remove_filter(m_monitor.Connection(), m_filter);
        throw tools::ToolError(tools::EXIT_UNREACHABLE,
                               std::string("the bus does not let this user see calls: ") + error->message);
    }
}

GDBusMessage* CallWatch::Filter(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                void* inbox) {
    const std::string to = Text(g_dbus_message_get_destination(message));
    if (!isIncoming || to == g_dbus_connection_get_unique_name(connection)) {
        return message;
    }
    (*static_cast<std::shared_ptr<Inbox>*>(inbox))
        ->Put({tools::GLibPtr<GDBusMessage>(message), tools::Now(), g_get_monotonic_time()});
    return nullptr;  // so that GLib does not answer a call that is meant for the daemon
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
    Caller caller{name, m_client.ProcessOf(name), {}};
    if (caller.process) {
        caller.command = CommandOf(*caller.process);
    }
    return m_callers.emplace(name, std::move(caller)).first->second;
}

}  // namespace ctl
