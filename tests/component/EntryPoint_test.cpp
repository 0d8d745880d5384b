// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

using NKavrel::KVServer;
using testing::Contains;
using testing::ElementsAre;

namespace {

/** Tests the server's entry points for methods and for signals. */
class EntryPointTest : public ServerTest {
protected:
    void SetUp() override { InitWithoutName(); }

    std::string CallMethod(bool connection, const char* sender, const char* name, bool userData) {
        PendingCall call("GetSpeakerVolume");
        seam.Clear();
        KVServer::methodCallHandler(connection ? call.Connection() : nullptr, sender, OBJECT_PATH, INTERFACE,
                                    name, nullptr, call.Invocation(), userData ? server.get() : nullptr);
        return call.Answer();
    }
    void Signal(bool connection, const char* sender, const char* name, bool userData) {
        const auto parameters = gio::Parsed("(1,)");
        seam.Clear();
        KVServer::signalCallHandler(connection ? Shared() : nullptr, sender, PUBLIC_PATH, INTERFACE, name,
                                    parameters.get(), userData ? server.get() : nullptr);
    }
};

TEST_F(EntryPointTest, AMethodCallIsCheckedInOrderAndNobodyIsAnswered) {
    const std::string function = "methodCallHandler: E ";
    KVServer::methodCallHandler(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    KVServer::methodCallHandler(Shared(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre(function + "Connection is NULL", function + "invocation is NULL"));
    EXPECT_EQ(CallMethod(false, ":9.9", "GetSpeakerVolume", true), "no reply");
    EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(function + "Connection is NULL"));
    EXPECT_EQ(CallMethod(true, nullptr, nullptr, false), "no reply");
    EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(function + "signal_name is NULL"));
    EXPECT_EQ(CallMethod(true, nullptr, "GetSpeakerVolume", false), "no reply");
    EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(function + "user data is NULL"));
}

TEST_F(EntryPointTest, AMethodCallWithoutASenderIsServedAsThatOfNobody) {
    EXPECT_EQ(CallMethod(true, nullptr, "GetSpeakerVolume", true), "(10, 0)");
    EXPECT_THAT(journal.Here().Logs().Lines(),
                HasInOrder({"methodCallHandler: I Start sender: method_name:GetSpeakerVolume",
                            "_OnGetSpeakerVolume: I Return Current volume state(10), ret:0"}));
    fake::RunMainContextUntilQuiet();
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("UpdateSenderLists: I Called by [/] size:1"));
}

TEST_F(EntryPointTest, ASignalIsCheckedInOrder) {
    const std::string function = "signalCallHandler: E ";
    Signal(false, nullptr, nullptr, false);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(function + "Connection is NULL"));
    Signal(true, nullptr, nullptr, false);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(function + "sender is NULL"));
    Signal(true, ":9.9", nullptr, false);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(function + "signal_name is NULL"));
    Signal(true, ":9.9", "BudsConnected", false);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(function + "user data is NULL"));
}

TEST_F(EntryPointTest, ASignalIsAnnouncedThenItsSenderRecordedThenItIsDispatched) {
    Signal(true, ":9.9", "BudsConnected", true);
    EXPECT_THAT(
        journal.Here().AndScopes().Lines(),
        HasInOrder({"signalCallHandler: I Start sender::9.9 signal_name:BudsConnected",
                    "void NKavrel::KVDbusSender::Print(std::string)",
                    "void NKavrel::KVDbusEventHandler::OnSignal(const std::string&, GVariant*, gpointer)",
                    "_OnBudsConnected: I Buds Connected. reason:1"}));
}

TEST_F(EntryPointTest, AnUnknownMemberIsDroppedAndItsSenderRecordedAllTheSame) {
    EXPECT_EQ(CallMethod(true, ":9.9", "GetNothing", true), "no reply");
    Signal(true, ":9.9", "SpeakerChangeRequest", true);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("signalCallHandler: I Start sender::9.9 signal_name:SpeakerChangeRequest",
                            "OnSignal: E Not matched signal:SpeakerChangeRequest"));
    fake::RunMainContextUntilQuiet();
    EXPECT_THAT(journal.Here().Logs().Lines(), HasInOrder({"UpdateSenderLists: I Called by [:9.9/] size:1",
                                                           "UpdateSenderLists: I Called by [:9.9/] size:1"}));
}

TEST_F(EntryPointTest, PathAndInterfaceAreNotLookedAt) {
    PendingCall call("GetSpeakerVolume");
    KVServer::methodCallHandler(call.Connection(), ":9.9", nullptr, nullptr, "GetSpeakerVolume", nullptr,
                                call.Invocation(), server.get());
    EXPECT_EQ(call.Answer(), "(10, 0)");
}

}  // namespace
