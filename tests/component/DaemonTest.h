// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Runs the daemon inside the test program, and holds what its tests share. */
#ifndef KAVREL_TESTS_DAEMONTEST_H
#define KAVREL_TESTS_DAEMONTEST_H

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

/** A method of the daemon's interface, with the types of its arguments and of its reply: "(i)". */
struct MethodSignature {
    std::string name;
    std::string arguments;
    std::string reply;
};
/** All methods that the interface's XML describes, in its order. */
std::vector<MethodSignature> ReadMethods();

/** The base name of this test program, which the daemon's caller tracker must find. */
std::string ProgramName();

/** The line with which a report of the volume 33 begins. Until its end the report holds the lock of the volume control object. */
inline constexpr const char* VOLUME_33 = "I volume is changed : 33";

/** Matches a list that contains all of these lines in this order; other lines may come between them. */
testing::Matcher<const std::vector<std::string>&> HasInOrder(std::vector<std::string> lines);

/**
 * KVServer on a main loop of its own thread, as main() runs it. Unlike the real daemon, which only ends by a
 * signal, it shuts down: it leaves the loop, finishes pending work and deletes the server.
 */
class DaemonInProcess {
public:
    /** Returns once Init has returned and, if `waitForName`, the daemon owns its bus name. */
    explicit DaemonInProcess(bool waitForName = true);
    ~DaemonInProcess();
    DaemonInProcess(const DaemonInProcess&) = delete;
    DaemonInProcess& operator=(const DaemonInProcess&) = delete;

    NKavrel::KVServer& Server() { return *m_server; }
    std::thread::id Thread() const { return m_thread.get_id(); }
    /** Runs `action` on the main loop and waits until it returns. */
    void OnMainLoop(const std::function<void()>& action);
    /** Waits until the daemon has handled everything sent to it before, including its look-ups of callers. */
    void WaitUntilIdle();

private:
    void Run(std::promise<void> ready);
    static gboolean RunTask(void* task);

    std::unique_ptr<NKavrel::KVServer> m_server;
    tools::GLibPtr<GMainLoop> m_loop;
    std::thread m_thread;
};

/** Records the messages that a client receives from now on, in the order in which they arrive. */
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

/**
 * A real bus call of one of the daemon's methods that waits for its answer. It provides an invocation, on a
 * connection other than the daemon's, for a handler that a test calls directly.
 */
class PendingCall {
public:
    explicit PendingCall(const char* method, GVariant* parameters = nullptr);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    GDBusConnection* Connection() const { return m_service.get(); }
    GDBusMethodInvocation* Invocation() const { return m_invocation; }
    /** Ends the call and returns what the handler answered: "(uint32 5, true)", or "no reply". */
    std::string Answer();

private:
    static void OnCall(GDBusConnection* connection, const char* sender, const char* path,
                       const char* interface, const char* method, GVariant* arguments,
                       GDBusMethodInvocation* invocation, void* self);
    static void OnAnswer(GObject* connection, GAsyncResult* result, void* self);

    tools::GLibPtr<GMainContext> m_context;
    tools::GLibPtr<GDBusConnection> m_service;
    tools::GLibPtr<GDBusConnection> m_caller;
    GDBusMethodInvocation* m_invocation = nullptr;
    std::string m_answer;
};

/** Base of tests that use the daemon as its clients do. */
class DaemonTest : public testing::Test {
protected:
    /** Starts the daemon. Afterwards the caller tracker knows the client, and the journal is empty. */
    void Start();
    /**
     * Calls a method of the daemon and returns its reply, "(0, true)", or "error: " and the error's message.
     */
    std::string Call(const std::string& method, GVariant* parameters = nullptr);
    /** Sends the daemon a signal and waits until it has handled it. */
    void Emit(const std::string& name, GVariant* parameters);
    /** The seam calls and log lines of the daemon's main loop, in order. Log() has only the log lines. */
    fake::Query MainLoop() const { return journal.Of(daemon->Thread()); }
    /** The two lines that the daemon logs first for each request; `kind` is "method" or "signal". */
    std::string StartLine(const std::string& kind, const std::string& name) const;
    std::string CallerLine() const;

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    fake::BusClient client;
    std::optional<DaemonInProcess> daemon;
};

/** Base of tests that run a server on the test's own thread, with the default main context. */
class ServerTest : public testing::Test {
protected:
    ~ServerTest() override;

    /**
     * Initializes the server but makes its request for the name fail, so that the test calls the bus
     * callbacks.
     */
    void InitWithoutName();
    void End();
    /** The shared connection of this process, which the server uses. */
    GDBusConnection* Shared() const { return m_shared.get(); }

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::unique_ptr<NKavrel::KVServer> server = std::make_unique<NKavrel::KVServer>();

private:
    const tools::GLibPtr<GDBusConnection> m_shared = fake::SharedConnection();
};

#endif
