// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gio/gio.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <string>

#include "Commands.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Print.h"

namespace tv {

namespace {

constexpr const char* DESCRIPTION = R"(Play the speaker behind one of kavreld's emulators

kavreld takes an emulator for a speaker while /opt/etc/.enable_tv_spk or
/opt/etc/.enable_bt_spk exists. A number typed here turns the speaker's own
knob; both emulators are notified. Ctrl-C ends the command.

The Bluetooth emulator works in full once its support word is set, which
"kavrel-tv devices" does. The TV emulator calls GetSpkVolume and SetSpkVolume
under kavreld's own name, where nobody else can answer: they fail as long as
kavreld owns it. This speaker therefore has the name org.olvane.kavrel.tv, for
any other caller.)";

constexpr std::chrono::seconds PATIENCE(5);

/** One of the two speakers that an emulator of the daemon takes its volume from. */
struct EmulatorPeer {
    const char* name;  // on the bus
    const char* path;
    const char* interface;
    int route;    // in its signals and answers
    int support;  // in its signals
};

// Nobody but the daemon can own the name under which the TV emulator calls its peer.
constexpr std::array<EmulatorPeer, 2> PEERS = {
    {{"org.olvane.kavrel.tv", "/Org/Olvane/Kavrel", "org.olvane.kavrel.tv", 0, 0xFFFF},
     {"com.norvik.tv.bt.connectionmanager", "/com/norvik/tv/bt/connectionmanager",
      "com.norvik.tv.bt.connectionmanager.speaker", 3, 0xF}}};

tools::GLibPtr<GDBusNodeInfo> Describe(const EmulatorPeer& peer) {
    const std::string xml = std::string("<node><interface name='") + peer.interface + R"('>
        <method name='GetSpkVolume'>
          <arg name='route' type='i' direction='out'/>
          <arg name='volume' type='i' direction='out'/>
          <arg name='result' type='i' direction='out'/>
        </method>
        <method name='SetSpkVolume'>
          <arg name='volume' type='i' direction='in'/>
          <arg name='route' type='i' direction='out'/>
          <arg name='result' type='i' direction='out'/>
        </method>
      </interface></node>)";
    return tools::GLibPtr<GDBusNodeInfo>(g_dbus_node_info_new_for_xml(xml.c_str(), nullptr));
}

/**
 * A speaker on the bus: answers "GetSpkVolume" and "SetSpkVolume", announces each volume that it is set to with
 * "SpkVolumeChanged", and prints what it does.
 */
class Emulator {
public:
    /** @param result the last value of every answer of GetSpkVolume: 0 for success
     *  @throws tools::ToolError without a bus, or if the name cannot be owned */
    Emulator(tools::MainLoop& loop, const EmulatorPeer& peer, int volume, int result)
        : m_loop(loop), m_peer(peer), m_volume(volume), m_result(result), m_client(PATIENCE) {
        m_client.EndWithBus(loop);
        Register();
        m_client.OwnName(peer.name);
        tools::PrintWithTime(std::string(peer.name) + " is here, volume " + std::to_string(volume));
    }
    ~Emulator() { g_dbus_connection_unregister_object(m_client.Connection(), m_object); }
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

private:
    void Register() {
        static constexpr GDBusInterfaceVTable CALLS = {OnCall, nullptr, nullptr, {}};
        const auto node = Describe(m_peer);
        tools::GLibError error;
        m_object = g_dbus_connection_register_object(m_client.Connection(), m_peer.path, node->interfaces[0],
                                                     &CALLS, this, nullptr, error);
        if (m_object == 0) {
            throw tools::ToolError(tools::EXIT_REFUSED, error->message);
        }
    }

    static void OnCall(GDBusConnection* /*connection*/, const char* /*sender*/, const char* /*path*/,
                       const char* /*interface*/, const char* method, GVariant* parameters,
                       GDBusMethodInvocation* invocation, void* self) {
        auto* emulator = static_cast<Emulator*>(self);
        emulator->m_loop.Guard([&] { emulator->Answer(method, parameters, invocation); });
    }

    /** GLib lets only the two methods through, with arguments of their types. */
    void Answer(const std::string& method, GVariant* parameters, GDBusMethodInvocation* invocation) {
        if (method == "GetSpkVolume") {
            g_dbus_method_invocation_return_value(invocation,
                                                  g_variant_new("(iii)", m_peer.route, m_volume, m_result));
            tools::PrintWithTime("GetSpkVolume: " + std::to_string(m_volume));
            return;
        }
        int volume = 0;
        g_variant_get(parameters, "(i)", &volume);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(ii)", m_peer.route, 0));
        tools::PrintWithTime("SetSpkVolume " + std::to_string(volume));
        Turn(volume);
    }

    /** Reads the numbers that the user types, each on a line of its own. */
    void ReadKnob() {
        std::array<char, 256> chunk = {};
        const ssize_t size = read(STDIN_FILENO, chunk.data(), chunk.size());
        if (size > 0) {
            m_typed.append(chunk.data(), static_cast<std::size_t>(size));
        } else {
            m_knob.reset();  // the end, or a terminal that another program reads from
            m_typed += m_typed.empty() ? "" : "\n";
        }
        for (std::size_t end = 0; (end = m_typed.find('\n')) != std::string::npos;) {
            std::string line = m_typed.substr(0, end);
            m_typed.erase(0, end + 1);
            if (const std::string error = tools::WholeNumber()(line); !error.empty()) {
                tools::Complain(error);
            } else {
                Turn(std::stoi(line));
            }
        }
    }

    /** Sets the volume as the speaker's own knob does. */
    void Turn(int volume) {
        m_volume = volume;
        // On the daemon's interface and path, where both of its emulators listen for signals of any sender.
        g_dbus_connection_emit_signal(m_client.Connection(), nullptr, tools::KAVREL_SIGNAL_PATH,
                                      tools::KAVREL_INTERFACE, "SpkVolumeChanged",
                                      g_variant_new("(iii)", m_peer.route, m_peer.support, volume), nullptr);
        tools::PrintWithTime("SpkVolumeChanged " + std::to_string(m_peer.route) + " " +
                             std::to_string(m_peer.support) + " " + std::to_string(volume));
    }

    tools::MainLoop& m_loop;
    const EmulatorPeer& m_peer;
    int m_volume;
    const int m_result;
    tools::KavrelClient m_client;
    guint m_object = 0;
    std::string m_typed;  // of a line that has not ended yet
    tools::GLibPtr<GSource> m_knob = m_loop.WhenReadable(STDIN_FILENO, [this] { ReadKnob(); });
};

struct EmulatorCommand {
    std::size_t peer = 0;
    int volume = 10;
    int result = 0;

    void AddOptions(CLI::App& command) {
        command.add_option("SPEAKER", peer)->required()->transform(tools::OneOf({{"tv", 0}, {"bt", 1}}));
        command.add_option("--volume", volume, "Set the first volume (default: 10)")
            ->type_name("N")
            ->transform(tools::WholeNumber());
        command.add_option("--result", result, "Set the result that GetSpkVolume answers (default: 0)")
            ->type_name("N")
            ->transform(tools::WholeNumber());
    }

    int Run(const std::string& /*directory*/) const {
        std::signal(SIGTTIN, SIG_IGN);  // a read from the terminal then fails in the background
        tools::MainLoop loop;
        const Emulator emulator(loop, PEERS.at(peer), volume, result);
        return loop.RunUntilInterrupted();
    }
};

}  // namespace

void AddEmulator(tools::CommandLine& line, const std::string& directory) {
    AddCommand<EmulatorCommand>(line, directory,
                                {"emulator", DESCRIPTION, "kavrel-tv emulator bt --volume 20"});
}

}  // namespace tv
