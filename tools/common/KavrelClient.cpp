// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KavrelClient.h"

#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>
#include <utility>

#include "Print.h"

using namespace std::chrono_literals;

namespace tools {

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr Destination BUS = {BUS_NAME, "/org/freedesktop/DBus", BUS_NAME};
constexpr Destination DAEMON = {KAVREL_NAME, KAVREL_PATH, KAVREL_INTERFACE};

/** By the bits of the support word, from the lowest on. */
constexpr std::array SUPPORT_WORDS = {"read volume", "set volume", "read mute", "set mute"};

using Pauses = std::span<const std::chrono::milliseconds>;
/** The pauses before the further attempts of a client that tries again. */
constexpr std::array<std::chrono::milliseconds, 3> PAUSES = {50ms, 100ms, 200ms};

std::string Message(const GError* error) {
    const GLibPtr<GError> copy(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    return copy->message;
}

std::string NotRunning() {
    return std::string("kavreld is not running: nobody on the bus owns ") + KAVREL_NAME;
}

bool IsBusy(const GError* error) {
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED) == TRUE;
}

ToolError AsToolError(const GError* error, Timeout timeout) {
    std::string line = "the call failed: " + Message(error);
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        line = NotRunning();
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) && timeout) {
        line = "no answer within " + InSeconds(*timeout);
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY)) {
        line = "kavreld left the bus before it answered";
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
        line = "the bus has gone";
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
        return {EXIT_NOT_ALLOWED, "not allowed: needs root or the group audio"};
    } else if (IsBusy(error)) {
        return {EXIT_BUSY, "busy, try again: " + Message(error)};
    }
    return {EXIT_UNREACHABLE, line};
}

Reading AsReading(GVariant* reply) {
    Reading reading;
    g_variant_get(reply, "(ii)", &reading.value, &reading.status);
    return reading;
}

/** Whether the daemon answers an attempt with status -1, or bus or daemon have too much to do for it. */
bool IsBusy(GVariant* reply, const GError* error) {
    if (reply == nullptr) {
        return IsBusy(error);
    }
    const Variant last(g_variant_get_child_value(reply, g_variant_n_children(reply) - 1));
    return g_variant_is_of_type(last.get(), G_VARIANT_TYPE_INT32) == TRUE &&
           g_variant_get_int32(last.get()) == FAILED_OR_BUSY;
}

/** The end of one asynchronous operation of GIO. */
struct Ending {
    GLibPtr<GAsyncResult> result;

    static void OnEnd(GObject* /*source*/, GAsyncResult* result, void* ending) {
        static_cast<Ending*>(ending)->result.reset(G_ASYNC_RESULT(g_object_ref(result)));
    }
    /** @param context that was the thread's own at the start of the operation; null for the default one */
    void Await(GMainContext* context) const {
        while (result == nullptr) {
            g_main_context_iteration(context, TRUE);
        }
    }
};

/** While it lives, the operations that this thread begins end in a main context of their own. */
class OwnContext {
public:
    OwnContext() { g_main_context_push_thread_default(m_context.get()); }
    ~OwnContext() { g_main_context_pop_thread_default(m_context.get()); }
    OwnContext(const OwnContext&) = delete;
    OwnContext& operator=(const OwnContext&) = delete;

    GMainContext* Get() const { return m_context.get(); }

private:
    const GLibPtr<GMainContext> m_context{g_main_context_new()};
};

/** @throws ToolError if the bus does not answer in time
 *  @return null and the error if there is no bus */
GLibPtr<GDBusConnection> ConnectTo(const char* address, Timeout timeout, GError** error) {
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    const Deadline deadline(timeout);
    Ending ending;
    g_dbus_connection_new_for_address(address, flags, nullptr, deadline.Cancellable(), Ending::OnEnd,
                                      &ending);
    ending.Await(nullptr);
    GLibPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_finish(ending.result.get(), error));
    if (connection == nullptr && deadline.IsOver()) {
        throw ToolError(EXIT_UNREACHABLE, "no answer from the bus within " + InSeconds(*timeout));
    }
    return connection;
}

/** Names the address from the environment, which may be that of a bus that has ended. */
ToolError NoSystemBus(const GError* error) {
    const char* const address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::string line = "no system bus: " + Message(error);
    if (address != nullptr && *address == '\0') {
        line = "no system bus: DBUS_SYSTEM_BUS_ADDRESS is empty; unset it to use the system's bus";
    } else if (address != nullptr) {
        line += "; DBUS_SYSTEM_BUS_ADDRESS names " + Printable(address);
    }
    return {EXIT_UNREACHABLE, line};
}

/** @throws ToolError if there is no bus, or it does not answer in time */
GLibPtr<GDBusConnection> ConnectToSystemBus(Timeout timeout, Pauses pauses) {
    GLibError noAddress;
    const GLibPtr<char> address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, noAddress));
    if (address == nullptr) {
        throw NoSystemBus(noAddress.Get());
    }
    for (auto pause = pauses.begin();; ++pause) {
        GLibError error;
        GLibPtr<GDBusConnection> connection = ConnectTo(address.get(), timeout, error);
        if (connection != nullptr) {
            return connection;
        }
        if (!IsBusy(error.Get())) {
            throw NoSystemBus(error.Get());
        }
        if (pause == pauses.end()) {
            throw AsToolError(error.Get(), timeout);
        }
        std::this_thread::sleep_for(*pause);
    }
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
    const std::string can = Joined(SupportWords(support), ", ");
    const std::string cannot = Joined(SupportWords(~support), ", ");
    const std::string words = can.empty()      ? "nothing: volume and mute can be neither read nor set"
                              : cannot.empty() ? can
                                               : can + "; not: " + cannot;
    return words + " (" + SupportInHex(support) + ")";
}

std::string StatusInWords(int status) {
    static const std::map<int, std::string> FAILURES = {{FAILED_OR_BUSY, "failed or busy"},
                                                        {-2, "invalid argument"},
                                                        {NOT_SUPPORTED, "not supported by this output"}};
    const auto failure = FAILURES.find(status);
    const std::string other = status < 0 ? "platform error" : "done";
    return (failure != FAILURES.end() ? failure->second : other) + " (" + std::to_string(status) + ")";
}

/** A question whose answer comes later. The client waits for the end of all of them. */
struct KavrelClient::LateAnswer {
    LateAnswer(KavrelClient& asking, const char* getter, Answered callback)
        : client(asking), method(getter), answered(std::move(callback)), pause(client.m_pauses.begin()) {
        client.m_unanswered += 1;
    }
    ~LateAnswer() { client.m_unanswered -= 1; }
    LateAnswer(const LateAnswer&) = delete;
    LateAnswer& operator=(const LateAnswer&) = delete;

    KavrelClient& client;
    const char* method;
    Answered answered;
    /** The pause before the next attempt. */
    Pauses::iterator pause;

    static std::unique_ptr<LateAnswer> Owned(void* data) {
        return std::unique_ptr<LateAnswer>(static_cast<LateAnswer*>(data));
    }

    static void OnAnswer(GObject* connection, GAsyncResult* result, void* data) {
        auto late = Owned(data);
        GLibError error;
        const Variant reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error));
        if (g_cancellable_is_cancelled(late->client.m_cancellable.get())) {
            return;
        }
        if (late->pause != late->client.m_pauses.end() && IsBusy(reply.get(), error.Get())) {
            const auto pause = static_cast<guint>((late->pause++)->count());
            g_timeout_add(pause, AskAgain, late.release());
        } else if (reply == nullptr) {
            late->answered({}, AsToolError(error.Get(), late->client.m_timeout));
        } else {
            late->answered(AsReading(reply.get()), std::nullopt);
        }
    }

    static gboolean AskAgain(void* data) {
        auto late = Owned(data);
        KavrelClient& client = late->client;
        client.Ask(std::move(late));
        return G_SOURCE_REMOVE;
    }
};

KavrelClient::KavrelClient(Timeout timeout, WhenBusy whenBusy)
    : m_timeout(timeout),
      m_pauses(whenBusy == WhenBusy::TRY_AGAIN ? Pauses(PAUSES) : Pauses()),
      m_connection(ConnectToSystemBus(timeout, m_pauses)),
      m_cancellable(g_cancellable_new()) {}

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
    return AsReading(CallDaemon(method, nullptr, "(ii)").get());
}

int KavrelClient::Command(const char* method, GVariant* arguments) const {
    int status = 0;
    g_variant_get(CallDaemon(method, arguments, "(i)").get(), "(i)", &status);
    return status;
}

void KavrelClient::ReadLater(const char* method, Answered answered) {
    Ask(std::make_unique<LateAnswer>(*this, method, std::move(answered)));
}

void KavrelClient::Emit(const char* signal, GVariant* arguments) const {
    const Variant body(g_variant_ref_sink(arguments));
    Try([&](GError** error) { return Send(signal, body.get(), error); });
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

void KavrelClient::OwnName(const std::string& name) const {
    constexpr guint32 DO_NOT_QUEUE = 4;  // as the bus numbers them
    constexpr guint32 IS_OWNER = 1;
    GLibError error;
    const Variant reply =
        Call(BUS, "RequestName", g_variant_new("(su)", name.c_str(), DO_NOT_QUEUE), "(u)", error);
    if (g_error_matches(error.Get(), G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) == TRUE) {
        throw ToolError(EXIT_NOT_ALLOWED,
                        "not allowed: needs a rule of the bus that lets this user own " + name);
    }
    if (reply == nullptr) {
        throw AsToolError(error.Get(), m_timeout);
    }
    guint32 answer = 0;
    g_variant_get(reply.get(), "(u)", &answer);
    if (answer != IS_OWNER) {
        throw ToolError(EXIT_REFUSED, "cannot own the name " + name + ": another program does");
    }
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

Variant KavrelClient::CallDaemon(const char* method, GVariant* arguments, const char* replyType) const {
    const Variant body(arguments == nullptr ? nullptr : g_variant_ref_sink(arguments));
    return Try([&](GError** error) { return Call(DAEMON, method, body.get(), replyType, error); });
}

Variant KavrelClient::Try(const std::function<Variant(GError** error)>& attempt) const {
    for (auto pause = m_pauses.begin();; ++pause) {
        GLibError error;
        Variant reply = attempt(error);
        if (pause != m_pauses.end() && IsBusy(reply.get(), error.Get())) {
            std::this_thread::sleep_for(*pause);
            continue;
        }
        if (reply == nullptr) {
            throw AsToolError(error.Get(), m_timeout);
        }
        return reply;
    }
}

void KavrelClient::Ask(std::unique_ptr<LateAnswer> late) {
    const char* method = late->method;
    g_dbus_connection_call(m_connection.get(), KAVREL_NAME, KAVREL_PATH, KAVREL_INTERFACE, method, nullptr,
                           G_VARIANT_TYPE("(ii)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, Milliseconds(),
                           m_cancellable.get(), LateAnswer::OnAnswer, late.release());
}

Variant KavrelClient::Send(const char* signal, GVariant* body, GError** error) const {
    const GLibPtr<GDBusMessage> message(
        g_dbus_message_new_signal(KAVREL_SIGNAL_PATH, KAVREL_INTERFACE, signal));
    g_dbus_message_set_destination(message.get(), KAVREL_NAME);
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    g_dbus_message_set_body(message.get(), body);

    const OwnContext context;
    const GLibPtr<GCancellable> cancellable(g_cancellable_new());
    Ending refusal;
    g_dbus_connection_send_message_with_reply(m_connection.get(), message.get(),
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, G_MAXINT, nullptr,
                                              cancellable.get(), Ending::OnEnd, &refusal);
    // The bus takes messages in order: when it answers this call, a refusal of the signal has come.
    Variant reply = Call(BUS, "GetId", nullptr, "(s)", error);
    g_main_context_iteration(context.Get(), FALSE);
    if (refusal.result == nullptr) {
        g_cancellable_cancel(cancellable.get());
        refusal.Await(context.Get());
        return reply;
    }
    g_clear_error(error);
    const GLibPtr<GDBusMessage> answer(
        g_dbus_connection_send_message_with_reply_finish(m_connection.get(), refusal.result.get(), error));
    if (answer != nullptr) {
        g_dbus_message_to_gerror(answer.get(), error);
    }
    return nullptr;
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
