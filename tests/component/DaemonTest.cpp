// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

#include <errno.h>

#include <algorithm>

#include "GainFixture.h"

/** The text of data/org.olvane.kavrel.xml, which the daemon contains. */
extern "C" const char kavrel_interface_xml[];

namespace {

using fake::FakeSeam;

constexpr const char* UNANSWERED = "org.olvane.Test.Unanswered";

/** "(ii)" for two integers. */
std::string TypesOf(GDBusArgInfo** arguments) {
    std::string types;
    for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
        types += (*arguments)->signature;
    }
    return '(' + types + ')';
}

tools::GLibPtr<GDBusNodeInfo> ParseInterface() {
    return tools::GLibPtr<GDBusNodeInfo>(g_dbus_node_info_new_for_xml(kavrel_interface_xml, nullptr));
}

/**
 * Lock it while handing data to another thread through GLib, whose own synchronization ThreadSanitizer does
 * not see. It is global, so that it outlives all threads.
 */
std::mutex handover;

/** A function to run on the main loop, and a promise to fulfil once it has run. */
struct Task {
    std::function<void()> action;
    std::promise<void> done;
};

}  // namespace

std::vector<MethodSignature> ReadMethods() {
    const auto node = ParseInterface();
    std::vector<MethodSignature> methods;
    for (GDBusMethodInfo** method = node->interfaces[0]->methods; *method != nullptr; ++method) {
        methods.push_back({(*method)->name, TypesOf((*method)->in_args), TypesOf((*method)->out_args)});
    }
    return methods;
}

std::string ProgramName() {
    return program_invocation_short_name;
}

testing::Matcher<const std::vector<std::string>&> HasInOrder(std::vector<std::string> lines) {
    return testing::Truly([lines = std::move(lines)](const std::vector<std::string>& all) {
        auto from = all.begin();
        for (const std::string& line : lines) {
            from = std::find(from, all.end(), line);
            if (from == all.end()) {
                std::cout << "Missing, or not in order: " << line << '\n';
                return false;
            }
            ++from;
        }
        return true;
    });
}

DaemonInProcess::DaemonInProcess(bool waitForName) : m_loop(g_main_loop_new(nullptr, FALSE)) {
    std::promise<void> ready;
    auto isReady = ready.get_future();
    m_thread = std::thread(&DaemonInProcess::Run, this, std::move(ready));
    isReady.get();
    if (waitForName &&
        !FakeSeam::Get().journal.With("LwipcEventDone(\"" + std::string(READY_EVENT) + "\")").Wait()) {
        ADD_FAILURE() << "the daemon did not get its name";
    }
}

DaemonInProcess::~DaemonInProcess() {
    fake::SkipStepTimes(true);  // the workers finish the fades under way
    OnMainLoop([this] { g_main_loop_quit(m_loop.get()); });
    m_thread.join();
    fake::SkipStepTimes(false);
}

void DaemonInProcess::Run(std::promise<void> ready) {
    m_server = std::make_unique<NKavrel::KVServer>();
    m_server->Init();
    ready.set_value();
    g_main_loop_run(m_loop.get());
    fake::RunMainContextUntilQuiet();
    m_server.reset();
    gio::RemoveLeftovers();
    fake::RunMainContextUntilQuiet();
}

gboolean DaemonInProcess::RunTask(void* data) {
    std::unique_lock lock(handover);
    Task task = std::move(*static_cast<Task*>(data));
    lock.unlock();
    task.action();
    task.done.set_value();
    return G_SOURCE_REMOVE;
}

void DaemonInProcess::OnMainLoop(const std::function<void()>& action) {
    std::unique_lock lock(handover);
    Task task = {action, {}};
    auto done = task.done.get_future();
    g_idle_add_full(G_PRIORITY_DEFAULT, RunTask, &task, nullptr);
    lock.unlock();
    done.get();
}

void DaemonInProcess::WaitUntilIdle() {
    OnMainLoop(fake::RunMainContextUntilQuiet);
}

Wire::Wire(const fake::BusClient& client) : m_connection(client.Connection()) {
    const std::lock_guard lock(handover);
    // The filter shares ownership of the list, since it may still be running after its removal.
    using Share = std::shared_ptr<Received>;
    const auto release = [](void* share) { std::unique_ptr<Share>{static_cast<Share*>(share)}; };
    m_received = std::make_shared<Received>();
    m_filter = g_dbus_connection_add_filter(m_connection, OnMessage,
                                            std::make_unique<Share>(m_received).release(), release);
}

Wire::~Wire() {
    g_dbus_connection_remove_filter(m_connection, m_filter);
}

GDBusMessage* Wire::OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming, void* data) {
    if (!incoming) {
        return message;
    }
    const std::string body = gio::PrintedWithTypes(g_dbus_message_get_body(message));
    std::string text;
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            text = std::string("signal ") + g_dbus_message_get_member(message) + ' ' + body;
            break;
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
            text = "reply " + body;
            break;
        case G_DBUS_MESSAGE_TYPE_ERROR:
            text = std::string("error ") + g_dbus_message_get_error_name(message);
            break;
        default:
            return message;
    }
    const std::lock_guard lock(handover);
    (*static_cast<std::shared_ptr<Received>*>(data))->push_back(text);
    return message;
}

std::vector<std::string> Wire::Messages() const {
    const std::lock_guard lock(handover);
    return *m_received;
}

PendingCall::PendingCall(const char* method, GVariant* parameters)
    : m_context(g_main_context_new()), m_service(fake::ConnectToBus()), m_caller(fake::ConnectToBus()) {
    g_main_context_push_thread_default(m_context.get());
    const GDBusInterfaceVTable table = {OnCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(m_service.get(), OBJECT_PATH, ParseInterface()->interfaces[0], &table,
                                      this, nullptr, nullptr);
    g_dbus_connection_call(m_caller.get(), g_dbus_connection_get_unique_name(m_service.get()), OBJECT_PATH,
                           INTERFACE, method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                           OnAnswer, this);
    while (m_invocation == nullptr) {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    g_main_context_pop_thread_default(m_context.get());
}

PendingCall::~PendingCall() {
    Answer();
    fake::Disconnect(std::move(m_caller));
    fake::Disconnect(std::move(m_service));
    while (g_main_context_iteration(m_context.get(), FALSE)) {
    }
}

std::string PendingCall::Answer() {
    if (m_invocation != nullptr) {
        // If the handler has answered, its answer is on the wire already and the caller ignores this one.
        GDBusMethodInvocation* invocation = std::exchange(m_invocation, nullptr);
        g_dbus_method_invocation_return_dbus_error(invocation, UNANSWERED, "");
        while (m_answer.empty()) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
        if (m_answer == "no reply") {
            g_object_unref(invocation);  // the reference that a handler's answer would have consumed
        }
    }
    return m_answer;
}

void PendingCall::OnCall(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
                         GDBusMethodInvocation* invocation, void* self) {
    g_object_ref(invocation);
    static_cast<PendingCall*>(self)->m_invocation = invocation;
}

void PendingCall::OnAnswer(GObject* connection, GAsyncResult* result, void* self) {
    std::string& answer = static_cast<PendingCall*>(self)->m_answer;
    tools::GLibError error;
    const tools::Variant reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error));
    if (reply != nullptr) {
        answer = gio::PrintedWithTypes(reply.get());
        return;
    }
    const tools::GLibPtr<char> name(g_dbus_error_get_remote_error(error.Get()));
    answer = g_strcmp0(name.get(), UNANSWERED) == 0 ? "no reply" : error->message;
}

void DaemonTest::Start() {
    daemon.emplace();
    Call("GetSpeakerSupportType");
    daemon->WaitUntilIdle();
    ASSERT_TRUE(fake::WorkersRest());
    seam.Clear();
}

std::string DaemonTest::Call(const std::string& method, GVariant* parameters) {
    std::string error;
    const auto reply = client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, method, parameters, &error);
    return reply == nullptr ? "error: " + error : gio::PrintedWithTypes(reply.get());
}

void DaemonTest::Emit(const std::string& name, GVariant* parameters) {
    client.Emit(PUBLIC_PATH, INTERFACE, name, parameters);
    daemon->WaitUntilIdle();
}

std::string DaemonTest::StartLine(const std::string& kind, const std::string& name) const {
    return kind + "CallHandler: I Start sender:" + client.Name() + ' ' + kind + "_name:" + name;
}

std::string DaemonTest::CallerLine() const {
    return "Print: I Called by [" + client.Name() + '/' + ProgramName() + ']';
}

ServerTest::~ServerTest() {
    End();
}

void ServerTest::InitWithoutName() {
    seam.Fail("g_bus_own_name", gio::NOTHING);
    server->Init();
    ASSERT_TRUE(fake::WorkersRest());
    seam.Clear();
}

void ServerTest::End() {
    fake::RunMainContextUntilQuiet();
    server.reset();
    gio::RemoveLeftovers();
}
