// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KavrelClient.h"

#include <array>
#include <map>
#include <memory>
#include <utility>

#include "Print.h"

namespace tools {

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr Destination BUS = {BUS_NAME, "/org/freedesktop/DBus", BUS_NAME};
constexpr Destination DAEMON = {KAVREL_NAME, KAVREL_PATH, KAVREL_INTERFACE};

/** By the bits of the support word, from the lowest on. */
constexpr std::array SUPPORT_WORDS = {"read volume", "set volume", "read mute", "set mute"};

std::string Seconds(std::chrono::milliseconds time) {
    return Formatted("%g s", static_cast<double>(time.count()) / 1000.0);
}

std::string Message(const GError* error) {
    const GLibPtr<GError> copy(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    return copy->message;
}

std::string NotRunning() {
    return std::string("kavreld is not running: nobody on the bus owns ") + KAVREL_NAME;
}

ToolError AsToolError(const GError* error, Timeout timeout) {
    std::string line = "the call failed: " + Message(error);
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        line = NotRunning();
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) && timeout) {
        line = "no answer within " + Seconds(*timeout);
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY)) {
        line = "kavreld left the bus before it answered";
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
        line = "the bus has gone";
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
        line = "the bus does not allow it: " + Message(error);
    }
    return {EXIT_UNREACHABLE, line};
}

Reading AsReading(GVariant* reply) {
    Reading reading;
    g_variant_get(reply, "(ii)", &reading.value, &reading.status);
    return reading;
}

/** One attempt to connect to the bus. */
struct Attempt {
    GLibPtr<GCancellable> cancellable{g_cancellable_new()};
    GLibPtr<GDBusConnection> connection;
    GLibError error;
    bool isOver = false;

    static void OnEnd(GObject* /*source*/, GAsyncResult* result, void* data) {
        auto* attempt = static_cast<Attempt*>(data);
        attempt->connection.reset(g_dbus_connection_new_for_address_finish(result, attempt->error));
        attempt->isOver = true;
    }
};

/** @throws ToolError if there is no bus, or it does not answer in time */
GLibPtr<GDBusConnection> ConnectToSystemBus(Timeout timeout) {
    GLibError error;
    const GLibPtr<char> address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
    if (address == nullptr) {
        throw ToolError(EXIT_UNREACHABLE, "no system bus: " + Message(error.Get()));
    }
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    const auto cancel = [](void* cancellable) -> gboolean {
        g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
        return G_SOURCE_REMOVE;
    };
    Attempt attempt;
    GLibPtr<GSource> timer;
    if (timeout) {
        timer.reset(g_timeout_source_new(static_cast<guint>(timeout->count())));
        g_source_set_callback(timer.get(), cancel, attempt.cancellable.get(), nullptr);
        g_source_attach(timer.get(), nullptr);
    }
    g_dbus_connection_new_for_address(address.get(), flags, nullptr, attempt.cancellable.get(),
                                      Attempt::OnEnd, &attempt);
    while (!attempt.isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (attempt.connection == nullptr) {
        const bool isLate = g_cancellable_is_cancelled(attempt.cancellable.get()) == TRUE;
        throw ToolError(EXIT_UNREACHABLE, isLate ? "no answer from the bus within " + Seconds(*timeout)
                                                 : "no system bus: " + Message(attempt.error.Get()));
    }
    return std::move(attempt.connection);
}

}  // namespace

std::vector<std::string> SupportWords(int support) {
    std::vector<std::string> words;
    for (unsigned bit = 0; bit < SUPPORT_WORDS.size(); ++bit) {
        if ((static_cast<unsigned>(support) >> bit & 1) != 0) {
            words.emplace_back(SUPPORT_WORDS[bit]);
        }
    }
    return words;
}

std::string SupportInHex(int support) {
    return Formatted("0x%04x", support);
}

std::string SupportInWords(int support) {
    const std::string words = Joined(SupportWords(support), ", ");
    return (words.empty() ? "nothing" : words) + " (" + SupportInHex(support) + ")";
}

std::string StatusInWords(int status) {
    static const std::map<int, std::string> FAILURES = {
        {-1, "failed or busy"}, {-2, "invalid argument"}, {-4, "not supported by this output"}};
    const auto failure = FAILURES.find(status);
    const std::string other = status < 0 ? "platform error" : "done";
    return (failure != FAILURES.end() ? failure->second : other) + " (" + std::to_string(status) + ")";
}

/** A call under way; the client waits for its end. */
struct KavrelClient::LateAnswer {
    KavrelClient* client;
    Answered answered;

    static void OnAnswer(GObject* connection, GAsyncResult* result, void* data) {
        const std::unique_ptr<LateAnswer> late(static_cast<LateAnswer*>(data));
        late->client->m_unanswered -= 1;
        GLibError error;
        const Variant reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error));
        if (g_cancellable_is_cancelled(late->client->m_cancellable.get())) {
            return;
        }
        if (reply == nullptr) {
            late->answered({}, AsToolError(error.Get(), late->client->m_timeout));
        } else {
            late->answered(AsReading(reply.get()), std::nullopt);
        }
    }
};

KavrelClient::KavrelClient(Timeout timeout)
    : m_timeout(timeout), m_connection(ConnectToSystemBus(timeout)), m_cancellable(g_cancellable_new()) {}

KavrelClient::~KavrelClient() {
    for (const guint subscription : m_subscriptions) {
        g_dbus_connection_signal_unsubscribe(m_connection.get(), subscription);
    }
    if (m_closed != 0) {
        g_signal_handler_disconnect(m_connection.get(), m_closed);
    }
    g_cancellable_cancel(m_cancellable.get());
    while (m_unanswered > 0) {
        g_main_context_iteration(nullptr, TRUE);
    }
}

Reading KavrelClient::Read(const char* method) const {
    return AsReading(CallOrThrow(DAEMON, method, nullptr, "(ii)").get());
}

int KavrelClient::Command(const char* method, GVariant* arguments) const {
    int status = 0;
    g_variant_get(CallOrThrow(DAEMON, method, arguments, "(i)").get(), "(i)", &status);
    return status;
}

void KavrelClient::ReadLater(const char* method, Answered answered) {
    auto late = std::make_unique<LateAnswer>(LateAnswer{this, std::move(answered)});
    m_unanswered += 1;
    g_dbus_connection_call(m_connection.get(), KAVREL_NAME, KAVREL_PATH, KAVREL_INTERFACE, method, nullptr,
                           G_VARIANT_TYPE("(ii)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, Milliseconds(),
                           m_cancellable.get(), LateAnswer::OnAnswer, late.release());
}

void KavrelClient::Emit(const char* signal, GVariant* arguments) const {
    const Variant body(g_variant_ref_sink(arguments));
    RequireOwner();
    GLibError error;
    if (!g_dbus_connection_emit_signal(m_connection.get(), nullptr, KAVREL_SIGNAL_PATH, KAVREL_INTERFACE,
                                       signal, body.get(), error)) {
        throw AsToolError(error.Get(), m_timeout);
    }
    // The bus takes messages in order: when it answers this call, it has the signal.
    CallOrThrow(BUS, "GetId", nullptr, "(s)");
}

std::string KavrelClient::Owner() const {
    GLibError error;
    const Variant reply = Call(BUS, "GetNameOwner", g_variant_new("(s)", KAVREL_NAME), "(s)", error);
    if (g_error_matches(error.Get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        return {};
    }
    if (reply == nullptr) {
        throw AsToolError(error.Get(), m_timeout);
    }
    const char* owner = nullptr;
    g_variant_get(reply.get(), "(&s)", &owner);
    return owner;
}

std::string KavrelClient::RequireOwner() const {
    std::string owner = Owner();
    if (owner.empty()) {
        throw ToolError(EXIT_UNREACHABLE, NotRunning());
    }
    return owner;
}

std::optional<unsigned> KavrelClient::ProcessOf(const std::string& name) const {
    const Variant reply =
        Call(BUS, "GetConnectionUnixProcessID", g_variant_new("(s)", name.c_str()), "(u)", nullptr);
    if (reply == nullptr) {
        return std::nullopt;
    }
    guint32 process = 0;
    g_variant_get(reply.get(), "(u)", &process);
    return process;
}

void KavrelClient::OnSignal(Heard heard) {
    m_heard = std::move(heard);
    const auto onSignal = [](GDBusConnection*, const char* sender, const char*, const char*,
                             const char* signal, GVariant* body, void* client) {
        static_cast<KavrelClient*>(client)->m_heard(sender, signal, body);
    };
    Subscribe(nullptr, KAVREL_INTERFACE, nullptr, nullptr, onSignal);
}

void KavrelClient::OnOwnerChanged(Changed changed) {
    m_changed = std::move(changed);
    const auto onSignal = [](GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant* body, void* client) {
        const char* owner = "";
        g_variant_get(body, "(&s&s&s)", nullptr, nullptr, &owner);
        static_cast<KavrelClient*>(client)->m_changed(owner);
    };
    Subscribe(BUS_NAME, BUS_NAME, "NameOwnerChanged", KAVREL_NAME, onSignal);
}

void KavrelClient::EndWithBus(MainLoop& loop) {
    const auto onClosed = [](GDBusConnection*, gboolean, GError*, void* mainLoop) {
        static_cast<MainLoop*>(mainLoop)->Guard(
            [] { throw ToolError(EXIT_UNREACHABLE, "the bus has gone"); });
    };
    m_closed = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(+onClosed), &loop);
}

Variant KavrelClient::Call(const Destination& to, const char* method, GVariant* arguments,
                           const char* replyType, GError** error) const {
    return Variant(g_dbus_connection_call_sync(
        m_connection.get(), to.name, to.path, to.interface, method, arguments, G_VARIANT_TYPE(replyType),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, Milliseconds(), nullptr, error));
}

Variant KavrelClient::CallOrThrow(const Destination& to, const char* method, GVariant* arguments,
                                  const char* replyType) const {
    GLibError error;
    Variant reply = Call(to, method, arguments, replyType, error);
    if (reply == nullptr) {
        throw AsToolError(error.Get(), m_timeout);
    }
    return reply;
}

void KavrelClient::Subscribe(const char* sender, const char* interface, const char* signal, const char* name,
                             GDBusSignalCallback callback) {
    m_subscriptions.push_back(
        g_dbus_connection_signal_subscribe(m_connection.get(), sender, interface, signal, nullptr, name,
                                           G_DBUS_SIGNAL_FLAGS_NONE, callback, this, nullptr));
}

int KavrelClient::Milliseconds() const {
    return m_timeout ? static_cast<int>(m_timeout->count()) : G_MAXINT;
}

}  // namespace tools
