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
#include <fstream>
#include <stdexcept>

namespace fake {

namespace {

constexpr const char* CONFIGURATION = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <keep_umask/>
  <listen>unix:path=@FOLDER@/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

constexpr auto CONNECTION_FLAGS = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

std::filesystem::path MakeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kavrel-bus-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a folder for the bus");
    }
    return name;
}

void WriteConfiguration(const std::filesystem::path& file) {
    const std::string mark = "@FOLDER@";
    std::string text = CONFIGURATION;
    text.replace(text.find(mark), mark.size(), file.parent_path().string());
    std::ofstream(file) << text;
}

/** The child's part: only calls that are safe after a fork of a program with threads. */
[[noreturn]] void BecomeBus(const char* configuration, const char* printAddress, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) {
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", configuration, printAddress, nullptr);
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

/** Throws with GLib's own words if the call it stands behind failed. */
class Checked {
public:
    ~Checked() { g_clear_error(&m_error); }
    operator GError**() { return &m_error; }
    void Throw() const {
        if (m_error != nullptr) {
            throw std::runtime_error(m_error->message);
        }
    }

private:
    GError* m_error = nullptr;
};

GDBusConnection* Connect() {
    Checked error;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        BusAddress().c_str(), CONNECTION_FLAGS, nullptr, nullptr, error);
    error.Throw();
    return connection;
}

void Disconnect(GDBusConnection* connection) {
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
}

std::string Printed(GVariant* variant) {
    char* text = g_variant_print(variant, FALSE);
    std::string copy(text);
    g_free(text);
    return copy;
}

/**
 * The bus keeps the order of one connection's messages: the
 * answer comes after all that was under way to it.
 */
void Ping(GDBusConnection* connection) {
    Checked error;
    const Variant reply(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
    error.Throw();
}

/** All that this process has sent on its shared connection has reached the bus, and what came back is here. */
void PingOnSharedConnection() {
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    Ping(shared);
    g_object_unref(shared);
}

/** A timer that ends one wait of a main context. */
class Timer {
public:
    Timer(GMainContext* context, std::chrono::milliseconds timeout)
        : m_source(g_timeout_source_new(static_cast<guint>(timeout.count()))) {
        g_source_set_callback(m_source, OnTime, &m_over, nullptr);
        g_source_attach(m_source, context);
    }
    ~Timer() {
        g_source_destroy(m_source);
        g_source_unref(m_source);
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
    GSource* m_source;
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
    const auto file = m_folder / "bus.conf";
    WriteConfiguration(file);
    std::array<int, 2> address = {};
    if (pipe(address.data()) != 0) {
        throw std::runtime_error("cannot make a pipe for the bus address");
    }
    const std::string configuration = "--config-file=" + file.string();
    const std::string printAddress = "--print-address=" + std::to_string(address[1]);
    const pid_t parent = getpid();
    m_process = fork();
    if (m_process == 0) {
        BecomeBus(configuration.c_str(), printAddress.c_str(), parent);
    }
    close(address[1]);
    m_address = ReadLine(address[0]);
    close(address[0]);
    if (m_address.empty()) {
        throw std::runtime_error("dbus-daemon did not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    // The shared connection would end the process together with its bus.
    if (GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)) {
        g_dbus_connection_set_exit_on_close(shared, FALSE);
        g_object_unref(shared);
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

const std::string& BusAddress() {
    return environment->Bus()->Address();
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

BusClient::BusClient() : m_context(g_main_context_new()), m_connection(Connect()) {}

BusClient::~BusClient() {
    Disconnect(m_connection);
    g_main_context_unref(m_context);
}

std::string BusClient::Name() const {
    return g_dbus_connection_get_unique_name(m_connection);
}

Variant BusClient::Call(const std::string& destination, const std::string& path, const std::string& interface,
                        const std::string& method, GVariant* parameters, std::string* error) const {
    GError* failure = nullptr;
    Variant reply(g_dbus_connection_call_sync(m_connection, destination.c_str(), path.c_str(),
                                              interface.c_str(), method.c_str(), parameters, nullptr,
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &failure));
    if (failure != nullptr && error != nullptr) {
        *error = failure->message;
    }
    g_clear_error(&failure);
    return reply;
}

void BusClient::Emit(const std::string& path, const std::string& interface, const std::string& name,
                     GVariant* parameters) const {
    PingOnSharedConnection();
    Checked error;
    g_dbus_connection_emit_signal(m_connection, nullptr, path.c_str(), interface.c_str(), name.c_str(),
                                  parameters, error);
    error.Throw();
    Ping(m_connection);
}

void BusClient::Listen(const std::string& path, const std::string& interface) {
    const auto collect = [](GDBusConnection*, const char* sender, const char* from, const char* of,
                            const char* name, GVariant* body, void* client) {
        static_cast<BusClient*>(client)->m_signals.push_back({sender, from, of, name, Printed(body)});
    };
    g_main_context_push_thread_default(m_context);
    g_dbus_connection_signal_subscribe(m_connection, nullptr, interface.c_str(), nullptr, path.c_str(),
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, collect, this, nullptr);
    g_main_context_pop_thread_default(m_context);
    Ping(m_connection);
}

Signal BusClient::WaitForSignal(std::chrono::milliseconds timeout) {
    const Timer timer(m_context, timeout);
    while (m_signals.empty() && !timer.Over()) {
        g_main_context_iteration(m_context, TRUE);
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
    Ping(m_connection);
    while (g_main_context_iteration(m_context, FALSE)) {
    }
    const std::vector<Signal> taken(m_signals.begin(), m_signals.end());
    m_signals.clear();
    return taken;
}

BusPeer::BusPeer(const std::string& name, const std::string& path, const std::string& interface,
                 const std::string& methodsXml, std::map<std::string, Method> methods)
    : m_methods(std::move(methods)), m_context(g_main_context_new()) {
    std::promise<void> ready;
    auto isReady = ready.get_future();
    m_thread = std::thread(&BusPeer::Serve, this, name, path, interface, methodsXml, std::move(ready));
    isReady.get();
}

BusPeer::~BusPeer() {
    m_stopped = true;
    g_main_context_wakeup(m_context);
    m_thread.join();
    g_main_context_unref(m_context);
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
        peer->m_calls.push_back(method + Printed(arguments));
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
    g_main_context_push_thread_default(m_context);
    GDBusConnection* connection = Connect();
    const std::string xml = "<node><interface name='" + interface + "'>" + methodsXml + "</interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    GDBusInterfaceVTable table = {};
    table.method_call = OnCall;
    g_dbus_connection_register_object(connection, path.c_str(), node->interfaces[0], &table, this, nullptr,
                                      nullptr);
    g_variant_unref(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), 0), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    ready.set_value();
    while (!m_stopped) {
        g_main_context_iteration(m_context, TRUE);
    }
    Disconnect(connection);
    g_dbus_node_info_unref(node);
    g_main_context_pop_thread_default(m_context);
}

}  // namespace fake
