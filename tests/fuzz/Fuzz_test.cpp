// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Hostile traffic against the daemon: calls, signals, settings, reports and failures of the platform, as
 * dice fall. What must hold: it lives, every request of the right form gets an answer of its own type, every
 * log line has its form, and when the storm is over it works as before.
 *
 * Each round is a daemon's life with a seed of its own. KAVREL_FUZZ_SECONDS (5) is how long rounds are begun,
 * KAVREL_FUZZ_SEED (1) the first seed: a failure names its seed, with which it comes again.
 */
#include <cstdlib>

#include "Daemon.h"
#include "Dice.h"

namespace {

using fake::FakeSeam;

constexpr int STEPS = 300;

/** A number out of the environment. */
std::uint32_t Option(const char* name, std::uint32_t otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

struct Method {
    const char* name;
    const char* arguments;
    const char* reply;
};

constexpr std::array<Method, 9> METHODS = {{{"GetSpeakerSupportType", "()", "(ii)"},
                                            {"SetSpeakerVolume", "(i)", "(i)"},
                                            {"GetSpeakerVolume", "()", "(ii)"},
                                            {"SetSpeakerMute", "(b)", "(i)"},
                                            {"GetSpeakerMute", "()", "(ii)"},
                                            {"ApplyPlayerFadeIn", "(i)", "(i)"},
                                            {"ApplyUnmuteFadeIn", "(i)", "(i)"},
                                            {"ResetPlayerGain", "(i)", "(i)"},
                                            {"ApplyGainOnMute", "(ii)", "(i)"}}};

struct Listened {
    const char* name;
    const char* body;
};

constexpr std::array<Listened, 4> SIGNALS = {{{"BudsConnected", "(i)"},
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

/** What may fail at any time. Registrations are left out: a report after one that failed half-way may find
 * nobody. */
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
    /** A round. Reports made on the main loop itself and on a platform thread never meet on a TV; so the
     * platform either reports all by itself, or only while the daemon is idle. */
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
                CallRight();
                break;
            case 3:
                SendWild(G_DBUS_MESSAGE_TYPE_METHOD_CALL);
                break;
            case 4:
                SendWild(G_DBUS_MESSAGE_TYPE_SIGNAL);
                break;
            case 5:
            case 6:
                EmitKnown();
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

    /** A value of one of the daemon's own types. */
    GVariant* Right(const std::string& type) {
        if (type == "()") {
            return nullptr;
        }
        if (type == "(b)") {
            return g_variant_new("(b)", dice.OneIn(2));
        }
        if (type == "(ii)") {
            return g_variant_new("(ii)", dice.Number(), dice.Number());
        }
        if (type == "(is)") {
            return g_variant_new("(is)", dice.Number(), dice.Text().c_str());
        }
        return g_variant_new("(i)", dice.Number());
    }

    void CallRight() {
        const Method& method = dice.Pick(METHODS);
        std::string error;
        const auto reply =
            client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, method.name, Right(method.arguments), &error);
        ASSERT_NE(reply, nullptr) << method.name << ": " << error;
        EXPECT_STREQ(g_variant_get_type_string(reply.get()), method.reply) << method.name;
    }

    /** Something on the bus, sent and forgotten. */
    void SendWild(GDBusMessageType type) {
        const std::string path = dice.OneIn(4)   ? "/" + dice.Member()
                                 : dice.OneIn(2) ? OBJECT_PATH
                                                 : PUBLIC_PATH;
        const std::string interface = dice.OneIn(4) ? "org." + dice.Member() : INTERFACE;
        const std::string member = dice.OneIn(3)   ? dice.Member()
                                   : dice.OneIn(2) ? dice.Pick(SIGNALS).name
                                                   : dice.Pick(METHODS).name;
        GDBusMessage* message = nullptr;
        if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
            message = g_dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str());
            if (dice.OneIn(3)) {
                g_dbus_message_set_destination(message, BUS_NAME);
            }
        } else {
            message = g_dbus_message_new_method_call(
                BUS_NAME, path.c_str(), dice.OneIn(5) ? nullptr : interface.c_str(), member.c_str());
            if (dice.OneIn(2)) {
                g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
            }
        }
        if (!dice.OneIn(5)) {
            g_dbus_message_set_body(message, dice.Body());
        }
        g_dbus_connection_send_message(client.Connection(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(message);
    }

    void EmitKnown() {
        const Listened& signal = dice.Pick(SIGNALS);
        client.Emit(PUBLIC_PATH, INTERFACE, signal.name, dice.OneIn(3) ? dice.Body() : Right(signal.body));
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
                seam.FireKey(key, dice.Number());
                break;
            case 1:
                seam.FireKey(key, dice.Json());
                break;
            case 2:
                seam.FireKey(key, dice.Bytes());
                break;
            case 3: {
                keynode_t node = {std::nullopt, dice.Number(), std::nullopt};
                seam.FireNode(key, &node);
                break;
            }
            default:
                seam.FireNode(key, nullptr);
        }
    }

    void ReportChange() {
        WaitBeforeReport();
        const int number = dice.Number();
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
                seam.FireZoneRoute(number, dice.Number());
                break;
            case 4:
                seam.SetZones({{dice.Number(), dice.Number()}, {1, number}});
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
        // A call that fails is never one that answers 0 or, where the platform has such codes, more.
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
        for (const fake::Entry& entry : seam.Entries()) {
            if (entry.kind == fake::Entry::Kind::LOG) {
                ASSERT_EQ(entry.tag, "Kavrel");
                ASSERT_FALSE(entry.site.function.empty()) << entry.raw;
                ASSERT_EQ(entry.site, entry.siteAgain) << entry.raw;
            }
        }
    }

    Dice dice{0};
    bool idleReports = false;
    std::string failing;
};

TEST_F(FuzzTest, HostileTraffic) {
    const auto end = fake::Clock::now() + std::chrono::seconds(Option("KAVREL_FUZZ_SECONDS", 5));
    std::uint32_t seed = Option("KAVREL_FUZZ_SEED", 1);
    do {
        alarm(120);  // the watchdog's patience is for one test, not for all rounds of a long run
        Round(seed++);
    } while (fake::Clock::now() < end && !HasFailure());
    std::cout << "seeds up to " << seed - 1 << '\n';
}

TEST_F(FuzzTest, SettingsTexts) {
    Start();
    Dice texts(Option("KAVREL_FUZZ_SEED", 1));
    for (int i = 0; i < 3000; ++i) {
        const std::string& key = texts.Pick(KEYS);
        seam.FireKey(key, texts.OneIn(2) ? texts.Json() : texts.Bytes());
        if (texts.OneIn(10)) {
            seam.FireRoute(texts.Number());
        }
        if (texts.OneIn(100)) {
            seam.Clear();
        }
    }
    ExpectRecovery();
}

}  // namespace
