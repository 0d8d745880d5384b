// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DaemonTest.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* BUS = "org.freedesktop.DBus";

std::string Listed(GDBusArgInfo** arguments) {
    std::string list;
    for (GDBusArgInfo** argument = arguments; argument != nullptr && *argument != nullptr; ++argument) {
        list += std::string(list.empty() ? "" : ", ") + (*argument)->name + ' ' + (*argument)->signature;
    }
    return '(' + list + ')';
}

/** Tests which messages clients can exchange with the daemon. */
class InterfaceTest : public DaemonTest {
protected:
    void SetUp() override { Start(); }

    /** Parses the daemon's own description of its object. */
    tools::GLibPtr<GDBusNodeInfo> Introspect() {
        const auto reply =
            client.Call(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Introspectable", "Introspect", nullptr);
        const char* xml = nullptr;
        g_variant_get(reply.get(), "(&s)", &xml);
        return tools::GLibPtr<GDBusNodeInfo>(g_dbus_node_info_new_for_xml(xml, nullptr));
    }
    /** Sends a signal that the daemon must not receive, and then one that it receives. */
    void EmitUnheard(const char* path, const char* interface, const char* name, GVariant* body) {
        client.Emit(path, interface, name, body);
        Emit("BudsConnected", g_variant_new("(i)", 1));
    }
    std::vector<std::string> Requests() {
        auto lines = MainLoop().Logs().Lines();
        std::erase_if(lines, [](const std::string& line) { return line.find("Start sender") == line.npos; });
        return lines;
    }
};

TEST_F(InterfaceTest, IntrospectionShowsTheNineMethodsAndNoSignalsOrProperties) {
    const auto node = Introspect();
    const GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node.get(), INTERFACE);
    ASSERT_NE(interface, nullptr);
    std::vector<std::string> methods;
    for (GDBusMethodInfo** method = interface->methods; *method != nullptr; ++method) {
        methods.push_back((*method)->name + Listed((*method)->in_args) + " -> " +
                          Listed((*method)->out_args));
    }
    EXPECT_THAT(
        methods,
        ElementsAre("GetSpeakerSupportType() -> (supportType i, result i)",
                    "SetSpeakerVolume(volume i) -> (result i)", "GetSpeakerVolume() -> (volume i, result i)",
                    "SetSpeakerMute(message b) -> (result i)", "GetSpeakerMute() -> (mute i, result i)",
                    "ApplyPlayerFadeIn(audioPath i) -> (result i)",
                    "ApplyUnmuteFadeIn(audioPath i) -> (result i)",
                    "ResetPlayerGain(audioPath i) -> (result i)",
                    "ApplyGainOnMute(audioPath i, gain i) -> (result i)"));
    EXPECT_EQ(*interface->signals, nullptr);
    EXPECT_EQ(*interface->properties, nullptr);
}

TEST_F(InterfaceTest, TheObjectHasNoOtherInterfaceThanGLibsOwn) {
    const auto node = Introspect();
    std::vector<std::string> names;
    for (GDBusInterfaceInfo** interface = node->interfaces; *interface != nullptr; ++interface) {
        if (!std::string((*interface)->name).starts_with(BUS)) {
            names.push_back((*interface)->name);
        }
    }
    EXPECT_THAT(names, ElementsAre(INTERFACE));
    EXPECT_EQ(node->nodes == nullptr || node->nodes[0] == nullptr, true);
}

TEST_F(InterfaceTest, TheNameIsTheDaemonsWithoutReplacementOrQueueOptions) {
    const auto reply =
        client.Call(BUS, "/org/freedesktop/DBus", BUS, "RequestName", g_variant_new("(su)", BUS_NAME, 2 | 4));
    EXPECT_EQ(gio::PrintedWithTypes(reply.get()), "(uint32 3,)") << "it could be replaced";
}

TEST_F(InterfaceTest, EveryMethodAnswersWithItsOwnTypes) {
    const auto type = [&](const char* method, GVariant* parameters) {
        const auto reply = client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, method, parameters);
        return std::string(reply == nullptr ? "none" : g_variant_get_type_string(reply.get()));
    };
    EXPECT_EQ(type("GetSpeakerSupportType", nullptr), "(ii)");
    EXPECT_EQ(type("SetSpeakerVolume", g_variant_new("(i)", 5)), "(i)");
    EXPECT_EQ(type("GetSpeakerVolume", nullptr), "(ii)");
    EXPECT_EQ(type("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(i)");
    EXPECT_EQ(type("GetSpeakerMute", nullptr), "(ii)");
    EXPECT_EQ(type("ApplyPlayerFadeIn", g_variant_new("(i)", 1)), "(i)");
    EXPECT_EQ(type("ApplyUnmuteFadeIn", g_variant_new("(i)", 1)), "(i)");
    EXPECT_EQ(type("ResetPlayerGain", g_variant_new("(i)", 1)), "(i)");
    EXPECT_EQ(type("ApplyGainOnMute", g_variant_new("(ii)", 1, 40)), "(i)");
}

TEST_F(InterfaceTest, AFailedOperationIsAStatusAndNeverAnError) {
    seam.Fail("audio_get_master_volume", -5);
    seam.Fail("audio_set_master_volume", -6);
    seam.Fail("audio_get_master_mute", -7);
    seam.Fail("audio_set_master_mute", -8);
    seam.Fail("AudioControl_getInstance", 0);
    EXPECT_EQ(Call("GetSpeakerVolume"), "(0, -5)");
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(-6,)");
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 101)), "(-2,)");
    EXPECT_EQ(Call("GetSpeakerMute"), "(0, -7)");
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(-8,)");
    EXPECT_EQ(Call("ApplyPlayerFadeIn", g_variant_new("(i)", 1)), "(-1,)");
    EXPECT_EQ(Call("ApplyUnmuteFadeIn", g_variant_new("(i)", 0)), "(-2,)");
    EXPECT_EQ(Call("ResetPlayerGain", g_variant_new("(i)", 4)), "(-2,)");
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 1, 40)), "(-1,)");
}

TEST_F(InterfaceTest, UnknownMethodsNeverReachTheService) {
    for (const char* method :
         {"SetSpeakerVolum", "setspeakervolume", "GETSPEAKERVOLUME", "Getspeakervolume"}) {
        EXPECT_THAT(Call(method), HasSubstr("UnknownMethod")) << method;
    }
    EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(InterfaceTest, CallsWithOtherTypesNeverReachTheService) {
    EXPECT_THAT(Call("SetSpeakerVolume", g_variant_new("(s)", "30")), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Call("SetSpeakerVolume", g_variant_new("(u)", 30)), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Call("SetSpeakerVolume"), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Call("SetSpeakerMute", g_variant_new("(i)", 1)), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Call("GetSpeakerVolume", g_variant_new("(i)", 1)), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Call("ApplyGainOnMute", g_variant_new("(i)", 1)), HasSubstr("InvalidArgs"));
    EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(InterfaceTest, ThePublicPathHasNoObject) {
    std::string error;
    EXPECT_EQ(client.Call(BUS_NAME, PUBLIC_PATH, INTERFACE, "GetSpeakerVolume", nullptr, &error), nullptr);
    EXPECT_THAT(error, HasSubstr("UnknownMethod"));
    EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(InterfaceTest, ThereAreNoProperties) {
    std::string error;
    EXPECT_EQ(client.Call(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Properties", "Get",
                          g_variant_new("(ss)", INTERFACE, "Volume"), &error),
              nullptr);
    EXPECT_THAT(error, StartsWith("GDBus.Error:org.freedesktop.DBus.Error."));
    const auto all = client.Call(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Properties", "GetAll",
                                 g_variant_new("(s)", INTERFACE));
    EXPECT_TRUE(all == nullptr || gio::PrintedWithTypes(all.get()) == "(@a{sv} {},)");
}

TEST_F(InterfaceTest, ChangesAreBroadcastFromTheObjectWithTheirTypes) {
    client.Listen(OBJECT_PATH, INTERFACE);
    Call("SetSpeakerVolume", g_variant_new("(i)", 30));
    Call("SetSpeakerMute", g_variant_new("(b)", TRUE));
    EXPECT_THAT(journal.Calls("g_dbus_connection_emit_signal").Texts(),
                ElementsAre("g_dbus_connection_emit_signal(*, /Org/Olvane/KavrelInternal, "
                            "org.olvane.kavrel.SpeakerVolumeChanged, (65535, 30))",
                            "g_dbus_connection_emit_signal(*, /Org/Olvane/KavrelInternal, "
                            "org.olvane.kavrel.SpeakerMuteChanged, (65535, true))"));
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 2U);
    EXPECT_EQ(signals[0].name, "SpeakerVolumeChanged");
    EXPECT_EQ(signals[0].body, "(65535, 30)");
    EXPECT_EQ(signals[1].name, "SpeakerMuteChanged");
    EXPECT_EQ(signals[1].body, "(65535, true)");
}

TEST_F(InterfaceTest, TheChangeRequestIsBroadcastOnThePublicPath) {
    client.Listen(PUBLIC_PATH, INTERFACE);
    Emit("BudsDisconnected", g_variant_new("(i)", 0));
    const auto signals = client.TakeSignals();
    ASSERT_EQ(signals.size(), 2U);
    EXPECT_EQ(signals[0].name, "BudsDisconnected");
    EXPECT_EQ(signals[1].name, "SpeakerChangeRequest");
    EXPECT_EQ(signals[1].path, PUBLIC_PATH);
    EXPECT_EQ(signals[1].body, "(0, 1)");
    EXPECT_THAT(journal.Calls("g_dbus_connection_emit_signal").Texts(),
                ElementsAre("g_dbus_connection_emit_signal(*, /Org/Olvane/Kavrel, "
                            "org.olvane.kavrel.SpeakerChangeRequest, (0, 1))"));
}

TEST_F(InterfaceTest, TheServiceHearsItsOwnChangeRequestAndDropsIt) {
    Emit("BudsDisconnected", g_variant_new("(i)", 0));
    daemon->WaitUntilIdle();
    EXPECT_THAT(MainLoop().Logs().Lines(),
                HasInOrder({"_OnBudsDisconnected: I Buds disconnected. Connect to previous(type:0)",
                            "OnSignal: E Not matched signal:SpeakerChangeRequest"}));
}

TEST_F(InterfaceTest, OtherMembersOfThePublicPathAreLoggedAndChangeNothing) {
    for (const char* member : {"SpeakerChangeRequest", "SpeakerVolumeChanged", "budsdisconnected", "X"}) {
        seam.Clear();
        Emit(member, g_variant_new("(ii)", 2, 1));
        EXPECT_THAT(MainLoop().Lines(), ElementsAre(StartLine("signal", member), CallerLine(),
                                                    std::string("OnSignal: E Not matched signal:") + member));
    }
}

TEST_F(InterfaceTest, SignalsOnAnotherPathAreNeverSeen) {
    for (const char* path :
         {OBJECT_PATH, "/", "/Org/Olvane/Kavrel/Sub", "/Org/Olvane", "/Org/Olvane/kavrel"}) {
        seam.Clear();
        EmitUnheard(path, INTERFACE, "BudsDisconnected", g_variant_new("(i)", 0));
        EXPECT_THAT(Requests(), ElementsAre(StartLine("signal", "BudsConnected"))) << path;
    }
}

TEST_F(InterfaceTest, SignalsOfAnotherInterfaceAreNeverSeen) {
    for (const char* interface : {"org.olvane.kavrel2", "org.olvane.Kavrel", "org.olvane.kavrel.sub"}) {
        seam.Clear();
        EmitUnheard(PUBLIC_PATH, interface, "BudsDisconnected", g_variant_new("(i)", 0));
        EXPECT_THAT(Requests(), ElementsAre(StartLine("signal", "BudsConnected"))) << interface;
    }
}

TEST_F(InterfaceTest, SignalsOfAnySenderAreHandled) {
    const fake::BusClient another;
    another.Emit(PUBLIC_PATH, INTERFACE, "BudsConnected", g_variant_new("(i)", 7));
    daemon->WaitUntilIdle();
    EXPECT_THAT(MainLoop().Logs().Lines(), Contains(StartsWith("_OnBudsConnected: I ")));
}

TEST_F(InterfaceTest, AMuteStateTravelsAsABooleanToTheServiceAndAsANumberFromIt) {
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(0,)");
    EXPECT_EQ(Call("GetSpeakerMute"), "(1, 0)");
    EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", FALSE)), "(0,)");
    EXPECT_EQ(Call("GetSpeakerMute"), "(0, 0)");
}

}  // namespace
