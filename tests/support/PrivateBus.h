// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A D-Bus system bus for one test program, and clients on it.
 *
 * GLib has one shared bus connection per process, which ends with its bus. So a test program starts one bus
 * before its first test and ends it after its last: call `RegisterPrivateBus()` at file scope.
 */
#ifndef KAVREL_TESTS_PRIVATEBUS_H
#define KAVREL_TESTS_PRIVATEBUS_H

#include <gio/gio.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "GLibPtr.h"

namespace fake {

/**
 * Starts a dbus-daemon with the configuration of scripts/private-bus.conf and makes it this process's system
 * bus (DBUS_SYSTEM_BUS_ADDRESS). The constructor returns when clients can connect. The bus ends with the
 * object, and also when this process dies in any way.
 */
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& Address() const { return m_address; }

private:
    std::filesystem::path m_folder;
    pid_t m_process = -1;
    std::string m_address;
};

/**
 * Gives all tests of this program one private bus:
 * `[[maybe_unused]] const bool registered = fake::RegisterPrivateBus();` at file scope.
 */
bool RegisterPrivateBus();

/** Opens a new connection to the private bus. */
tools::GLibPtr<GDBusConnection> ConnectToBus();
/** Closes a connection of ConnectToBus and waits until it is closed. */
void Disconnect(tools::GLibPtr<GDBusConnection> connection);
/** The shared connection of this process, which the daemon under test uses; null without a bus. */
tools::GLibPtr<GDBusConnection> SharedConnection();

/**
 * Runs the default main context, in which the daemon receives signals, until the condition is met.
 * @return whether it was met in time
 */
bool RunMainContextUntil(const std::function<bool()>& met,
                         std::chrono::milliseconds timeout = std::chrono::seconds(60));
/**
 * Runs the default main context until it has dispatched everything sent to the shared connection before this
 * call.
 */
void RunMainContextUntilQuiet();

struct Signal {
    std::string sender;
    std::string path;
    std::string interface;
    std::string name;
    /** In GVariant's text format: "(65535, 30)". */
    std::string body;

    bool operator==(const Signal&) const = default;
};

/**
 * A client with its own connection to the private bus, for use by one thread. It receives signals only inside
 * WaitForSignal and TakeSignals.
 */
class BusClient {
public:
    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /** The unique name, ":1.7". */
    std::string Name() const;
    GDBusConnection* Connection() const { return m_connection.get(); }

    /**
     * Calls a method and waits for the reply. Consumes floating parameters.
     * @param[out] error the error's message, if the call failed
     * @return the reply, or null if the call failed
     */
    tools::Variant Call(const std::string& destination, const std::string& path, const std::string& interface,
                        const std::string& method, GVariant* parameters, std::string* error = nullptr) const;
    /**
     * Broadcasts a signal and returns once the bus has it. Every subscription that the shared connection
     * requested before this call receives it. Consumes floating parameters.
     */
    void Emit(const std::string& path, const std::string& interface, const std::string& name,
              GVariant* parameters) const;

    /** Collects every signal of this path and interface that arrives from now on. */
    void Listen(const std::string& path, const std::string& interface);
    /** Removes and returns the next collected signal; its name is empty if none arrived in time. */
    Signal WaitForSignal(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    /**
     * Removes and returns all signals sent to this client until now, including those of the shared
     * connection.
     */
    std::vector<Signal> TakeSignals();

private:
    tools::GLibPtr<GMainContext> m_context;
    tools::GLibPtr<GDBusConnection> m_connection;
    std::deque<Signal> m_signals;
};

/**
 * Another service on the private bus, on its own thread. It owns a name and answers the methods of one
 * object.
 */
class BusPeer {
public:
    /**
     * Receives a call's arguments and returns the reply, a floating tuple, or null to answer with a D-Bus
     * error.
     */
    using MethodHandler = std::function<GVariant*(GVariant* arguments)>;

    /**
     * Returns once the service owns its name.
     * @param methodsXml the `<method>` elements of the interface
     */
    BusPeer(const std::string& name, const std::string& path, const std::string& interface,
            const std::string& methodsXml, std::map<std::string, MethodHandler> methods);
    ~BusPeer();
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    /** The calls received so far: "SetSpkVolume(30,)". */
    std::vector<std::string> Calls() const;

private:
    static void OnCall(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interface, const char* method, GVariant* arguments,
                       GDBusMethodInvocation* invocation, void* peer);
    void Serve(const std::string& name, const std::string& path, const std::string& interface,
               const std::string& methodsXml, std::promise<void> ready);

    const std::map<std::string, MethodHandler> m_methods;
    mutable std::mutex m_mutex;
    /** Guarded by m_mutex. */
    std::vector<std::string> m_calls;
    std::atomic<bool> m_stopped = false;
    tools::GLibPtr<GMainContext> m_context;
    std::thread m_thread;
};

}  // namespace fake

#endif
