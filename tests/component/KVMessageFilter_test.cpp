// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "DaemonTest.h"
#include "KVMessageFilter.h"

using NKavrel::KVMessageFilter;
using NKavrel::KVServer;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* REFUSED =
    "error org.freedesktop.DBus.Error.LimitsExceeded: Too many messages of this sender wait already";
constexpr const char* REFUSED_WITH_DESCRIPTOR =
    "error org.freedesktop.DBus.Error.LimitsExceeded: File descriptors are not accepted";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* INVALID_ARGUMENTS = "error org.freedesktop.DBus.Error.InvalidArgs";

/** A connection that sends messages to the server without waiting for answers, and collects the answers. */
class Sender {
public:
    explicit Sender(GDBusConnection* server) : m_server(g_dbus_connection_get_unique_name(server)) {
        m_filter = g_dbus_connection_add_filter(m_client.Connection(), OnMessage, this, nullptr);
    }
    ~Sender() {
        Ping();
        g_dbus_connection_remove_filter(m_client.Connection(), m_filter);
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    std::string Name() const { return m_client.Name(); }

    tools::GLibPtr<GDBusMessage> NewCall(const char* method, GVariant* arguments = nullptr,
                                         const char* interface = INTERFACE,
                                         const char* path = OBJECT_PATH) const {
        tools::GLibPtr<GDBusMessage> message(
            g_dbus_message_new_method_call(m_server.c_str(), path, interface, method));
        if (arguments != nullptr) {
            g_dbus_message_set_body(message.get(), arguments);
        }
        return message;
    }
    tools::GLibPtr<GDBusMessage> NewSignal(const char* name, GVariant* arguments) const {
        tools::GLibPtr<GDBusMessage> message(g_dbus_message_new_signal(PUBLIC_PATH, INTERFACE, name));
        g_dbus_message_set_destination(message.get(), m_server.c_str());
        g_dbus_message_set_body(message.get(), arguments);
        return message;
    }

    /** Sends a message and releases it with its descriptors. Returns its serial, for AnswerTo(). */
    guint32 Send(tools::GLibPtr<GDBusMessage> message) {
        guint32 serial = 0;
        g_dbus_connection_send_message(m_client.Connection(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       &serial, nullptr);
        return serial;
    }
    std::vector<guint32> SendGetters(int count) {
        std::vector<guint32> serials;
        for (int i = 0; i < count; ++i) {
            serials.push_back(Send(NewCall("GetSpeakerVolume")));
        }
        return serials;
    }

    /** Returns when the server's connection has read, and its filter has seen, everything sent before. */
    void Ping() { AnswerTo(Send(NewCall("Ping", nullptr, "org.freedesktop.DBus.Peer"))); }

    /** Waits for the answer: "reply BODY" or "error NAME: TEXT". */
    std::string AnswerTo(guint32 serial) {
        std::unique_lock lock(m_mutex);
        const bool hasCome =
            m_arrived.wait_for(lock, std::chrono::seconds(60), [&] { return m_answers.contains(serial); });
        return hasCome ? m_answers[serial] : "no answer";
    }
    /** Not waiting. */
    bool HasAnswer(guint32 serial) {
        const std::lock_guard lock(m_mutex);
        return m_answers.contains(serial);
    }
    std::size_t CountAnswers(const std::vector<guint32>& serials) {
        return static_cast<std::size_t>(std::count_if(serials.begin(), serials.end(),
                                                      [this](guint32 serial) { return HasAnswer(serial); }));
    }

private:
    static GDBusMessage* OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming, void* self) {
        const GDBusMessageType type = g_dbus_message_get_message_type(message);
        if (incoming && (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR)) {
            auto& sender = *static_cast<Sender*>(self);
            const std::lock_guard lock(sender.m_mutex);
            sender.m_answers[g_dbus_message_get_reply_serial(message)] =
                type == G_DBUS_MESSAGE_TYPE_ERROR
                    ? std::string("error ") + g_dbus_message_get_error_name(message) + ": " +
                          g_dbus_message_get_arg0(message)
                    : "reply " + gio::PrintedWithTypes(g_dbus_message_get_body(message));
            sender.m_arrived.notify_all();
            g_main_context_wakeup(nullptr);
        }
        return message;
    }

    const std::string m_server;
    fake::BusClient m_client;
    guint m_filter;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::map<guint32, std::string> m_answers;  // by serial
};

/** Tests a server on the bus whose main loop runs only while a test runs it. */
class KVMessageFilterTest : public ServerTest {
protected:
    void SetUp() override {
        InitWithoutName();
        KVServer::onBusAcquired(Shared(), BUS_NAME, server.get());
        fake::RunMainContextUntilQuiet();
        seam.Clear();
    }
    void TearDown() override {
        fake::RunMainContextUntilQuiet();
        KVServer::onNameLost(Shared(), BUS_NAME, server.get());
        End();
        gio::RemoveLeftovers();
    }

    static tools::GLibPtr<GDBusMessage> WithoutReply(tools::GLibPtr<GDBusMessage> call) {
        g_dbus_message_set_flags(call.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        return call;
    }
    static tools::GLibPtr<GDBusMessage> AllProperties(const Sender& sender) {
        return sender.NewCall("GetAll", g_variant_new("(s)", INTERFACE), PROPERTIES);
    }
    /** Makers of the calls, and a part of GDBus's answer. */
    static auto CallsThatNoHandlerGets(const Sender& sender) {
        using Maker = std::function<tools::GLibPtr<GDBusMessage>()>;
        constexpr const char* GETTER = "GetSpeakerVolume";
        return std::vector<std::pair<Maker, const char*>>{
            {[&] { return sender.NewCall(GETTER, g_variant_new("(i)", 1)); }, INVALID_ARGUMENTS},
            {[&] { return sender.NewCall(GETTER, nullptr, INTERFACE, "/nowhere"); }, "Unknown"},
            {[&] { return sender.NewCall(GETTER, nullptr, nullptr); }, "Unknown"},
            {[&] { return sender.NewCall(GETTER, nullptr, "org.olvane.other"); }, "Unknown"},
        };
    }

    void ExpectRefused(Sender& sender, guint32 serial) { EXPECT_EQ(sender.AnswerTo(serial), REFUSED); }
    void ExpectServed(Sender& sender, const std::vector<guint32>& serials) {
        EXPECT_TRUE(
            fake::RunMainContextUntil([&] { return sender.CountAnswers(serials) == serials.size(); }));
        for (const guint32 serial : serials) {
            EXPECT_EQ(sender.AnswerTo(serial), "reply (10, 0)");
        }
    }
};

TEST_F(KVMessageFilterTest, SixtyFourGettersOfOneSenderWaitAndTheNextIsRefusedAtOnce) {
    Sender sender(Shared());
    const auto waiting = sender.SendGetters(64);
    ExpectRefused(sender, sender.SendGetters(1).front());
    EXPECT_EQ(sender.CountAnswers(waiting), 0U);
    ExpectServed(sender, waiting);
}

TEST_F(KVMessageFilterTest, ServedGettersMakeRoomForOthers) {
    Sender sender(Shared());
    for (int round = 0; round < 4; ++round) {  // as many in all as may wait of all senders
        ExpectServed(sender, sender.SendGetters(64));
        fake::RunMainContextUntilQuiet();
    }
    const auto waiting = sender.SendGetters(64);
    ExpectRefused(sender, sender.SendGetters(1).front());
    ExpectServed(sender, waiting);
}

TEST_F(KVMessageFilterTest, ServedGettersThatWantNoReplyMakeRoomForOthersToo) {
    Sender sender(Shared());
    for (int i = 0; i < 64; ++i) {
        sender.Send(WithoutReply(sender.NewCall("GetSpeakerVolume")));
    }
    sender.Ping();
    fake::RunMainContextUntilQuiet();
    ExpectServed(sender, sender.SendGetters(64));
}

TEST_F(KVMessageFilterTest, AllThreeGettersShareOneLimit) {
    Sender sender(Shared());
    for (const char* getter : {"GetSpeakerVolume", "GetSpeakerMute", "GetSpeakerSupportType"}) {
        for (int i = 0; i < 21; ++i) {
            sender.Send(sender.NewCall(getter));
        }
    }
    const guint32 last = sender.Send(sender.NewCall("GetSpeakerVolume"));
    ExpectRefused(sender, sender.Send(sender.NewCall("GetSpeakerMute")));
    ExpectServed(sender, {last});
}

TEST_F(KVMessageFilterTest, TwoHundredFiftySixGettersOfAllSendersWait) {
    Sender first(Shared());
    const auto admitted = first.SendGetters(1);
    first.Ping();
    std::deque<Sender> senders;
    for (const int count : {64, 64, 64, 63}) {
        Sender& sender = senders.emplace_back(Shared());
        const auto waiting = sender.SendGetters(count);
        sender.Ping();
        EXPECT_EQ(sender.CountAnswers(waiting), 0U);
    }
    ExpectRefused(first, first.SendGetters(1).front());
    EXPECT_FALSE(first.HasAnswer(admitted.front()));
    ExpectServed(first, admitted);
}

TEST_F(KVMessageFilterTest, TwoHundredFiftySixQuestionsForAllPropertiesOfAllSendersWait) {
    Sender first(Shared());
    first.Send(AllProperties(first));
    first.Ping();
    std::deque<Sender> senders;
    for (const std::size_t count : {64, 64, 64, 63}) {
        Sender& sender = senders.emplace_back(Shared());
        std::vector<guint32> waiting(count);
        std::ranges::generate(waiting, [&] { return sender.Send(AllProperties(sender)); });
        sender.Ping();
        EXPECT_EQ(sender.CountAnswers(waiting), 0U);
    }
    ExpectRefused(first, first.Send(AllProperties(first)));
}

TEST_F(KVMessageFilterTest, ASenderOfWhichNothingWaitsIsAlwaysAdmitted) {
    std::array<std::unique_ptr<Sender>, 4> busy;
    for (auto& sender : busy) {
        sender = std::make_unique<Sender>(Shared());
        sender->SendGetters(64);
        sender->Ping();
    }
    std::array<std::unique_ptr<Sender>, 8> late;
    for (auto& sender : late) {
        sender = std::make_unique<Sender>(Shared());
        const auto admitted = sender->SendGetters(1);
        sender->Ping();
        EXPECT_FALSE(sender->HasAnswer(admitted.front()));
    }
    Sender waiting(Shared());
    waiting.Send(waiting.NewSignal("BudsConnected", g_variant_new("(i)", 1)));
    ExpectRefused(waiting, waiting.SendGetters(1).front());
}

TEST_F(KVMessageFilterTest, ARefusedCallThatWantsNoReplyGetsNone) {
    Sender sender(Shared());
    sender.SendGetters(64);
    const guint32 serial = sender.Send(WithoutReply(sender.NewCall("GetSpeakerVolume")));
    sender.Ping();
    fake::RunMainContextUntilQuiet();
    EXPECT_FALSE(sender.HasAnswer(serial));
    EXPECT_EQ(std::ranges::count_if(
                  journal.Here().Logs().Lines(),
                  [](const std::string& line) { return line.ends_with("method_name:GetSpeakerVolume"); }),
              64);
}

TEST_F(KVMessageFilterTest, SixteenThousandOtherMessagesOfOneSenderWait) {
    Sender sender(Shared());
    for (int i = 0; i < 8192; ++i) {
        sender.Send(WithoutReply(sender.NewCall("ResetPlayerGain", g_variant_new("(i)", 4))));
        sender.Send(sender.NewSignal("BudsConnected", g_variant_new("(i)", i)));
    }
    ExpectRefused(sender, sender.Send(sender.NewCall("SetSpeakerVolume", g_variant_new("(i)", 20))));
    sender.Send(sender.NewSignal("BudsConnected", g_variant_new("(i)", -1)));
    seam.Fail("g_dbus_connection_call_sync",
              gio::REFUSED);  // each message asks for a look-up: let them be quick
    bool isLastHandled = false;
    seam.BeforeNext("I Buds Connected. reason:8191", [&] { isLastHandled = true; });
    while (!isLastHandled) {
        g_main_context_iteration(nullptr, TRUE);
    }
    ExpectRefused(sender, sender.Send(sender.NewCall("SetSpeakerVolume", g_variant_new("(i)", 20))));
    Sender another(Shared());
    const guint32 served = another.Send(another.NewCall("SetSpeakerVolume", g_variant_new("(i)", 30)));
    EXPECT_TRUE(fake::RunMainContextUntil([&] { return another.HasAnswer(served); }));
    EXPECT_EQ(another.AnswerTo(served), "reply (0,)");
    EXPECT_THAT(journal.Here().Logs().Lines(), testing::Contains(HasSubstr("Buds Connected. reason:8191")));
    EXPECT_THAT(journal.Here().Logs().Lines(), Each(Not(HasSubstr("Buds Connected. reason:-1"))));
}

TEST_F(KVMessageFilterTest, WhatGDBusAnswersItselfIsNotCounted) {
    Sender sender(Shared());
    const auto expectGDBusToAnswer = [&] {
        for (const auto& [call, answer] : CallsThatNoHandlerGets(sender)) {
            EXPECT_THAT(sender.AnswerTo(sender.Send(call())), HasSubstr(answer));
        }
    };
    for (int i = 0; i < 65; ++i) {
        expectGDBusToAnswer();
    }
    const auto admitted = sender.SendGetters(64);
    sender.Send(AllProperties(sender));
    sender.Ping();
    EXPECT_EQ(sender.CountAnswers(admitted), 0U);
    expectGDBusToAnswer();  // also when no more may wait
    ExpectServed(sender, admitted);
}

TEST_F(KVMessageFilterTest, ACallThatNoHandlerGetsAndThatWantsNoReplyIsDropped) {
    Sender sender(Shared());
    std::vector<guint32> serials;
    for (const auto& [call, answer] : CallsThatNoHandlerGets(sender)) {
        serials.push_back(sender.Send(WithoutReply(call())));
    }
    for (int i = 0; i < 64; ++i) {
        sender.Send(WithoutReply(AllProperties(sender)));
    }
    const guint32 admitted = sender.Send(AllProperties(sender));
    sender.Ping();
    EXPECT_EQ(sender.CountAnswers(serials), 0U);
    EXPECT_FALSE(sender.HasAnswer(admitted)) << "the 64 questions before it do not wait";
}

TEST_F(KVMessageFilterTest, QuestionsForAllPropertiesHaveABoundOfTheirOwn) {
    Sender sender(Shared());
    const auto ask = [&] { return sender.Send(AllProperties(sender)); };
    const auto getters = sender.SendGetters(63);
    std::vector<guint32> waiting(64);
    std::ranges::generate(waiting, ask);
    ExpectRefused(sender, ask());
    EXPECT_EQ(sender.CountAnswers(waiting), 0U);
    const guint32 one =
        sender.Send(sender.NewCall("Get", g_variant_new("(ss)", INTERFACE, "Any"), PROPERTIES));
    EXPECT_THAT(sender.AnswerTo(one), HasSubstr("Invalid")) << "a question for one property is not counted";
    const auto lastGetter = sender.SendGetters(1);
    ExpectServed(sender, getters);
    ExpectServed(sender, lastGetter);
    fake::RunMainContextUntilQuiet();
    std::ranges::generate(waiting, ask);
    ExpectRefused(sender, ask());
    fake::RunMainContextUntilQuiet();
    for (const guint32 serial : waiting) {
        EXPECT_EQ(sender.AnswerTo(serial), "reply (@a{sv} {},)");
    }
}

TEST_F(KVMessageFilterTest, AMessageWaitsUntilTheLookUpOfItsCallerHasRun) {
    Sender sender(Shared());
    const auto served = sender.SendGetters(64);
    sender.Ping();
    const auto isServed = [](const std::string& line) { return line.ends_with("state(10), ret:0"); };
    while (std::ranges::count_if(journal.Here().Logs().Lines(), isServed) < 64) {
        g_main_context_iteration(nullptr, TRUE);  // a look-up, an idle source, comes after all of the calls
    }
    ASSERT_THAT(journal.Here().Logs().Lines(), Each(Not(HasSubstr("size:")))) << "a look-up has run";
    ExpectRefused(sender, sender.SendGetters(1).front());
    fake::RunMainContextUntilQuiet();
    ExpectServed(sender, sender.SendGetters(64));
}

TEST_F(KVMessageFilterTest, AHandlerThatIsCalledForAnotherMessageChangesNoCount) {
    Sender sender(Shared());
    sender.SendGetters(64);
    sender.Ping();
    const auto parameters = gio::Parsed("(1,)");
    KVServer::signalCallHandler(Shared(), sender.Name().c_str(), PUBLIC_PATH, INTERFACE, "BudsConnected",
                                parameters.get(), server.get());
    PendingCall call("GetSpeakerVolume");
    KVServer::methodCallHandler(Shared(), sender.Name().c_str(), OBJECT_PATH, INTERFACE, "GetSpeakerVolume",
                                nullptr, call.Invocation(), server.get());
    ExpectRefused(sender, sender.SendGetters(1).front());
}

TEST_F(KVMessageFilterTest, ASecondAcquisitionOfTheBusDoesNotCountTwice) {
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    KVServer::onBusAcquired(Shared(), BUS_NAME, server.get());
    Sender sender(Shared());
    const auto admitted = sender.SendGetters(64);
    sender.Ping();
    EXPECT_EQ(sender.CountAnswers(admitted), 0U);
}

TEST_F(KVMessageFilterTest, MessagesThatWaitedBeforeASecondAcquisitionOfTheBusCountOn) {
    Sender sender(Shared());
    sender.SendGetters(64);
    sender.Ping();
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    KVServer::onBusAcquired(Shared(), BUS_NAME, server.get());
    ExpectRefused(sender, sender.SendGetters(1).front());
}

TEST_F(KVMessageFilterTest, TheBoundsHoldOnASecondConnection) {
    const fake::BusClient second;
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    KVServer::onBusAcquired(second.Connection(), BUS_NAME, server.get());
    {
        Sender sender(second.Connection());
        sender.SendGetters(64);
        ExpectRefused(sender, sender.SendGetters(1).front());
    }
    fake::RunMainContextUntilQuiet();
    KVServer::onNameLost(second.Connection(), BUS_NAME, server.get());
    KVServer::onBusAcquired(Shared(), BUS_NAME, server.get());
}

TEST_F(KVMessageFilterTest, AMessageThatNoHandlerGetsIsTakenOffTheCounts) {
    Sender sender(Shared());
    const auto lost = sender.SendGetters(64);
    sender.Ping();
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    fake::RunMainContextUntilQuiet();
    for (const guint32 serial : lost) {
        EXPECT_THAT(sender.AnswerTo(serial), HasSubstr("error"));
    }
    KVServer::onBusAcquired(Shared(), BUS_NAME, server.get());
    ExpectServed(sender, sender.SendGetters(64));
}

TEST_F(KVMessageFilterTest, MessagesMayOutliveTheServerThatCountedThem) {
    Sender sender(Shared());
    const auto lost = sender.SendGetters(64);
    sender.Ping();
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    server = std::make_unique<KVServer>();
    fake::RunMainContextUntilQuiet();
    for (const guint32 serial : lost) {
        EXPECT_THAT(sender.AnswerTo(serial), HasSubstr("error"));
    }
    InitWithoutName();
}

/** A message with the reading end of a pipe, of which nobody but the receiver keeps a copy. */
class KVMessageFilterDescriptorTest : public KVMessageFilterTest {
protected:
    void SetUp() override {
        KVMessageFilterTest::SetUp();
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(pipe2(m_pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
    }
    void TearDown() override {
        close(m_pipe[1]);
        KVMessageFilterTest::TearDown();
    }
    tools::GLibPtr<GDBusMessage> WithDescriptor(tools::GLibPtr<GDBusMessage> message) {
        const tools::GLibPtr<GUnixFDList> list(g_unix_fd_list_new_from_array(&m_pipe[0], 1));
        g_dbus_message_set_unix_fd_list(message.get(), list.get());
        return message;
    }
    /** Whether every copy of the reading end is closed. */
    bool IsClosed() const { return write(m_pipe[1], "x", 1) < 0 && errno == EPIPE; }

    std::array<int, 2> m_pipe{-1, -1};
};

TEST_F(KVMessageFilterDescriptorTest, ACallWithADescriptorIsRefusedAndTheDescriptorClosed) {
    Sender sender(Shared());
    EXPECT_EQ(sender.AnswerTo(sender.Send(WithDescriptor(sender.NewCall("GetSpeakerVolume")))),
              REFUSED_WITH_DESCRIPTOR);
    sender.Ping();
    EXPECT_TRUE(IsClosed());
}

TEST_F(KVMessageFilterDescriptorTest, ACallWithADescriptorThatWantsNoReplyIsDropped) {
    Sender sender(Shared());
    const guint32 serial = sender.Send(WithoutReply(WithDescriptor(sender.NewCall("GetSpeakerVolume"))));
    sender.Ping();
    EXPECT_TRUE(IsClosed());
    fake::RunMainContextUntilQuiet();
    EXPECT_FALSE(sender.HasAnswer(serial));
    EXPECT_THAT(journal.Here().Logs().Lines(), Each(Not(HasSubstr("method_name"))));
}

TEST_F(KVMessageFilterDescriptorTest, ASignalWithADescriptorIsDropped) {
    Sender sender(Shared());
    std::vector<guint32> serials;
    for (const auto flags : {G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED, G_DBUS_MESSAGE_FLAGS_NONE}) {
        auto signal = WithDescriptor(sender.NewSignal("BudsConnected", g_variant_new("(i)", 1)));
        g_dbus_message_set_flags(signal.get(), flags);
        serials.push_back(sender.Send(std::move(signal)));
    }
    sender.Ping();
    EXPECT_EQ(sender.CountAnswers(serials), 0U);
    EXPECT_TRUE(IsClosed());
    fake::RunMainContextUntilQuiet();
    EXPECT_THAT(journal.Here().Logs().Lines(), Each(Not(HasSubstr("BudsConnected"))));
}

TEST_F(KVMessageFilterDescriptorTest, AMessageForAnyOtherObjectLosesItsDescriptorToo) {
    Sender sender(Shared());
    const guint32 ping =
        sender.Send(WithDescriptor(sender.NewCall("Ping", nullptr, "org.freedesktop.DBus.Peer")));
    EXPECT_EQ(sender.AnswerTo(ping), REFUSED_WITH_DESCRIPTOR);
    sender.Ping();
    EXPECT_TRUE(IsClosed());
}

TEST_F(KVMessageFilterDescriptorTest, WithoutTheServerMessagesAreNotFiltered) {
    Sender sender(Shared());
    KVServer::onNameLost(Shared(), BUS_NAME, server.get());
    server = std::make_unique<KVServer>();
    const guint32 serial =
        sender.Send(WithDescriptor(sender.NewCall("Ping", nullptr, "org.freedesktop.DBus.Peer")));
    EXPECT_EQ(sender.AnswerTo(serial), "reply ()");
    InitWithoutName();
}

TEST_F(KVMessageFilterDescriptorTest, AReplyLosesItsDescriptor) {
    using Test = std::remove_reference_t<decltype(*this)>;
    const fake::BusClient peer;
    const auto answer = [](GDBusConnection* connection, GDBusMessage* call, gboolean incoming,
                           void* test) -> GDBusMessage* {
        if (!incoming || g_dbus_message_get_message_type(call) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return call;
        }
        const auto reply = static_cast<Test*>(test)->WithDescriptor(
            tools::GLibPtr<GDBusMessage>(g_dbus_message_new_method_reply(call)));
        g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(call);
        return nullptr;
    };
    const guint filter = g_dbus_connection_add_filter(peer.Connection(), answer, this, nullptr);
    GUnixFDList* descriptors = nullptr;
    const tools::Variant reply(g_dbus_connection_call_with_unix_fd_list_sync(
        Shared(), peer.Name().c_str(), "/", "org.olvane.Test", "Hand", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &descriptors, nullptr, nullptr));
    g_dbus_connection_remove_filter(peer.Connection(), filter);
    EXPECT_NE(reply, nullptr);
    EXPECT_EQ(descriptors, nullptr);
    // Peer and bus have released what they sent before as soon as they have sent something else.
    EXPECT_NE(
        peer.Call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr),
        nullptr);
    EXPECT_TRUE(IsClosed());
}

/** Sees each message that passes the filters before it. */
class WhatPasses {
public:
    using Watcher = std::function<void(GDBusMessage*)>;

    WhatPasses(GDBusConnection* connection, const Watcher& watcher)
        : m_connection(connection), m_watcher(watcher) {
        m_filter = g_dbus_connection_add_filter(connection, OnMessage, this, nullptr);
    }
    ~WhatPasses() { g_dbus_connection_remove_filter(m_connection, m_filter); }
    WhatPasses(const WhatPasses&) = delete;
    WhatPasses& operator=(const WhatPasses&) = delete;

private:
    static GDBusMessage* OnMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming, void* self) {
        if (incoming != FALSE) {
            static_cast<WhatPasses*>(self)->m_watcher(message);
        }
        return message;
    }

    GDBusConnection* m_connection;
    Watcher m_watcher;
    guint m_filter = 0;
};

/**
 * Tests the filter without the server, on a connection to a client of its own. No bus between them
 * writes the sender into each message, so the client chooses it.
 */
class KVMessageFilterAloneTest : public testing::Test {
protected:
    KVMessageFilterAloneTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        auto serving =
            std::async(std::launch::async, Connect, ends[0], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER);
        m_client = Connect(ends[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT);
        m_server = serving.get();
        filter = std::make_unique<KVMessageFilter>(m_server.get(), *Interface(), OBJECT_PATH, PUBLIC_PATH);
    }
    ~KVMessageFilterAloneTest() override {
        filter.reset();
        fake::Disconnect(std::move(m_client));
        fake::Disconnect(std::move(m_server));
    }

    /** Serves the getter's calls by `handler`, which keeps the invocation. */
    void Serve(const GDBusInterfaceVTable& handler) {
        g_dbus_connection_register_object(m_server.get(), OBJECT_PATH, Interface(), &handler, this, nullptr,
                                          nullptr);
    }
    static GDBusMessage* Call(const char* path, const char* interface, const char* member) {
        return g_dbus_message_new_method_call(nullptr, path, interface, member);
    }
    static GDBusMessage* Signal(const char* path, const char* interface) {
        return g_dbus_message_new_signal(path, interface, "BudsConnected");
    }
    void SendGetter() { Send(Call(OBJECT_PATH, INTERFACE, GETTER), ":1.1"); }
    void SendSignal(const std::string& sender) { Send(Signal(PUBLIC_PATH, INTERFACE), sender.c_str()); }
    /** Sends a message. @return whether the filter counts it, or nothing if it drops it */
    std::optional<bool> IsCounted(GDBusMessage* message) {
        std::optional<bool> counted;
        const auto note = [&](GDBusMessage* passed) {
            if (TextOf(g_dbus_message_get_member(passed)) != "Ping") {
                counted = filter->Take(g_dbus_message_get_body(passed)) != nullptr;
            }
        };
        const WhatPasses behind(m_server.get(), note);
        Send(message, ":1.1");
        Finish();
        return counted;
    }
    /** Returns when all messages have passed the filter and all calls that it passed on have been handled. */
    void Finish() {
        const tools::Variant pong(
            g_dbus_connection_call_sync(m_client.get(), nullptr, "/", "org.freedesktop.DBus.Peer", "Ping",
                                        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
        EXPECT_NE(pong, nullptr);
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }

    std::unique_ptr<KVMessageFilter> filter;
    static constexpr const char* GETTER = "GetSpeakerVolume";

private:
    static std::string_view TextOf(const char* text) { return text != nullptr ? text : ""; }
    static tools::GLibPtr<GDBusConnection> Connect(int descriptor, GDBusConnectionFlags role) {
        const tools::GLibPtr<GSocket> socket(g_socket_new_from_fd(descriptor, nullptr));
        const tools::GLibPtr<GSocketConnection> stream(
            g_socket_connection_factory_create_connection(socket.get()));
        const tools::GLibPtr<char> guid(g_dbus_generate_guid());
        const bool isServer = role == G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER;
        return tools::GLibPtr<GDBusConnection>(g_dbus_connection_new_sync(
            G_IO_STREAM(stream.get()), isServer ? guid.get() : nullptr, role, nullptr, nullptr, nullptr));
    }
    GDBusInterfaceInfo* Interface() const { return m_description->interfaces[0]; }
    void Send(GDBusMessage* message, const char* sender) {
        const tools::GLibPtr<GDBusMessage> owned(message);
        g_dbus_message_set_sender(message, sender);
        g_dbus_connection_send_message(m_client.get(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
    }

    const tools::GLibPtr<GDBusNodeInfo> m_description{g_dbus_node_info_new_for_xml(
        "<node><interface name='org.olvane.kavrel'><method name='GetSpeakerVolume'/></interface></node>",
        nullptr)};
    tools::GLibPtr<GDBusConnection> m_client;
    tools::GLibPtr<GDBusConnection> m_server;
};

TEST_F(KVMessageFilterAloneTest, OnlyWhatAHandlerGetsAndQuestionsForAllPropertiesAreCounted) {
    const auto withoutReply = [](GDBusMessage* message) {
        g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        return message;
    };
    const auto withArgument = [](GDBusMessage* message) {
        g_dbus_message_set_body(message, g_variant_new("(s)", "x"));
        return message;
    };
    EXPECT_EQ(IsCounted(Signal(PUBLIC_PATH, INTERFACE)), true);
    EXPECT_EQ(IsCounted(Signal(PUBLIC_PATH, "org.olvane.other")), false);
    EXPECT_EQ(IsCounted(Signal(OBJECT_PATH, INTERFACE)), false);
    EXPECT_EQ(IsCounted(Call(OBJECT_PATH, INTERFACE, GETTER)), true);
    EXPECT_EQ(IsCounted(withoutReply(Call(OBJECT_PATH, INTERFACE, GETTER))), true);
    EXPECT_EQ(IsCounted(withArgument(Call(OBJECT_PATH, INTERFACE, GETTER))), false);
    EXPECT_EQ(IsCounted(Call(OBJECT_PATH, INTERFACE, "GetNothing")), false);
    EXPECT_EQ(IsCounted(Call(OBJECT_PATH, nullptr, GETTER)), false);
    EXPECT_EQ(IsCounted(Call(PUBLIC_PATH, INTERFACE, GETTER)), false);
    EXPECT_EQ(IsCounted(withoutReply(Call(PUBLIC_PATH, INTERFACE, GETTER))), std::nullopt) << "it is dropped";
    EXPECT_EQ(IsCounted(withArgument(Call(OBJECT_PATH, PROPERTIES, "GetAll"))), true);
    EXPECT_EQ(IsCounted(withArgument(Call(OBJECT_PATH, PROPERTIES, "Get"))), false);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they have an allocator of their own
TEST_F(KVMessageFilterAloneTest, ASenderOfWhichNothingWaitsTakesNoMemory) {
    constexpr int SENDERS = 4096;
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < SENDERS; ++i) {
        SendSignal(":1." + std::to_string(i) + std::string(200, '0'));
        if (i % 64 == 0) {
            Finish();  // so that few messages are on their way: GLib keeps the memory that they took
        }
    }
    Finish();
    const std::size_t after = mallinfo2().uordblks;
    EXPECT_LT(after, before + SENDERS * 100U) << "each name has 200 bytes";
}
#endif

TEST_F(KVMessageFilterAloneTest, AMessageLeavesTheCountsWhenItsHandlerEndsEvenIfItsCallIsKept) {
    using Test = std::remove_reference_t<decltype(*this)>;
    static std::vector<tools::GLibPtr<GDBusMethodInvocation>> calls;
    static std::vector<KVMessageFilter::Waiting> waiting;
    Serve({[](GDBusConnection*, const char*, const char*, const char*, const char*, GVariant* arguments,
              GDBusMethodInvocation* invocation, void* test) {
               calls.emplace_back(invocation);
               waiting.push_back(static_cast<Test*>(test)->filter->Take(arguments));
           },
           nullptr,
           nullptr,
           {}});
    for (int i = 0; i < 65; ++i) {
        SendGetter();
    }
    Finish();
    EXPECT_EQ(calls.size(), 64U);
    waiting.clear();
    SendGetter();
    Finish();
    EXPECT_EQ(calls.size(), 65U);
    waiting.clear();
    calls.clear();
}

}  // namespace
