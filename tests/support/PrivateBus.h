// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A D-Bus system bus of the test's own, and clients on it.
 *
 * GLib's shared bus connection is one per process and lives no longer than its bus, so a test program has
 * one bus, started before the first use and ended after the last: `RegisterPrivateBus()` at file scope.
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

namespace fake {

struct VariantRelease {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantRelease>;

/**
 * Starts a dbus-daemon that lets everyone do everything, and makes it this process's system bus
 * (DBUS_SYSTEM_BUS_ADDRESS). The constructor returns when it can be connected to. It ends with the object,
 * and with this process however that ends.
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
 * One private bus for all tests of this program:
 * `[[maybe_unused]] const bool registered = fake::RegisterPrivateBus();` at file scope.
 */
bool RegisterPrivateBus();
/** Address of that bus, while tests run. */
const std::string& BusAddress();

/** Runs the default main context, whose signals the daemon hears, until the condition is met; false when time
 * is over. */
bool RunMainContextUntil(const std::function<bool()>& met,
                         std::chrono::milliseconds timeout = std::chrono::seconds(60));
/**
 * Runs the default main context until everything that was sent to the process's shared bus connection
 * before this call has been dispatched.
 */
void RunMainContextUntilQuiet();

struct Signal {
    std::string sender;
    std::string path;
    std::string interface;
    std::string name;
    /** The body as g_variant_print shows it: "(65535, 30)". */
    std::string body;

    bool operator==(const Signal&) const = default;
};

/**
 * A connection of its own to the private bus, for one thread. Its signals are delivered only inside
 * WaitForSignal.
 */
class BusClient {
public:
    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /** The unique name, ":1.7". */
    std::string Name() const;
    GDBusConnection* Connection() const { return m_connection; }

    /** Answers null, and the error's text in `error`, if the call failed. Consumes floating parameters. */
    Variant Call(const std::string& destination, const std::string& path, const std::string& interface,
                 const std::string& method, GVariant* parameters, std::string* error = nullptr) const;
    /** Hands the signal to the bus before it returns; it reaches every subscription that this process's shared
     *  connection asked for before. Consumes floating parameters. */
    void Emit(const std::string& path, const std::string& interface, const std::string& name,
              GVariant* parameters) const;

    /** Collects every signal of this path and interface from now on. */
    void Listen(const std::string& path, const std::string& interface);
    /** The next collected signal; without a name when none came in time. */
    Signal WaitForSignal(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    /** Takes whatever was sent to this client until now, by this process's shared connection too. */
    std::vector<Signal> TakeSignals();

private:
    GMainContext* m_context;
    GDBusConnection* m_connection;
    std::deque<Signal> m_signals;
};

/**
 * Another service on the private bus, on a thread of its own:
 * owns a name and answers one object's methods.
 */
class BusPeer {
public:
    /**
     * Answers a method: gets the arguments, gives the reply's
     * tuple (floating), or null for a D-Bus error.
     */
    using Method = std::function<GVariant*(GVariant* arguments)>;

    /** Ready when the constructor returns. `methodsXml`: the `<method>` elements of the interface. */
    BusPeer(const std::string& name, const std::string& path, const std::string& interface,
            const std::string& methodsXml, std::map<std::string, Method> methods);
    ~BusPeer();
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    /** Calls served so far, as "SetSpkVolume(30,)". */
    std::vector<std::string> Calls() const;

private:
    static void OnCall(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interface, const char* method, GVariant* arguments,
                       GDBusMethodInvocation* invocation, void* peer);
    void Serve(const std::string& name, const std::string& path, const std::string& interface,
               const std::string& methodsXml, std::promise<void> ready);

    const std::map<std::string, Method> m_methods;
    mutable std::mutex m_mutex;
    /** Guarded by m_mutex. */
    std::vector<std::string> m_calls;
    std::atomic<bool> m_stopped = false;
    GMainContext* m_context;
    std::thread m_thread;
};

}  // namespace fake

#endif
