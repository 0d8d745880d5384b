// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the platform utilities with a system bus. */
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "FakeSeam.h"
#include "Gio.h"
#include "KVUtils.h"
#include "PrivateBus.h"
#include "WatchedBody.h"

using fake::FakeSeam;
using fake::WatchedBody;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace KVUtils = NKavrel::KVUtils;

namespace {

/** How often this program has asked for a connection. */
std::atomic<int> connectionsMade = 0;

}  // namespace

GDBusConnection* g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error) {
    static auto* const get = reinterpret_cast<decltype(g_bus_get_sync)*>(dlsym(RTLD_NEXT, "g_bus_get_sync"));
    ++connectionsMade;
    return get(type, cancellable, error);
}

namespace {

constexpr const char* PATH = "/Org/Olvane/Test";
constexpr const char* INTERFACE = "org.olvane.test";
constexpr const char* PEER = "org.olvane.TestPeer";
constexpr const char* EMIT_CALL =
    "g_dbus_connection_emit_signal(*, /Org/Olvane/Test, org.olvane.test.Sig, (7,))";

class KVUtilsBusTest : public testing::Test {
protected:
    KVUtilsBusTest()
        : peer(PEER, PATH, INTERFACE,
               "<method name='Double'><arg direction='in' type='i'/><arg direction='out' type='i'/></method>"
               "<method name='Refuse'/>",
               {{"Double",
                 [](GVariant* arguments) {
                     int number = 0;
                     g_variant_get(arguments, "(i)", &number);
                     return g_variant_new("(i)", 2 * number);
                 }},
                {"Refuse", [](GVariant*) -> GVariant* { return nullptr; }}}) {}

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    fake::BusPeer peer;
    fake::BusClient client;
};

TEST_F(KVUtilsBusTest, ThereIsOneConnectionForTheWholeProcess) {
    GDBusConnection* first = KVUtils::GetConnection();
    ASSERT_NE(first, nullptr);
    const int connections = connectionsMade;
    EXPECT_EQ(KVUtils::GetConnection(), first);
    EXPECT_EQ(connectionsMade, connections);
    EXPECT_EQ(fake::SharedConnection().get(), first);
    EXPECT_TRUE(g_dbus_connection_get_exit_on_close(first)) << "a dead bus ends the process";
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(), IsEmpty());
}

TEST_F(KVUtilsBusTest, ASignalIsBroadcastWithItsBody) {
    client.Listen(PATH, INTERFACE);
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", g_variant_new("(i)", 7)), 0);
    EXPECT_THAT(journal.Here().Calls().Texts(), ElementsAre(EMIT_CALL));
    const fake::Signal heard = client.WaitForSignal();
    EXPECT_EQ(heard.path, PATH);
    EXPECT_EQ(heard.interface, INTERFACE);
    EXPECT_EQ(heard.name, "Sig");
    EXPECT_EQ(heard.body, "(7,)");
    EXPECT_EQ(heard.sender, g_dbus_connection_get_unique_name(KVUtils::GetConnection()));
}

TEST_F(KVUtilsBusTest, ASignalMayComeWithoutABody) {
    client.Listen(PATH, INTERFACE);
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", nullptr), 0);
    EXPECT_EQ(client.WaitForSignal().body, "()");
}

TEST_F(KVUtilsBusTest, AFloatingBodyIsReleasedOnceTheSignalIsSent) {
    WatchedBody body;
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", body.Floating()), 0);
    EXPECT_TRUE(body.WaitUntilFreed());
}

TEST_F(KVUtilsBusTest, EmittingTakesOverOneReferenceToABodyHeldElsewhere) {
    WatchedBody body;
    tools::Variant mine(g_variant_ref_sink(body.Floating()));
    client.Listen(PATH, INTERFACE);
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", g_variant_ref(mine.get())), 0);
    EXPECT_EQ(client.WaitForSignal().name, "Sig");
    EXPECT_EQ(body.TimesFreed(), 0);
    mine.reset();
    EXPECT_TRUE(body.WaitUntilFreed());
}

TEST_F(KVUtilsBusTest, ASignalThatCannotBeSentIsLoggedAndItsBodyReleased) {
    WatchedBody body;
    seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED);
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", body.Floating()), -1);
    EXPECT_THAT(
        journal.Logs(DLOG_ERROR).Texts(),
        ElementsAre("E g_dbus_connection_emit_signal 'Sig' Failed (" + std::string(gio::REFUSAL) + ")"));
    EXPECT_EQ(body.TimesFreed(), 1);
}

TEST_F(KVUtilsBusTest, AMissingErrorObjectOfASignalPrintsAsNull) {
    WatchedBody body;
    seam.Fail("g_dbus_connection_emit_signal", gio::NOTHING);
    EXPECT_EQ(KVUtils::DbusEmitSignal(PATH, INTERFACE, "Sig", body.Floating()), -1);
    EXPECT_EQ(journal.Logs().Texts().back(), "E g_dbus_connection_emit_signal 'Sig' Failed ((null))");
    EXPECT_EQ(body.TimesFreed(), 1);
}

TEST_F(KVUtilsBusTest, ACallHandsItsReplyOver) {
    GVariant* reply = nullptr;
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Double", g_variant_new("(i)", 21), &reply), 0);
    const tools::Variant owned(reply);
    EXPECT_EQ(gio::PrintedWithTypes(reply), "(42,)");
    EXPECT_THAT(journal.Here().Calls().Texts(),
                ElementsAre("g_dbus_connection_call_sync(org.olvane.TestPeer, /Org/Olvane/Test, "
                            "org.olvane.test.Double, (21,), *, 0, -1)"));
}

TEST_F(KVUtilsBusTest, ACallNeedsNoPlaceForItsReply) {
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Double", g_variant_new("(i)", 1), nullptr), 0);
    EXPECT_THAT(peer.Calls(), ElementsAre("Double(1,)"));
}

TEST_F(KVUtilsBusTest, FloatingParametersOfACallAreReleased) {
    WatchedBody parameters;
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Double", parameters.Floating(), nullptr), 0);
    EXPECT_TRUE(parameters.WaitUntilFreed());
    EXPECT_THAT(peer.Calls(), ElementsAre("Double(7,)"));
}

TEST_F(KVUtilsBusTest, CallingTakesOverOneReferenceToParametersHeldElsewhere) {
    WatchedBody parameters;
    tools::Variant mine(g_variant_ref_sink(parameters.Floating()));
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Double", g_variant_ref(mine.get()), nullptr), 0);
    EXPECT_EQ(parameters.TimesFreed(), 0);
    mine.reset();
    EXPECT_TRUE(parameters.WaitUntilFreed());
}

TEST_F(KVUtilsBusTest, ARefusedCallIsLoggedWithThePeersWords) {
    GVariant* reply = nullptr;
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Refuse", nullptr, &reply), -1);
    EXPECT_EQ(reply, nullptr);
    EXPECT_THAT(journal.Logs(DLOG_ERROR).Texts(),
                ElementsAre("E Method Call 'Refuse' Failed (GDBus.Error:org.olvane.Test.Refused: refused)"));
}

TEST_F(KVUtilsBusTest, ACallToNobodyFails) {
    WatchedBody parameters;
    EXPECT_EQ(
        KVUtils::DbusCallSync("org.olvane.Nobody", PATH, INTERFACE, "Do", parameters.Floating(), nullptr),
        -1);
    EXPECT_THAT(journal.Logs().Texts().back(), StartsWith("E Method Call 'Do' Failed (GDBus.Error:"));
    EXPECT_TRUE(parameters.WaitUntilFreed());
}

TEST_F(KVUtilsBusTest, AMissingErrorObjectOfACallPrintsAsNull) {
    WatchedBody parameters;
    seam.Fail("g_dbus_connection_call_sync", gio::NOTHING);
    EXPECT_EQ(KVUtils::DbusCallSync(PEER, PATH, INTERFACE, "Do", parameters.Floating(), nullptr), -1);
    EXPECT_EQ(journal.Logs().Texts().back(), "E Method Call 'Do' Failed ((null))");
    EXPECT_EQ(parameters.TimesFreed(), 1);
}

NKavrel::CallSite Caller() {
    return {};
}

TEST_F(KVUtilsBusTest, ASignalOfAnotherTypeIsTheCallersError) {
    const tools::Variant body(g_variant_ref_sink(g_variant_new("(is)", 1, "x")));
    EXPECT_TRUE(KVUtils::IsSignalOfType(body.get(), "(is)", "Sig", Caller()));
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
    EXPECT_FALSE(KVUtils::IsSignalOfType(body.get(), "(iii)", "Sig", Caller()));
    constexpr const char* line = "E Invalid parameters of signal Sig: expected (iii), got (is)";
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre(line));
    EXPECT_EQ(journal.With(line).Function(), "Caller");
}

TEST_F(KVUtilsBusTest, AReplyOfAnotherTypeIsTheCallersError) {
    const tools::Variant reply(g_variant_ref_sink(g_variant_new("(u)", 1)));
    EXPECT_TRUE(KVUtils::IsReplyOfType(reply.get(), "(u)", "Do", Caller()));
    EXPECT_FALSE(KVUtils::IsReplyOfType(reply.get(), "(i)", "Do", Caller()));
    constexpr const char* line = "E Invalid reply to Do: expected (i), got (u)";
    EXPECT_THAT(journal.Here().Logs().Texts(), ElementsAre(line));
    EXPECT_EQ(journal.With(line).Function(), "Caller");
}

}  // namespace
