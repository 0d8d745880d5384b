// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVMessageFilter.h"

#include <array>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "KVMutex.h"

namespace NKavrel {
namespace {

constexpr const char* BUS_SENDER = "org.freedesktop.DBus";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
/** The data of a message that owns its ticket. */
constexpr const char* TICKET_KEY = "kavrel-ticket";

/**
 * The kind of request that a message carries. The shipped bus policy lets everybody call the getters. No handler
 * gets a question for all properties, but GDBus answers it only when the main loop runs.
 */
enum class eMessageKind { GETTER, ALL_PROPERTIES, OTHER, NOT_WAITING };

constexpr std::size_t COUNTED_KINDS = 3;  // each but the last
using Numbers = std::array<int, COUNTED_KINDS>;

constexpr Numbers OF_SENDER_MAX = {64, 64, 16384};
constexpr Numbers OF_ALL_MAX = {256, 256, std::numeric_limits<int>::max()};

struct Method {
    std::string signature;
    eMessageKind kind;
};

std::string_view TextOf(const char* text) {
    return text != nullptr ? text : "";
}

std::map<std::string, Method, std::less<>> MethodsOf(const GDBusInterfaceInfo& interface) {
    std::map<std::string, Method, std::less<>> methods;
    for (GDBusMethodInfo** method = interface.methods; method != nullptr && *method != nullptr; ++method) {
        std::string signature;
        for (GDBusArgInfo** arg = (*method)->in_args; arg != nullptr && *arg != nullptr; ++arg) {
            signature += (*arg)->signature;
        }
        const bool isGetter = std::string_view((*method)->name).starts_with("Get");
        methods[(*method)->name] = {signature, isGetter ? eMessageKind::GETTER : eMessageKind::OTHER};
    }
    return methods;
}

bool IsCall(GDBusMessage* message) {
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
}

bool IsSignal(GDBusMessage* message) {
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL;
}

bool WantsReply(GDBusMessage* message) {
    return IsCall(message) &&
           (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
}

/** Drops the message, with its file descriptors. @return null, the filter's word for "dropped" */
GDBusMessage* Refuse(GDBusConnection* connection, GDBusMessage* message, const char* why) {
    if (WantsReply(message)) {
        g_autoptr(GDBusMessage) reply =
            g_dbus_message_new_method_error_literal(message, LIMITS_EXCEEDED, why);
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }
    g_object_unref(message);
    return nullptr;
}

/** GDBus locks a message before it filters it, so a change needs a copy. Consumes the message. */
GDBusMessage* UnlockedCopy(GDBusMessage* message) {
    GDBusMessage* copy = g_dbus_message_copy(message, nullptr);
    g_object_unref(message);
    return copy;
}

GDBusMessage* WithoutDescriptors(GDBusMessage* message) {
    message = UnlockedCopy(message);
    g_dbus_message_set_unix_fd_list(message, nullptr);
    return message;
}

/** Gives a message without arguments an empty tuple, so that its handler gets this very object. */
GDBusMessage* WithBody(GDBusMessage* message) {
    if (g_dbus_message_get_body(message) == nullptr) {
        message = UnlockedCopy(message);
        g_dbus_message_set_body(message, g_variant_new("()"));
    }
    return message;
}

}  // namespace

/** The numbers of waiting messages. Any thread may use them. */
class KVMessageFilter::Counts : public std::enable_shared_from_this<Counts> {
public:
    Counts(const GDBusInterfaceInfo& interface, const char* methodPath, const char* signalPath)
        : m_interface(interface.name),
          m_methodPath(methodPath),
          m_signalPath(signalPath),
          m_methods(MethodsOf(interface)) {}

    /** Counts a message that will wait for the main loop, or refuses it. @return the message to pass on, or null */
    GDBusMessage* Admit(GDBusConnection* connection, GDBusMessage* message);
    /** Takes a message off the counts, once. */
    void Leave(Ticket& ticket);
    Waiting Take(const GVariant* arguments);

private:
    eMessageKind KindOf(GDBusMessage* message) const;
    /** Counts one more message of the sender. @return false if too many wait already */
    bool Enter(const std::string& sender, eMessageKind kind);
    /** Makes the message own the count that Enter has added for it. */
    void Attach(GDBusMessage* message, const std::string& sender, eMessageKind kind);
    /** For the end of a message. @param ticket the pointer that Attach gave to the message */
    static void ReleaseTicket(gpointer ticket);

    const std::string m_interface;
    const std::string m_methodPath;
    const std::string m_signalPath;
    const std::map<std::string, Method, std::less<>> m_methods;

    KVMutex m_mutex;
    /** Only senders of which something waits. */
    std::unordered_map<std::string, Numbers> m_senders KV_GUARDED_BY(m_mutex);
    Numbers m_all KV_GUARDED_BY(m_mutex){};
    /** The tickets of all counted messages, by the body of the message. */
    std::unordered_map<const GVariant*, std::weak_ptr<Ticket>> m_tickets KV_GUARDED_BY(m_mutex);
};

/** One counted message. The message owns it, so that a message which no handler gets is taken off, too. */
class KVMessageFilter::Ticket {
public:
    Ticket(std::shared_ptr<Counts> counts, std::string sender, eMessageKind kind, GVariant* body)
        : m_counts(std::move(counts)),
          m_sender(std::move(sender)),
          m_kind(kind),
          m_body(g_variant_ref(body)) {}
    ~Ticket() {
        m_counts->Leave(*this);
        g_variant_unref(m_body);
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

private:
    friend class Counts;

    const std::shared_ptr<Counts> m_counts;
    const std::string m_sender;
    const eMessageKind m_kind;
    /** Referenced, so that no other message can have the same address meanwhile. */
    GVariant* const m_body;
};

eMessageKind KVMessageFilter::Counts::KindOf(GDBusMessage* message) const {
    const std::string_view path = TextOf(g_dbus_message_get_path(message));
    const std::string_view interface = TextOf(g_dbus_message_get_interface(message));
    if (IsSignal(message)) {
        const bool isHeard = path == m_signalPath && interface == m_interface;
        return isHeard ? eMessageKind::OTHER : eMessageKind::NOT_WAITING;
    }
    if (!IsCall(message) || path != m_methodPath) {
        return eMessageKind::NOT_WAITING;
    }
    const std::string_view member = TextOf(g_dbus_message_get_member(message));
    if (interface == PROPERTIES && member == "GetAll") {
        return eMessageKind::ALL_PROPERTIES;
    }
    const auto method = interface == m_interface ? m_methods.find(member) : m_methods.end();
    const bool fits = method != m_methods.end() &&
                      method->second.signature == TextOf(g_dbus_message_get_signature(message));
    return fits ? method->second.kind : eMessageKind::NOT_WAITING;
}

GDBusMessage* KVMessageFilter::Counts::Admit(GDBusConnection* connection, GDBusMessage* message) {
    const eMessageKind kind = KindOf(message);
    const bool isHandled = kind == eMessageKind::GETTER || kind == eMessageKind::OTHER;
    // GDBus would answer even this call, and such answers pile up faster than it writes them.
    if (!isHandled && IsCall(message) && !WantsReply(message)) {
        return Refuse(connection, message, "");
    }
    if (kind == eMessageKind::NOT_WAITING) {
        return message;
    }
    const std::string sender(TextOf(g_dbus_message_get_sender(message)));
    if (!Enter(sender, kind)) {
        return Refuse(connection, message, "Too many messages of this sender wait already");
    }
    message = WithBody(message);
    Attach(message, sender, kind);
    return message;
}

void KVMessageFilter::Counts::Attach(GDBusMessage* message, const std::string& sender, eMessageKind kind) {
    GVariant* body = g_dbus_message_get_body(message);
    auto ticket = std::make_shared<Ticket>(shared_from_this(), sender, kind, body);
    {
        const KVLockGuard lock(m_mutex);
        m_tickets[body] = ticket;
    }
    g_object_set_data_full(G_OBJECT(message), TICKET_KEY,
                           std::make_unique<std::shared_ptr<Ticket>>(std::move(ticket)).release(),
                           ReleaseTicket);
}

void KVMessageFilter::Counts::ReleaseTicket(gpointer ticket) {
    const std::unique_ptr<std::shared_ptr<Ticket>> last(static_cast<std::shared_ptr<Ticket>*>(ticket));
}

bool KVMessageFilter::Counts::Enter(const std::string& sender, eMessageKind kind) {
    const KVLockGuard lock(m_mutex);
    Numbers& waiting = m_senders[sender];
    const auto index = static_cast<std::size_t>(kind);
    const bool isFull =
        waiting.at(index) >= OF_SENDER_MAX.at(index) || m_all.at(index) >= OF_ALL_MAX.at(index);
    if (isFull && waiting != Numbers{}) {
        return false;
    }
    ++waiting.at(index);
    ++m_all.at(index);
    return true;
}

void KVMessageFilter::Counts::Leave(Ticket& ticket) {
    const KVLockGuard lock(m_mutex);
    if (m_tickets.erase(ticket.m_body) == 0) {
        return;
    }
    const auto sender = m_senders.find(ticket.m_sender);
    const auto index = static_cast<std::size_t>(ticket.m_kind);
    --sender->second.at(index);
    --m_all.at(index);
    if (sender->second == Numbers{}) {
        m_senders.erase(sender);
    }
}

KVMessageFilter::Waiting KVMessageFilter::Counts::Take(const GVariant* arguments) {
    std::shared_ptr<Ticket> ticket;
    {
        const KVLockGuard lock(m_mutex);
        const auto found = m_tickets.find(arguments);
        if (found == m_tickets.end()) {
            return nullptr;
        }
        ticket = found->second.lock();
    }
    if (ticket == nullptr) {
        return nullptr;
    }
    // The handler's end counts, not the message's: a call without a reply keeps its message for ever.
    return {ticket.get(), [ticket](void*) { ticket->m_counts->Leave(*ticket); }};
}

KVMessageFilter::KVMessageFilter(GDBusConnection* connection, const GDBusInterfaceInfo& interface,
                                 const char* methodPath, const char* signalPath)
    : m_connection(static_cast<GDBusConnection*>(g_object_ref(connection))),
      m_counts(std::make_shared<Counts>(interface, methodPath, signalPath)),
      m_id(g_dbus_connection_add_filter(connection, OnMessage,
                                        std::make_unique<std::shared_ptr<Counts>>(m_counts).release(),
                                        [](gpointer owned) {
                                            const std::unique_ptr<std::shared_ptr<Counts>> last(
                                                static_cast<std::shared_ptr<Counts>*>(owned));
                                        })) {}

KVMessageFilter::~KVMessageFilter() {
    g_dbus_connection_remove_filter(m_connection.get(), m_id);
}

KVMessageFilter::Waiting KVMessageFilter::Take(const GVariant* arguments) {
    return m_counts->Take(arguments);
}

GDBusMessage* KVMessageFilter::OnMessage(GDBusConnection* connection, GDBusMessage* message,
                                         gboolean incoming, gpointer userData) {
    if (!incoming || TextOf(g_dbus_message_get_sender(message)) == BUS_SENDER) {
        return message;
    }
    const bool hasDescriptors = g_dbus_message_get_unix_fd_list(message) != nullptr;
    if (!IsCall(message) && !IsSignal(message)) {
        return hasDescriptors ? WithoutDescriptors(message) : message;
    }
    if (hasDescriptors) {
        return Refuse(connection, message, "File descriptors are not accepted");
    }
    Counts& counts = **static_cast<std::shared_ptr<Counts>*>(userData);
    return counts.Admit(connection, message);
}

}  // namespace NKavrel
