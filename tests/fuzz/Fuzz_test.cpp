// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Attacks the daemon with random calls, signals, settings, reports and failures of the platform. The daemon
 * must survive, answer every well-formed request with the types that the interface declares, write
 * well-formed log lines only, and work as usual afterwards.
 *
 * Each round starts a new daemon and uses the next seed. The environment may set KAVREL_FUZZ_SECONDS (5),
 * during which new rounds begin, and KAVREL_FUZZ_SEED (1), the first seed. A failure prints its seed, which
 * reproduces it.
 */
#include <cstdlib>

#include "DaemonTest.h"
#include "Dice.h"

namespace {

using fake::FakeSeam;

constexpr int STEPS = 300;

/** The number in an environment variable, or the default if it is not set. */
std::uint32_t NumberFromEnvironment(const char* name, std::uint32_t defaultNumber) {
    const char* text = std::getenv(name);
    return text == nullptr ? defaultNumber : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

/** A signal that the daemon listens to. */
struct HandledSignal {
    const char* name;
    const char* body;
};

constexpr std::array<HandledSignal, 4> SIGNALS = {{{"BudsConnected", "(i)"},
                                                   {"BudsDisconnected", "(i)"},
                                                   {"SpkDisconnected", "(is)"},
                                                   {"ApplyPulseAudioGain", "(ii)"}}};

const std::array<std::string, 13> KEYS = {"memory/sysman/spdif",
                                          "memory/menu/network/screenmirroring/smsrc_status",
                                          "memory/org.olvane.btapp/sub_audio_zoneid",
                                          "memory/projector/status/ready",
                                          "memory/multiscreen/info",
                                          "db/usbsound/volume_capability",
                                          "db/usbsound/volume_level",
                                          "db/usbsound/volume_mute_status",
                                          "memory/menu/network/screenmirroring/volume_support_auracast",
                                          "memory/menu/network/screenmirroring/get_volume_level_auracast",
                                          "memory/menu/network/screenmirroring/get_volume_mute_auracast",
                                          "memory/menu/network/screenmirroring/set_volume_level",
                                          "memory/menu/network/screenmirroring/set_volume_mute"};

/**
 * Functions that may fail at any time. Registrations are not among them: after one fails half-way, a report
 * may reach no one.
 */
const std::array<std::string, 18> FALLIBLE = {"audio_get_master_volume",
                                              "audio_set_master_volume",
                                              "audio_get_master_mute",
                                              "audio_set_master_mute",
                                              "vconf_get_int",
                                              "vconf_set_int",
                                              "vconf_get_str",
                                              "vconf_keynode_get_str",
                                              "sound_manager_get_speaker_selection",
                                              "sound_manager_set_speaker_selection",
                                              "sound_manager_get_multiview_speaker_selection_with_zone_id",
                                              "sound_manager_set_multiview_speaker_selection_with_zone_id",
                                              "rc_get_zone_list",
                                              "rc_get_audio_focus",
                                              "AudioControl_getInstance",
                                              "set_main_out_gain2",
                                              "set_sub_out_gain2",
                                              "g_dbus_connection_emit_signal"};

class FuzzTest : public DaemonTest {
protected:
    /**
     * Runs one round. On a TV, reports on the main loop never coincide with reports on a platform thread. So
     * in a round the platform either reports only changes that others made, at any time, or also the daemon's
     * own changes; then others make changes only while the daemon is idle.
     */
    void Round(std::uint32_t seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        dice = Dice(seed);
        idleReports = seed % 2 == 0;
        seam.Reset();
        seam.ReportOwnChanges(idleReports);
        seam.SetFeature("com.norvik/featureconf/projector_feature_support", dice.OneIn(2));
        seam.SetFeature("com.norvik/featureconf/multiview.support", !dice.OneIn(4));
        seam.SetEvent("FadeInPopup", dice.OneIn(2));
        Start();
        for (int step = 0; step < STEPS && !HasFailure(); ++step) {
            Step();
        }
        ExpectRecovery();
        ExpectLogForm();
        daemon.reset();
    }

    void Step() {
        switch (dice.Below(12)) {
            case 0:
            case 1:
            case 2:
                CallMethod();
                break;
            case 3:
                SendRandomMessage(G_DBUS_MESSAGE_TYPE_METHOD_CALL);
                break;
            case 4:
                SendRandomMessage(G_DBUS_MESSAGE_TYPE_SIGNAL);
                break;
            case 5:
            case 6:
                EmitHandledSignal();
                break;
            case 7:
                ChangeSetting();
                break;
            case 8:
            case 9:
                ReportChange();
                break;
            case 10:
                FailSomething();
                break;
            default:
                VisitBriefly();
        }
    }

    /** A body of the given types with random values. */
    GVariant* BodyOf(const std::string& types) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE(types.c_str()));
        for (const char type : types) {
            if (type == 'b') {
                g_variant_builder_add(&builder, "b", dice.OneIn(2));
            } else if (type == 'i') {
                g_variant_builder_add(&builder, "i", dice.Integer());
            } else if (type == 's') {
                g_variant_builder_add(&builder, "s", dice.Text().c_str());
            }
        }
        return g_variant_builder_end(&builder);
    }

    void CallMethod() {
        const MethodSignature& method = dice.Pick(methods);
        std::string error;
        const auto reply =
            client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, method.name, BodyOf(method.arguments), &error);
        ASSERT_NE(reply, nullptr) << method.name << ": " << error;
        EXPECT_EQ(g_variant_get_type_string(reply.get()), method.reply) << method.name;
    }

    /** Sends a message with a random address and body, and does not wait for a reply. */
    void SendRandomMessage(GDBusMessageType type) {
        const std::string path = dice.OneIn(4)   ? "/" + dice.Member()
                                 : dice.OneIn(2) ? OBJECT_PATH
                                                 : PUBLIC_PATH;
        const std::string interface = dice.OneIn(4) ? "org." + dice.Member() : INTERFACE;
        const std::string member = dice.OneIn(3)   ? dice.Member()
                                   : dice.OneIn(2) ? dice.Pick(SIGNALS).name
                                                   : dice.Pick(methods).name;
        tools::GLibPtr<GDBusMessage> message;
        if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
            message.reset(g_dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()));
            if (dice.OneIn(3)) {
                g_dbus_message_set_destination(message.get(), BUS_NAME);
            }
        } else {
            message.reset(g_dbus_message_new_method_call(
                BUS_NAME, path.c_str(), dice.OneIn(5) ? nullptr : interface.c_str(), member.c_str()));
            if (dice.OneIn(2)) {
                g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
            }
        }
        if (!dice.OneIn(5)) {
            g_dbus_message_set_body(message.get(), dice.Body());
        }
        g_dbus_connection_send_message(client.Connection(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr);
    }

    void EmitHandledSignal() {
        const HandledSignal& signal = dice.Pick(SIGNALS);
        client.Emit(PUBLIC_PATH, INTERFACE, signal.name, dice.OneIn(3) ? dice.Body() : BodyOf(signal.body));
    }

    void WaitBeforeReport() {
        if (idleReports) {
            daemon->WaitUntilIdle();
        }
    }

    void ChangeSetting() {
        WaitBeforeReport();
        const std::string& key = dice.Pick(KEYS);
        switch (dice.Below(5)) {
            case 0:
                seam.FireKey(key, dice.Integer());
                break;
            case 1:
                seam.FireKey(key, dice.Json());
                break;
            case 2:
                seam.FireKey(key, dice.Bytes());
                break;
            case 3: {
                keynode_t node = {std::nullopt, dice.Integer(), std::nullopt};
                seam.FireNode(key, &node);
                break;
            }
            default:
                seam.FireNode(key, nullptr);
        }
    }

    void ReportChange() {
        WaitBeforeReport();
        const int number = dice.Integer();
        switch (dice.Below(7)) {
            case 0:
                seam.FireVolume(static_cast<unsigned int>(number));
                break;
            case 1:
                seam.FireMute(static_cast<unsigned int>(number));
                break;
            case 2:
                seam.FireFocus(number);
                break;
            case 3:
                seam.FireZoneRoute(number, dice.Integer());
                break;
            case 4:
                seam.SetZones({{dice.Integer(), dice.Integer()}, {1, number}});
                break;
            default:
                seam.FireRoute(number);
        }
    }

    void FailSomething() {
        if (!failing.empty()) {
            seam.Succeed(failing);
        }
        failing = dice.Pick(FALLIBLE);
        // Negative results only: 0 means success, and so do positive results of some functions.
        seam.Fail(failing, dice.OneIn(2) ? -1 : -1 - static_cast<int>(dice.Below(100000)));
    }

    void VisitBriefly() {
        const fake::BusClient visitor;
        visitor.Emit(PUBLIC_PATH, INTERFACE, dice.Member(), dice.Body());
    }

    void ExpectRecovery() {
        if (!failing.empty()) {
            seam.Succeed(failing);
        }
        daemon->WaitUntilIdle();
        seam.FireKey("memory/multiscreen/info", "{}");
        seam.FireRoute(2);
        seam.FireRoute(0);
        seam.SetMute(false);
        EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 12)), "(0,)");
        EXPECT_EQ(Call("GetSpeakerVolume"), "(12, 0)");
        EXPECT_EQ(Call("GetSpeakerSupportType"), "(65535, 0)");
    }

    void ExpectLogForm() {
        for (const fake::Entry& entry : journal.All().Entries()) {
            if (entry.kind == fake::Entry::Kind::LOG) {
                ASSERT_EQ(entry.tag, "Kavrel");
                ASSERT_FALSE(entry.site.function.empty()) << entry.raw;
                ASSERT_EQ(entry.site, entry.siteAgain) << entry.raw;
            }
        }
    }

    const std::vector<MethodSignature> methods = ReadMethods();
    Dice dice{0};
    bool idleReports = false;
    std::string failing;
};

TEST_F(FuzzTest, HostileTraffic) {
    const auto end =
        fake::Clock::now() + std::chrono::seconds(NumberFromEnvironment("KAVREL_FUZZ_SECONDS", 5));
    std::uint32_t seed = NumberFromEnvironment("KAVREL_FUZZ_SEED", 1);
    do {
        alarm(120);  // the watchdog limits one round, not a long run of many rounds
        Round(seed++);
    } while (fake::Clock::now() < end && !HasFailure());
    std::cout << "seeds up to " << seed - 1 << '\n';
}

TEST_F(FuzzTest, SettingsTexts) {
    Start();
    Dice texts(NumberFromEnvironment("KAVREL_FUZZ_SEED", 1));
    for (int i = 0; i < 3000; ++i) {
        const std::string& key = texts.Pick(KEYS);
        seam.FireKey(key, texts.OneIn(2) ? texts.Json() : texts.Bytes());
        if (texts.OneIn(10)) {
            seam.FireRoute(texts.Integer());
        }
        if (texts.OneIn(100)) {
            seam.Clear();
        }
    }
    ExpectRecovery();
}

}  // namespace
