// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVServer.h"

#include <dlfcn.h>
#include <pthread.h>

#include <csignal>

#include "DaemonTest.h"
#include "KVDefine.h"

using NKavrel::KVServer;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* LOCK_IS_BUSY = "pthread_mutex_lock(busy)";

void RecordBusyLock() {
    fake::FakeSeam::Get().Enter("pthread_mutex_lock", "busy");
}

}  // namespace

#ifdef __SANITIZE_THREAD__

// ThreadSanitizer knows GLib's locks by their caller, so no function may come between the two. In its builds the
// entry says that the lock follows, not that it has to wait.
static void WatchNextLock() {
    RecordBusyLock();
}

#else

/** Whether the next lock of this thread that has to wait enters the journal. */
static thread_local bool watchesLocks = false;

static void WatchNextLock() {
    watchesLocks = true;
}

/** Replaces the library's function. */
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static auto* const lock =
        reinterpret_cast<decltype(pthread_mutex_lock)*>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    if (watchesLocks) {
        if (pthread_mutex_trylock(mutex) == 0) {
            return 0;
        }
        watchesLocks = false;
        RecordBusyLock();
    }
    return lock(mutex);
}

#endif

namespace {

const std::string READY = "LwipcEventDone(\"/tmp/.kavrel_ready\")";
const std::string NOT_READY = "LwipcResetEvent(\"/tmp/.kavrel_ready\")";
constexpr const char* CONTROL_MADE = "NKavrel::VolumeControlImpl::VolumeControlImpl()";
constexpr const char* CONTROL_GONE = "NKavrel::VolumeControlImpl::~VolumeControlImpl()";
constexpr const char* WAIT_FOR_LOCK =
    "std::unique_lock<std::recursive_mutex> NKavrel::VolumeControlImpl::WaitForLock()";
constexpr const char* REGISTER =
    "g_dbus_connection_register_object(/Org/Olvane/KavrelInternal, org.olvane.kavrel)";
constexpr const char* UNREGISTER = "g_dbus_connection_unregister_object()";
constexpr const char* SUBSCRIBE =
    "g_dbus_connection_signal_subscribe(*, org.olvane.kavrel, *, /Org/Olvane/Kavrel, *, 0)";

class KVServerTest : public ServerTest {
protected:
    void AcquireBus() { KVServer::onBusAcquired(Shared(), BUS_NAME, server.get()); }
    void AcquireName() { KVServer::onNameAcquired(Shared(), BUS_NAME, server.get()); }
    void LoseName() { KVServer::onNameLost(Shared(), BUS_NAME, server.get()); }
    /** The log lines and bus calls of the server's destruction, without seam calls. */
    std::vector<std::string> StepsOfEnd() {
        seam.Clear();
        server.reset();
        auto steps = journal.Here().AndScopes().Lines();
        std::erase_if(steps, [](const std::string& step) {
            for (const char* kept : {"~", "Deinit()", "g_", "unregister_object"}) {
                if (step.find(kept) != std::string::npos && step.find("Speaker") == std::string::npos &&
                    step.find("Gain") == std::string::npos) {
                    return false;
                }
            }
            return true;
        });
        return steps;
    }
};

/** Tests the whole daemon, which owns its name and runs its own main loop. */
class KVServerLifeTest : public DaemonTest {
protected:
    /**
     * Regains the name, since GLib warns (and so fails the test) if it must release a name that is not owned.
     */
    void TearDown() override {
        if (daemon) {
            RegainName();
        }
    }
    /** Sends the bus a request about the daemon's name, on the daemon's own connection. */
    void AskBusAsDaemon(const char* method, GVariant* parameters) {
        const tools::Variant reply(
            g_dbus_connection_call_sync(fake::SharedConnection().get(), "org.freedesktop.DBus",
                                        "/org/freedesktop/DBus", "org.freedesktop.DBus", method, parameters,
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
        ASSERT_NE(reply, nullptr);
        daemon->WaitUntilIdle();
    }
    void LoseName() { AskBusAsDaemon("ReleaseName", g_variant_new("(s)", BUS_NAME)); }
    void RegainName() { AskBusAsDaemon("RequestName", g_variant_new("(su)", BUS_NAME, 0)); }
    std::string CallByUniqueName(const std::string& method) {
        const std::string name = g_dbus_connection_get_unique_name(fake::SharedConnection().get());
        std::string error;
        const auto reply = client.Call(name, OBJECT_PATH, INTERFACE, method, nullptr, &error);
        return reply == nullptr ? "error: " + error : gio::PrintedWithTypes(reply.get());
    }
};

// The constructor and Init.

TEST_F(KVServerTest, ConstructionDoesNothingButTrace) {
    EXPECT_THAT(journal.Here().Lines(), IsEmpty());
    EXPECT_THAT(journal.Traces().Names(), ElementsAre("[IN]KVServer::KVServer", "[OUT]KVServer::KVServer"));
}

TEST_F(KVServerTest, InitRequestsTheNameThenCreatesTheVolumeControlThenTrackerAndDispatcher) {
    EXPECT_TRUE(server->Init());
    const std::string setHandler =
        "void NKavrel::VolumeControlImpl::SetEventHandler(const std::string&, const "
        "NKavrel::VolumeEventHandler&)";
    EXPECT_THAT(
        journal.Here().AndScopes().Lines(),
        HasInOrder({"bool NKavrel::KVServer::Init()", "g_dbus_node_info_new_for_xml()",
                    "g_bus_own_name(system bus, org.olvane.kavrel, 0)", CONTROL_MADE,
                    "NKavrel::KVAudioGainHandler::KVAudioGainHandler()", WAIT_FOR_LOCK, setHandler,
                    setHandler, setHandler, "NKavrel::KVDbusSender::KVDbusSender()",
                    "NKavrel::KVDbusEventHandler::KVDbusEventHandler()",
                    "void NKavrel::KVDbusEventHandler::Init()", "_AddMedthodCallEvents: I Add 9 events",
                    "_AddSignalEvents: I Add 4 signal events"}));
    EXPECT_EQ(journal.With("D \t[IN]NKavrel::VolumeControlImpl::VolumeControlImpl()").Count(), 1);
}

TEST_F(KVServerTest, InitLogsTheIdOfTheNameRequest) {
    seam.Fail("g_bus_own_name", 0);
    EXPECT_TRUE(server->Init());
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("Init: I g_bus_own_name return 0"));
}

TEST_F(KVServerTest, BusCallbacksRunOnlyWhenTheMainLoopRuns) {
    server->Init();
    EXPECT_THAT(journal.Here().Lines(), Not(Contains(REGISTER)));
    EXPECT_FALSE(seam.Event(READY_EVENT));
    EXPECT_TRUE(fake::RunMainContextUntil([&] { return seam.Event(READY_EVENT); }));
    EXPECT_THAT(journal.Here().Lines(), HasInOrder({REGISTER, SUBSCRIBE, READY}));
}

TEST_F(KVServerTest, InitRegistersAListenerForEachOfTheThreeEvents) {
    InitWithoutName();
    for (const std::string& event :
         {KVDefine::VOLUME_CHANGED, KVDefine::MUTE_CHANGED, KVDefine::SPEAKER_CHANGED}) {
        server->getCurrentSpeaker()->SetEventHandler(event, [](int, int) {});
    }
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre(StartsWith("SetEventHandler: E "), StartsWith("SetEventHandler: E "),
                            StartsWith("SetEventHandler: E ")))
        << "each has one already";
}

TEST_F(KVServerTest, InitWaitsWhileAReportHoldsTheVolumeControlAndThenRegisters) {
    seam.Fail("g_bus_own_name", gio::NOTHING);
    auto report = seam.BlockNext(VOLUME_33);
    std::thread platform;
    std::thread opener;
    // Reports can reach the volume control object while Init still builds its gain controller.
    seam.BeforeNext("vconf_notify_key_changed(\"" + KVDefine::SUB_BT_ZONE_KEY + "\")", [&] {
        platform = std::thread([&] { seam.FireVolume(33); });
        ASSERT_TRUE(report.WaitReached());
        opener = std::thread([&] {
            EXPECT_TRUE(journal.With(LOCK_IS_BUSY).Wait());
            report.Open();
        });
    });
    seam.BeforeNext("D \t[IN]" + std::string(WAIT_FOR_LOCK), WatchNextLock);
    EXPECT_TRUE(server->Init());
    report.Open();
    opener.join();
    platform.join();
    seam.FireVolume(34);
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("onVolumeChanged: E Connection is NULL"));
    seam.FireMute(1);
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("onMuteChanged: E Connection is NULL"));
    seam.FireRoute(12);
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains(StartsWith("onSpeakerChanged: I ")));
}

TEST_F(KVServerTest, AnInterfaceThatCannotBeCompiledLeavesNothingBehind) {
    seam.Fail("g_dbus_node_info_new_for_xml", gio::REFUSED);
    EXPECT_FALSE(server->Init());
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("g_dbus_node_info_new_for_xml()",
                            "Init: E Failed g_dbus_node_info_new_for_xml. refused by the test"));
}

TEST_F(KVServerTest, AMissingErrorObjectPrintsAsNull) {
    seam.Fail("g_dbus_node_info_new_for_xml", gio::NOTHING);
    EXPECT_FALSE(server->Init());
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre("Init: E Failed g_dbus_node_info_new_for_xml. (null)"));
}

TEST_F(KVServerTest, AnotherInitReplacesTrackerAndDispatcher) {
    InitWithoutName();
    EXPECT_TRUE(server->Init());
    EXPECT_THAT(
        journal.Here().AndScopes().Lines(),
        HasInOrder({"NKavrel::KVDbusSender::KVDbusSender()", "NKavrel::KVDbusSender::~KVDbusSender()",
                    "NKavrel::KVDbusEventHandler::KVDbusEventHandler()",
                    "NKavrel::KVDbusEventHandler::~KVDbusEventHandler()",
                    "_AddMedthodCallEvents: I Add 9 events", "_AddSignalEvents: I Add 4 signal events"}));
    EXPECT_THAT(journal.Here().AndScopes().Lines(), Not(Contains(CONTROL_MADE)));
}

// The volume control object.

TEST_F(KVServerTest, TheVolumeControlIsMadeByItsFirstUse) {
    auto& control = server->getCurrentSpeaker();
    ASSERT_NE(control, nullptr);
    EXPECT_THAT(journal.Here().AndScopes().Lines(), Contains(CONTROL_MADE));
    EXPECT_EQ(&server->getCurrentSpeaker(), &control);
    EXPECT_EQ(journal.With("D \t[IN]NKavrel::VolumeControlImpl::VolumeControlImpl()").Count(), 1);
}

TEST_F(KVServerTest, AMethodCallMakesAMissingVolumeControlBeforeItsHandlerRuns) {
    InitWithoutName();
    server->getCurrentSpeaker().reset();
    PendingCall call("GetSpeakerVolume");
    seam.Clear();
    KVServer::methodCallHandler(call.Connection(), ":1.99", OBJECT_PATH, INTERFACE, "GetSpeakerVolume",
                                nullptr, call.Invocation(), server.get());
    EXPECT_THAT(journal.Here().AndScopes().Lines(),
                HasInOrder({CONTROL_MADE,
                            "_OnGetSpeakerVolume: I Return Current volume "
                            "state(10), ret:0"}));
    EXPECT_EQ(call.Answer(), "(10, 0)");
}

// Bus acquired.

TEST_F(KVServerTest, BusAcquiredRefusesNulls) {
    KVServer::onBusAcquired(nullptr, BUS_NAME, nullptr);
    KVServer::onBusAcquired(nullptr, BUS_NAME, server.get());
    KVServer::onBusAcquired(Shared(), BUS_NAME, nullptr);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("onBusAcquired: E Connection is NULL", "onBusAcquired: E Connection is NULL",
                            "onBusAcquired: E pObj is NULL"));
}

TEST_F(KVServerTest, BusAcquiredRegistersTheObjectThenSubscribesOnThePublicPath) {
    InitWithoutName();
    AcquireBus();
    const auto lines = journal.Here().Lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], REGISTER);
    EXPECT_THAT(lines[1], testing::MatchesRegex("onBusAcquired: I m_DbusRegisterObjId:[1-9][0-9]*"));
    EXPECT_EQ(lines[2], SUBSCRIBE);
}

TEST_F(KVServerTest, AFailedRegistrationIsLoggedAndNothingIsSubscribed) {
    InitWithoutName();
    seam.Fail("g_dbus_connection_register_object", gio::REFUSED, 1);
    seam.Fail("g_dbus_connection_register_object", gio::NOTHING, 2);
    AcquireBus();
    AcquireBus();
    const std::string failed = "onBusAcquired: E Failed g_dbus_connection_register_object(). ";
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre(REGISTER, failed + "refused by the test", REGISTER, failed + "(null)"));
}

TEST_F(KVServerTest, ASecondBusAcquiredRegistersAndSubscribesAgainAndRemovesNothing) {
    InitWithoutName();
    AcquireBus();
    gio::RemoveLeftovers();  // a new connection has no object at the path either
    AcquireBus();
    EXPECT_THAT(journal.Calls("g_").Texts(), ElementsAre(REGISTER, SUBSCRIBE, REGISTER, SUBSCRIBE));
}

/** The number of SIGTERMs that this process has caught. */
volatile std::sig_atomic_t terminations = 0;

TEST_F(KVServerTest, AConnectionThatGDBusCannotReadEndsTheProcess) {
    InitWithoutName();
    AcquireBus();
    const auto former = std::signal(SIGTERM, [](int) { terminations = terminations + 1; });
    g_signal_emit_by_name(Shared(), "closed", FALSE, nullptr);  // as when this process closes it
    EXPECT_EQ(terminations, 0);
    const std::unique_ptr<GError, decltype(&g_error_free)> error(
        g_error_new_literal(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "unreadable"), &g_error_free);
    g_signal_emit_by_name(Shared(), "closed", FALSE, error.get());
    EXPECT_GT(terminations, 0);
    std::signal(SIGTERM, former);
}

// Name acquired.

TEST_F(KVServerTest, NameAcquiredRefusesNulls) {
    KVServer::onNameAcquired(nullptr, BUS_NAME, nullptr);
    KVServer::onNameAcquired(nullptr, BUS_NAME, server.get());
    KVServer::onNameAcquired(Shared(), BUS_NAME, nullptr);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("onNameAcquired: E Connection is NULL", "onNameAcquired: E Connection is NULL",
                            "onNameAcquired: E pObj is NULL"));
}

TEST_F(KVServerTest, NameAcquiredRaisesTheReadyEventAndNeverMindsItsResult) {
    seam.Fail("LwipcEventDone", -7);
    AcquireName();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(READY));
}

TEST_F(KVServerTest, TheConnectionIsSetBeforeTheReadyEventIsRaised) {
    InitWithoutName();
    seam.BeforeNext(READY, [&] { KVServer::onVolumeChanged(1, 2, server.get()); });
    AcquireName();
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre("onVolumeChanged: I Send dbus signal VolumeChanged : 2"));
}

TEST_F(KVServerTest, CallsAreServedBeforeTheNameButChangesBeforeItAreNeverAnnounced) {
    InitWithoutName();
    AcquireBus();
    fake::BusClient client;
    client.Listen(OBJECT_PATH, INTERFACE);
    const std::string name = g_dbus_connection_get_unique_name(Shared());
    std::string answer;
    std::thread caller([&] {
        fake::BusClient another;
        const auto reply =
            another.Call(name, OBJECT_PATH, INTERFACE, "SetSpeakerVolume", g_variant_new("(i)", 30));
        answer = reply == nullptr ? "no reply" : gio::PrintedWithTypes(reply.get());
        g_main_context_wakeup(nullptr);
    });
    EXPECT_TRUE(fake::RunMainContextUntil(
        [&] { return journal.With("g_dbus_method_invocation_return_value((0,))").Count() == 1; }));
    caller.join();
    EXPECT_EQ(answer, "(0,)");
    EXPECT_THAT(journal.Here().Logs().Lines(),
                HasInOrder({"onVolumeChanged: E Connection is NULL",
                            "_OnSetSpeakerVolume: I Return volume 30. ret:0"}));
    EXPECT_THAT(client.TakeSignals(), IsEmpty());
    AcquireName();
    seam.FireVolume(31);
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 1U);
    EXPECT_EQ(signals[0].body, "(65535, 31)");
}

// Name lost.

TEST_F(KVServerTest, NameLostRefusesNulls) {
    KVServer::onNameLost(nullptr, BUS_NAME, nullptr);
    KVServer::onNameLost(nullptr, BUS_NAME, server.get());
    KVServer::onNameLost(Shared(), BUS_NAME, nullptr);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("onNameLost: E Connection is NULL", "onNameLost: E Connection is NULL",
                            "onNameLost: E pObj is NULL"));
}

TEST_F(KVServerTest, NameLostClearsTheConnectionThenUnregistersThenResetsTheReadyEvent) {
    InitWithoutName();
    AcquireBus();
    AcquireName();
    seam.Clear();
    seam.BeforeNext("g_dbus_connection_unregister_object",
                    [&] { KVServer::onVolumeChanged(1, 2, server.get()); });
    LoseName();
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre(UNREGISTER, "onVolumeChanged: E Connection is NULL", NOT_READY));
    EXPECT_FALSE(seam.Event(READY_EVENT));
}

TEST_F(KVServerTest, NameLostNeverMindsWhatCannotBeUndone) {
    seam.Fail("LwipcResetEvent", -7);
    LoseName();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(UNREGISTER, NOT_READY));
}

TEST_F(KVServerTest, TheMethodHandlersOutliveTheName) {
    InitWithoutName();
    AcquireBus();
    AcquireName();
    LoseName();
    PendingCall call("GetSpeakerVolume");
    KVServer::methodCallHandler(call.Connection(), ":9.9", OBJECT_PATH, INTERFACE, "GetSpeakerVolume",
                                nullptr, call.Invocation(), server.get());
    EXPECT_EQ(call.Answer(), "(10, 0)");
}

TEST_F(KVServerLifeTest, TheReadyEventIsDoneWhileTheNameIsOwned) {
    Start();
    EXPECT_TRUE(seam.Event(READY_EVENT));
    LoseName();
    EXPECT_FALSE(seam.Event(READY_EVENT));
    RegainName();
    EXPECT_TRUE(seam.Event(READY_EVENT));
}

TEST_F(KVServerLifeTest, AfterTheNameIsLostTheLoopRunsOnWithoutTheObject) {
    Start();
    EXPECT_EQ(CallByUniqueName("GetSpeakerVolume"), "(10, 0)");
    LoseName();
    EXPECT_THAT(CallByUniqueName("GetSpeakerVolume"), testing::StartsWith("error: "));
    bool ran = false;
    daemon->OnMainLoop([&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(KVServerLifeTest, ChangesAreAnnouncedOnlyWhileTheNameIsOwned) {
    Start();
    client.Listen(OBJECT_PATH, INTERFACE);
    LoseName();
    seam.FireVolume(20);
    seam.FireMute(1);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                HasInOrder({"onVolumeChanged: E Connection is NULL", "onMuteChanged: E Connection is NULL"}));
    EXPECT_THAT(client.TakeSignals(), IsEmpty());
    RegainName();
    seam.FireVolume(21);
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 1U);
    EXPECT_EQ(signals[0].body, "(65535, 21)");
}

TEST_F(KVServerLifeTest, SignalsAreHandledWithoutTheNameToo) {
    Start();
    LoseName();
    Emit("BudsConnected", g_variant_new("(i)", 4));
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains(StartsWith("_OnBudsConnected: I ")));
}

TEST_F(KVServerLifeTest, TheIdOfTheObjectOutlivesTheName) {
    Start();
    LoseName();
    RegainName();
    const auto thread = daemon->Thread();
    daemon.reset();  // the server has a connection and an id, but no object is registered under that id
    EXPECT_THAT(journal.Of(thread).Logs().Lines(),
                Contains("~KVServer: E unregister_object() result FAILED"));
}

TEST_F(KVServerLifeTest, ASecondInstanceLosesTheNameAtOnceAndServesNobody) {
    const auto reply = client.Call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "RequestName", g_variant_new("(su)", BUS_NAME, 0));
    ASSERT_NE(reply, nullptr);
    daemon.emplace(false);
    ASSERT_TRUE(journal.With(NOT_READY).Wait());
    daemon->WaitUntilIdle();
    EXPECT_THAT(journal.Of(daemon->Thread()).Lines(),
                AllOf(HasInOrder({REGISTER, SUBSCRIBE, UNREGISTER, NOT_READY}), Not(Contains(READY))));
    EXPECT_THAT(CallByUniqueName("GetSpeakerVolume"), testing::StartsWith("error: "));
}

// Destruction.

TEST_F(KVServerTest, TheEndLeavesTheBusFirstAndDestroysTheVolumeControlLast) {
    server->Init();
    ASSERT_TRUE(fake::RunMainContextUntil([&] { return seam.Event(READY_EVENT); }));
    EXPECT_THAT(StepsOfEnd(), ElementsAre("NKavrel::KVServer::~KVServer()", UNREGISTER,
                                          "~KVServer: E unregister_object() result OK",
                                          "NKavrel::KVDbusSender::~KVDbusSender()",
                                          "void NKavrel::KVDbusEventHandler::Deinit()",
                                          "NKavrel::KVDbusEventHandler::~KVDbusEventHandler()",
                                          "g_bus_unown_name()", "g_dbus_node_info_unref()", CONTROL_GONE));
}

TEST_F(KVServerTest, TheEndWithoutTheNameUnregistersNothing) {
    InitWithoutName();
    AcquireBus();
    EXPECT_THAT(StepsOfEnd(),
                ElementsAre("NKavrel::KVServer::~KVServer()", "NKavrel::KVDbusSender::~KVDbusSender()",
                            "void NKavrel::KVDbusEventHandler::Deinit()",
                            "NKavrel::KVDbusEventHandler::~KVDbusEventHandler()", "g_dbus_node_info_unref()",
                            CONTROL_GONE));
}

TEST_F(KVServerTest, TheEndWithoutAnObjectUnregistersNothing) {
    InitWithoutName();
    AcquireName();
    EXPECT_THAT(StepsOfEnd(), Not(Contains(UNREGISTER)));
}

TEST_F(KVServerTest, TheEndAfterAFailedSecondRegistrationUnregistersNothing) {
    InitWithoutName();
    AcquireBus();
    gio::RemoveLeftovers();
    seam.Fail("g_dbus_connection_register_object", gio::REFUSED, 1);
    AcquireBus();
    AcquireName();
    EXPECT_THAT(StepsOfEnd(), Not(Contains(UNREGISTER)));
}

TEST_F(KVServerTest, TheEndAfterAFailedInitHasNothingToDo) {
    seam.Fail("g_dbus_node_info_new_for_xml", gio::REFUSED);
    server->Init();
    EXPECT_THAT(StepsOfEnd(), ElementsAre("NKavrel::KVServer::~KVServer()"));
}

TEST_F(KVServerTest, TheEndWithoutInitHasNothingToDo) {
    EXPECT_THAT(StepsOfEnd(), ElementsAre("NKavrel::KVServer::~KVServer()"));
}

TEST_F(KVServerTest, AReportDuringTheEndFindsTheVolumeControlAndMakesNoOther) {
    InitWithoutName();
    // The server is being destroyed; its listeners and the speaker still exist.
    seam.BeforeNext("D \t[IN]void NKavrel::VolumeControlImpl::UnsetEventHandler()", [&] {
        seam.FireMute(1);
        seam.FireRoute(12);
    });
    server.reset();
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("onMuteChanged: E Connection is NULL"));
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains(StartsWith("onSpeakerChanged: I ")));
    EXPECT_THAT(journal.Here().AndScopes().Lines(), Not(Contains(CONTROL_MADE)));
}

}  // namespace
