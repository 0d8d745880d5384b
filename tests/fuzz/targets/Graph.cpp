// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The bytes are events of the TV's platform, calls and signals, in the order in which they reach the server and all
 * its objects. There is no bus: the server serves a connection to this same process. After each of them the objects,
 * the TV and the registrations must fit together.
 */
#include <gio/gio.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>
#include <memory>

#include "FakeSeam.h"
#include "KVServer.h"
#include "Routes.h"
#include "Target.h"

namespace {

using fake::FakeSeam;
using fuzz::Bytes;
using fuzz::Require;
using NKavrel::KVServer;
using NKavrel::VolumeControlImpl;

constexpr const char* NAME = "org.olvane.kavrel";
constexpr const char* CALLS_PATH = "/Org/Olvane/KavrelInternal";
constexpr const char* VIEW_KEY = "memory/multiscreen/info";
constexpr const char* SUB_BT_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";
const std::string MIRRORING = "memory/menu/network/screenmirroring/";

constexpr std::array DEVICES = {"hdmi", "optical", "mlr", "bt", "auracast"};
constexpr std::array KINDS = {"volume_support_", "get_volume_level_", "get_volume_mute_"};
constexpr std::array VIEWS = {R"({"mode":"on"})", R"({"mode":"off"})", R"({"mode":1})", "[1]", "{", ""};
constexpr std::array OTHER_KEYS = {"memory/sysman/spdif", "memory/menu/network/screenmirroring/smsrc_status",
                                   SUB_BT_KEY, "memory/projector/status/ready"};
/** Functions that may fail. After a failed registration or removal a report may reach a speaker that is gone. */
constexpr std::array FALLIBLE = {
    "audio_get_master_volume",  "audio_set_master_volume", "audio_get_master_mute",
    "audio_set_master_mute",    "vconf_get_int",           "vconf_set_int",
    "vconf_keynode_get_str",    "rc_get_zone_list",        "rc_get_audio_focus",
    "AudioControl_getInstance", "set_main_out_gain2",      "set_sub_out_gain2",
    "vconf_keynode_get_name",   "rc_get_zone_id"};

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
struct Signal {
    const char* name;
    const char* arguments;
};
constexpr std::array<Signal, 5> SIGNALS = {{{"BudsConnected", "(i)"},
                                            {"BudsDisconnected", "(i)"},
                                            {"SpkDisconnected", "(is)"},
                                            {"ApplyPulseAudioGain", "(ii)"},
                                            {"Unknown", "(i)"}}};

GDBusConnection* ConnectionOn(int socket) {
    GSocket* const wrapped = g_socket_new_from_fd(socket, nullptr);
    GSocketConnection* const stream = g_socket_connection_factory_create_connection(wrapped);
    GDBusConnection* const connection = g_dbus_connection_new_sync(
        G_IO_STREAM(stream), nullptr, G_DBUS_CONNECTION_FLAGS_NONE, nullptr, nullptr, nullptr);
    g_object_unref(stream);
    g_object_unref(wrapped);
    return connection;
}

/** The server, as the daemon runs it, and a caller at the other end of its connection. */
class Daemon {
public:
    Daemon() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        std::array<int, 2> ends = {};
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "there are sockets");
        m_own = ConnectionOn(ends[0]);
        m_caller = ConnectionOn(ends[1]);
        m_server.Init();
        KVServer::onBusAcquired(m_own, NAME, &m_server);
        KVServer::onNameAcquired(m_own, NAME, &m_server);
    }

    VolumeControlImpl& Control() { return *m_server.getCurrentSpeaker(); }

    /** Calls a method with a body of any type. @return the type of the reply, or "" for an error */
    std::string Call(const char* method, GVariant* body) {
        std::optional<std::string> answer;
        g_dbus_connection_call(m_caller, nullptr, CALLS_PATH, NAME, method, body, nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, OnReply, &answer);
        while (!answer) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return *answer;
    }

    void Emit(const char* signal, GVariant* body) {
        g_variant_ref_sink(body);
        KVServer::signalCallHandler(m_own, ":1.7", "", NAME, signal, body, &m_server);
        g_variant_unref(body);
    }

    void RunLoop() {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }

private:
    static void OnReply(GObject* connection, GAsyncResult* result, void* data) {
        GVariant* const reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr);
        *static_cast<std::optional<std::string>*>(data) =
            reply == nullptr ? "" : g_variant_get_type_string(reply);
        if (reply != nullptr) {
            g_variant_unref(reply);
        }
    }

    GDBusConnection* m_own = nullptr;
    GDBusConnection* m_caller = nullptr;
    KVServer m_server;
};

/** The routes as the daemon must follow them. */
struct Model {
    int output = 0;
    int previous = 0;

    void Follow(int route) {
        if (route != output) {
            previous = std::exchange(output, route);
        }
    }
};

FakeSeam& seam = FakeSeam::Get();

void PrepareTv() {
    seam.journal.DropLogLines(true);
    seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
    seam.SetInt("memory/projector/status/ready", 1);
    for (const char* device : DEVICES) {
        for (const char* kind : KINDS) {
            seam.SetInt(MIRRORING + kind + device, 15);
        }
    }
}

Daemon& TheDaemon() {
    static Daemon& daemon = []() -> Daemon& {
        PrepareTv();
        return *std::make_unique<Daemon>().release();
    }();
    return daemon;
}

GVariant* BodyOf(const char* types, Bytes& bytes) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (const char* type = types; *type != '\0'; ++type) {
        if (*type == 'i') {
            g_variant_builder_add(&builder, "i", bytes.Number());
        } else if (*type == 'b') {
            g_variant_builder_add(&builder, "b", bytes.Byte() % 2);
        } else if (*type == 's') {
            g_variant_builder_add(&builder, "s", "box");
        }
    }
    return g_variant_builder_end(&builder);
}

/** The routes with a meaning, and others. */
int Route(Bytes& bytes) {
    const std::uint8_t byte = bytes.Byte();
    return byte < 250 ? byte % 25 - 2 : bytes.Integer();
}

void CallMethod(Bytes& bytes) {
    const Method& method = bytes.Pick(METHODS);
    const std::string reply = TheDaemon().Call(method.name, BodyOf(method.arguments, bytes));
    Require(reply == method.reply, "each method answers with its types");
}

void CallWrongly(Bytes& bytes) {
    const char* const name = bytes.Byte() % 2 == 0 ? bytes.Pick(METHODS).name : "NoSuchMethod";
    Require(TheDaemon().Call(name, g_variant_new("(sd)", "x", 0.5)).empty(), "a wrong call gets an error");
}

void EmitSignal(Bytes& bytes) {
    const Signal& signal = bytes.Pick(SIGNALS);
    TheDaemon().Emit(signal.name, BodyOf(bytes.Byte() % 4 == 0 ? "(iii)" : signal.arguments, bytes));
}

void ChangeRoute(Bytes& bytes) {
    const int route = Route(bytes);
    Model model = {TheDaemon().Control().GetSpeakerSelection(),
                   TheDaemon().Control().GetPrevSpeakerSelection()};
    seam.FireRoute(route);
    model.Follow(route);
    Require(TheDaemon().Control().GetSpeakerSelection() == model.output, "the output follows the route");
    Require(TheDaemon().Control().GetPrevSpeakerSelection() == model.previous, "the previous route is kept");
}

void ChangeZones(Bytes& bytes) {
    switch (bytes.Byte() % 4) {
        case 0:
            seam.SetZones({{bytes.Byte() % 3, Route(bytes)}, {1, Route(bytes)}});
            break;
        case 1:
            seam.FireFocus(bytes.Byte() % 4 - 1);
            break;
        case 2:
            seam.FireZoneRoute(Route(bytes), bytes.Byte() % 4 - 1);
            break;
        default:
            seam.SetFocus(std::nullopt);
    }
}

void ChangeView(Bytes& bytes) {
    seam.FireKey(VIEW_KEY, bytes.Pick(VIEWS));
}

void ChangeSetting(Bytes& bytes) {
    seam.FireKey(bytes.Pick(OTHER_KEYS), bytes.Number());
}

void ChangeDevice(Bytes& bytes) {
    const std::string kind = bytes.Pick(KINDS);
    seam.FireKey(MIRRORING + kind + bytes.Pick(DEVICES), bytes.Number());
}

void ReportSound(Bytes& bytes) {
    const auto number = static_cast<unsigned int>(bytes.Number());
    if (bytes.Byte() % 2 == 0) {
        seam.FireVolume(number);
    } else {
        seam.FireMute(number);
    }
}

void ReportBadNode(Bytes& bytes) {
    keynode_t node = {std::nullopt, bytes.Number(), std::nullopt};
    const bool isNull = bytes.Byte() % 2 == 0;
    const std::string device = MIRRORING + bytes.Pick(KINDS) + bytes.Pick(DEVICES);
    seam.FireNode(bytes.Byte() % 2 == 0 ? device : bytes.Pick(OTHER_KEYS), isNull ? nullptr : &node);
    seam.FireNode(VIEW_KEY, isNull ? nullptr : &node);
}

void FailOnce(Bytes& bytes) {
    const char* const function = bytes.Pick(FALLIBLE);
    seam.Succeed(function);
    seam.Fail(function, -1 - bytes.Byte(), 1 + bytes.Byte() % 3);
}

/** Each kind of output listens to its own changes and to no others. */
void RequireRegistrations() {
    const auto kind = NKavrel::OutputOf(TheDaemon().Control().GetSpeakerSelection()).kind;
    const bool isTv = kind == NKavrel::eSpeakerKind::TV;
    Require((seam.VolumeRegistration().callback != nullptr) == isTv,
            "the TV's speaker alone hears its volume");
    Require((seam.MuteRegistration().callback != nullptr) == isTv, "the TV's speaker alone hears its mute");
    std::size_t watches = 0;
    for (const char* device : DEVICES) {
        for (const char* of : KINDS) {
            watches += seam.Watches(MIRRORING + of + device).size();
        }
    }
    const bool isSilent =
        isTv || kind == NKavrel::eSpeakerKind::UNKNOWN || kind == NKavrel::eSpeakerKind::USB;
    Require(watches == (isSilent ? 0U : KINDS.size()), "an external output watches its own three settings");
    Require(seam.FocusRegistrations().size() == 1, "the focus has one listener");
    Require(seam.RouteRegistration().callback != nullptr, "the route has a listener");
}

/** The objects still do all of their work when the bytes are over. */
void RequireRecovery() {
    for (const char* function : FALLIBLE) {
        seam.Succeed(function);
    }
    seam.FireKey(VIEW_KEY, VIEWS[1]);
    seam.FireRoute(2);
    seam.FireRoute(0);
    Require(TheDaemon().Call("SetSpeakerVolume", g_variant_new("(i)", 12)) == "(i)", "a volume can be set");
    Require(seam.Volume() == 12, "the volume reaches the TV");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr auto STEPS = {CallMethod,  CallWrongly,   EmitSignal,    ChangeRoute,
                                   ChangeZones, ChangeView,    ChangeSetting, ChangeDevice,
                                   ReportSound, ReportBadNode, FailOnce};
    TheDaemon();
    Bytes bytes(data, size);
    while (!bytes.IsEmpty()) {
        STEPS.begin()[bytes.Byte() % STEPS.size()](bytes);
        RequireRegistrations();
    }
    RequireRecovery();
    TheDaemon().RunLoop();
    seam.Clear();
    return 0;
}
