// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The daemon in this process, and what its tests share. */
#ifndef KAVREL_TESTS_DAEMON_H
#define KAVREL_TESTS_DAEMON_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FakeSeam.h"
#include "Gio.h"
#include "KVServer.h"
#include "PrivateBus.h"

inline constexpr const char* BUS_NAME = "org.olvane.kavrel";
inline constexpr const char* INTERFACE = "org.olvane.kavrel";
inline constexpr const char* OBJECT_PATH = "/Org/Olvane/KavrelInternal";
inline constexpr const char* PUBLIC_PATH = "/Org/Olvane/Kavrel";
inline constexpr const char* READY_EVENT = "/tmp/.kavrel_ready";

/** Base name of this test program, as the caller tracker is to find it. */
std::string ProgramName();

/** Seam calls and log lines of INFO and above of one thread, as "FUNCTION: E text" with the function that
 * logged. */
std::vector<std::string> Lines(std::thread::id thread = std::this_thread::get_id());
/** Calls, log lines and entered scopes, in the same form. */
std::vector<std::string> LinesAndScopes(std::thread::id thread = std::this_thread::get_id());
/** Only the log lines. */
std::vector<std::string> LogLines(std::thread::id thread = std::this_thread::get_id());

/** All of the lines, in this order; others may stand between them. */
testing::Matcher<const std::vector<std::string>&> HasInOrder(std::vector<std::string> lines);

/**
 * KVServer on a main loop of its own thread, as main() runs it. It ends as a daemon never does: the loop is
 * left, what is under way is finished, and the server is deleted.
 */
class Daemon {
public:
    /** Ready when the constructor returns: Init is over, and the name is owned unless it was told not to wait
     * for that. */
    explicit Daemon(bool waitForName = true);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    NKavrel::KVServer& Server() { return *m_server; }
    std::thread::id Thread() const { return m_thread.get_id(); }
    /** Runs it on the main loop and waits for its end. */
    void OnMainLoop(const std::function<void()>& action);
    /** Waits until all that was sent to the daemon before has been served, the look-ups of callers too. */
    void WaitUntilIdle();

private:
    void Run(std::promise<void> ready);
    static gboolean RunTask(void* task);

    std::unique_ptr<NKavrel::KVServer> m_server;
    std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> m_loop;
    std::thread m_thread;
};

/** What a client is sent from now on, in the order of the wire. */
class Wire {
public:
    explicit Wire(const fake::BusClient& client);
    ~Wire();
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    /** "signal MEMBER BODY", "reply BODY", "error NAME". */
    std::vector<std::string> Messages() const;

private:
    using Received = std::vector<std::string>;

    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                   void* received);

    GDBusConnection* m_connection;
    guint m_filter;
    std::shared_ptr<Received> m_received;
};

/** A real call of one of the daemon's methods that waits for its answer: an invocation, off the daemon's bus
 * connection, for a handler that a test calls directly. */
class PendingCall {
public:
    explicit PendingCall(const char* method, GVariant* parameters = nullptr);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    GDBusConnection* Connection() const { return m_service; }
    GDBusMethodInvocation* Invocation() const { return m_invocation; }
    /** What the caller was answered, "(uint32 5, true)", or "no reply". Ends the call. */
    std::string Answer();

private:
    static void OnCall(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interface, const char* method, GVariant* arguments,
                       GDBusMethodInvocation* invocation, void* self);
    static void OnAnswer(GObject* connection, GAsyncResult* result, void* self);

    GMainContext* m_context;
    GDBusConnection* m_service;
    GDBusConnection* m_caller;
    GDBusMethodInvocation* m_invocation = nullptr;
    std::string m_answer;
};

/** Tests of the daemon as its clients see it. */
class DaemonTest : public testing::Test {
protected:
    /** The client is known to the caller tracker, and the journal is empty, when it returns. */
    void Start();
    /** Calls a method of the daemon: "(0, true)", or "error: " and the error's text. */
    std::string Call(const std::string& method, GVariant* parameters = nullptr);
    /** Sends the daemon a signal and waits until it has been served. */
    void Emit(const std::string& name, GVariant* parameters);
    /** What the daemon's main loop did, in order: calls and log lines, or log lines alone. */
    std::vector<std::string> Journal() const { return Lines(daemon->Thread()); }
    std::vector<std::string> Log() const { return LogLines(daemon->Thread()); }
    /** Lines with which the handling of a request begins; `kind`: "method" or "signal". */
    std::string StartLine(const std::string& kind, const std::string& name) const;
    std::string CallerLine() const;

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::BusClient client;
    std::optional<Daemon> daemon;
};

/** Tests of a server on the test's own thread, which runs the default main context. */
class ServerTest : public testing::Test {
protected:
    ~ServerTest() override;

    /** Init without asking for the name: the bus callbacks are the test's to call. */
    void InitWithoutName();
    void End();
    /** The connection of the process that the daemon works with. */
    GDBusConnection* Shared() const { return m_shared.get(); }

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    std::unique_ptr<NKavrel::KVServer> server = std::make_unique<NKavrel::KVServer>();

private:
    std::unique_ptr<GDBusConnection, decltype(&g_object_unref)> m_shared{
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_object_unref};
};

#endif
