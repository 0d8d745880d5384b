// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "PrivateBus.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace fake {

namespace {

constexpr auto CONNECTION_FLAGS = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

std::filesystem::path MakeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kavrel-bus-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder for the bus");
    }
    return name;
}

/**
 * Turns the forked child into the bus. Uses only calls that are safe after a fork of a program with threads.
 */
[[noreturn]] void BecomeBus(const char* address, const char* printAddress, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) {
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile",
               "--config-file=" PRIVATE_BUS_CONFIGURATION, address, printAddress, nullptr);
    }
    _exit(127);
}

std::string ReadLine(int fd) {
    std::string line;
    for (char byte = 0; read(fd, &byte, 1) == 1 && byte != '\n';) {
        line += byte;
    }
    return line;
}

void ThrowIfSet(const tools::GLibError& error) {
    if (error.Get() != nullptr) {
        throw std::runtime_error(error->message);
    }
}

/**
 * Waits until the bus has all earlier messages of this connection: the bus keeps their order, so it answers
 * last.
 */
void Ping(GDBusConnection* connection) {
    tools::GLibError error;
    const tools::Variant reply(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
    ThrowIfSet(error);
}

/** Waits until the bus has all that the shared connection sent, and this process all that came back. */
void PingOnSharedConnection() {
    Ping(SharedConnection().get());
}

/** Ends one wait of a main context after a time limit. */
class Timer {
public:
    Timer(GMainContext* context, std::chrono::milliseconds timeout)
        : m_source(g_timeout_source_new(static_cast<guint>(timeout.count()))) {
        g_source_set_callback(m_source.get(), OnTime, &m_over, nullptr);
        g_source_attach(m_source.get(), context);
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    bool Over() const { return m_over; }

private:
    static gboolean OnTime(void* over) {
        *static_cast<bool*>(over) = true;
        return G_SOURCE_REMOVE;
    }

    bool m_over = false;
    tools::GLibPtr<GSource> m_source;
};

class BusEnvironment : public testing::Environment {
public:
    void SetUp() override { m_bus = std::make_unique<PrivateBus>(); }
    void TearDown() override { m_bus.reset(); }
    const PrivateBus* Bus() const { return m_bus.get(); }

private:
    std::unique_ptr<PrivateBus> m_bus;
};

BusEnvironment* environment = nullptr;

}  // namespace

PrivateBus::PrivateBus() : m_folder(MakeFolder()) {
    std::array<int, 2> output = {};
    if (pipe(output.data()) != 0) {
        throw std::runtime_error("cannot make a pipe for the bus address");
    }
    const std::string address = "--address=unix:path=" + (m_folder / "bus").string();
    const std::string printAddress = "--print-address=" + std::to_string(output[1]);
    const pid_t parent = getpid();
    m_process = fork();
    if (m_process == 0) {
        BecomeBus(address.c_str(), printAddress.c_str(), parent);
    }
    close(output[1]);
    m_address = ReadLine(output[0]);
    close(output[0]);
    if (m_address.empty()) {
        throw std::runtime_error("dbus-daemon did not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    // Otherwise the shared connection would end this process together with the bus.
    if (const auto shared = SharedConnection()) {
        g_dbus_connection_set_exit_on_close(shared.get(), FALSE);
    }
    kill(m_process, SIGTERM);
    waitpid(m_process, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

bool RegisterPrivateBus() {
    environment = std::make_unique<BusEnvironment>().release();
    return testing::AddGlobalTestEnvironment(environment) != nullptr;
}

tools::GLibPtr<GDBusConnection> ConnectToBus() {
    tools::GLibError error;
    tools::GLibPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
        environment->Bus()->Address().c_str(), CONNECTION_FLAGS, nullptr, nullptr, error));
    ThrowIfSet(error);
    return connection;
}

void Disconnect(tools::GLibPtr<GDBusConnection> connection) {
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
}

tools::GLibPtr<GDBusConnection> SharedConnection() {
    return tools::GLibPtr<GDBusConnection>(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
}

bool RunMainContextUntil(const std::function<bool()>& met, std::chrono::milliseconds timeout) {
    const Timer timer(nullptr, timeout);
    while (!met() && !timer.Over()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return met();
}

void RunMainContextUntilQuiet() {
    PingOnSharedConnection();
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

BusClient::BusClient() : m_context(g_main_context_new()), m_connection(ConnectToBus()) {}

BusClient::~BusClient() {
    Disconnect(std::move(m_connection));
}

std::string BusClient::Name() const {
    return g_dbus_connection_get_unique_name(m_connection.get());
}

tools::Variant BusClient::Call(const std::string& destination, const std::string& path,
                               const std::string& interface, const std::string& method, GVariant* parameters,
                               std::string* error) const {
    tools::GLibError failure;
    tools::Variant reply(g_dbus_connection_call_sync(m_connection.get(), destination.c_str(), path.c_str(),
                                                     interface.c_str(), method.c_str(), parameters, nullptr,
                                                     G_DBUS_CALL_FLAGS_NONE, -1, nullptr, failure));
    if (reply == nullptr && error != nullptr) {
        *error = failure->message;
    }
    return reply;
}

void BusClient::Emit(const std::string& path, const std::string& interface, const std::string& name,
                     GVariant* parameters) const {
    PingOnSharedConnection();
    tools::GLibError error;
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, path.c_str(), interface.c_str(), name.c_str(),
                                  parameters, error);
    ThrowIfSet(error);
    Ping(m_connection.get());
}

void BusClient::Listen(const std::string& path, const std::string& interface) {
    const auto collect = [](GDBusConnection*, const char* sender, const char* from, const char* of,
                            const char* name, GVariant* body, void* client) {
        static_cast<BusClient*>(client)->m_signals.push_back({sender, from, of, name, tools::Printed(body)});
    };
    g_main_context_push_thread_default(m_context.get());
    g_dbus_connection_signal_subscribe(m_connection.get(), nullptr, interface.c_str(), nullptr, path.c_str(),
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, collect, this, nullptr);
    g_main_context_pop_thread_default(m_context.get());
    Ping(m_connection.get());
}

Signal BusClient::WaitForSignal(std::chrono::milliseconds timeout) {
    const Timer timer(m_context.get(), timeout);
    while (m_signals.empty() && !timer.Over()) {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    if (m_signals.empty()) {
        return {};
    }
    Signal signal = m_signals.front();
    m_signals.pop_front();
    return signal;
}

std::vector<Signal> BusClient::TakeSignals() {
    PingOnSharedConnection();
    Ping(m_connection.get());
    while (g_main_context_iteration(m_context.get(), FALSE)) {
    }
    const std::vector<Signal> taken(m_signals.begin(), m_signals.end());
    m_signals.clear();
    return taken;
}

BusPeer::BusPeer(const std::string& name, const std::string& path, const std::string& interface,
                 const std::string& methodsXml, std::map<std::string, MethodHandler> methods)
    : m_methods(std::move(methods)), m_context(g_main_context_new()) {
    std::promise<void> ready;
    auto isReady = ready.get_future();
    m_thread = std::thread(&BusPeer::Serve, this, name, path, interface, methodsXml, std::move(ready));
    isReady.get();
}

BusPeer::~BusPeer() {
    m_stopped = true;
    g_main_context_wakeup(m_context.get());
    m_thread.join();
}

std::vector<std::string> BusPeer::Calls() const {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

void BusPeer::OnCall(GDBusConnection*, const char*, const char*, const char*, const char* method,
                     GVariant* arguments, GDBusMethodInvocation* invocation, void* data) {
    auto* peer = static_cast<BusPeer*>(data);
    {
        const std::lock_guard lock(peer->m_mutex);
        peer->m_calls.push_back(method + tools::Printed(arguments));
    }
    GVariant* reply = peer->m_methods.at(method)(arguments);
    if (reply == nullptr) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.olvane.Test.Refused", "refused");
    } else {
        g_dbus_method_invocation_return_value(invocation, reply);
    }
}

void BusPeer::Serve(const std::string& name, const std::string& path, const std::string& interface,
                    const std::string& methodsXml, std::promise<void> ready) {
    g_main_context_push_thread_default(m_context.get());
    auto connection = ConnectToBus();
    const std::string xml = "<node><interface name='" + interface + "'>" + methodsXml + "</interface></node>";
    const tools::GLibPtr<GDBusNodeInfo> node(g_dbus_node_info_new_for_xml(xml.c_str(), nullptr));
    GDBusInterfaceVTable table = {};
    table.method_call = OnCall;
    g_dbus_connection_register_object(connection.get(), path.c_str(), node->interfaces[0], &table, this,
                                      nullptr, nullptr);
    const tools::Variant reply(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", name.c_str(), 0), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        nullptr));
    ready.set_value();
    while (!m_stopped) {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    Disconnect(std::move(connection));
    g_main_context_pop_thread_default(m_context.get());
}

}  // namespace fake
