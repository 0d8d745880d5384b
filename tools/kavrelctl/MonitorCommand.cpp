// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "CallWatch.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Property.h"
#include "Terminal.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr size_t EVENT_WIDTH = 9;

/**
 * Prints the daemon's present state, then every change, each on a line. It asks the daemon only at the start and
 * when the daemon is back; everything else comes from signals.
 */
class Monitor {
public:
    /** @throws tools::ToolError if there is no bus, or it does not allow monitoring of calls */
    Monitor(bool asJson, bool withCalls, tools::Timeout timeout)
        : m_asJson(asJson), m_client(timeout, tools::WhenBusy::TRY_AGAIN) {
        m_loop.EndWithReader();
        m_client.OnOwnerChanged([this](const auto& owner) { m_loop.Guard([&] { OnOwnerChanged(owner); }); });
        m_client.OnSignal([this](const auto& sender, const auto& signal, GVariant* body) {
            if (sender == m_owner) {
                m_loop.Guard([&] { OnSignal(signal, body); });
            }
        });
        m_client.EndWithBus(m_loop);
        if (withCalls) {
            m_calls = std::make_unique<CallWatch>(m_loop, m_client, timeout, [this](const Call& call) {
                PrintEvent("call", InWords(call), InJson(call), call.time);
            });
        }
    }

    /** Runs until Ctrl-C or the end of its reader. @return the exit code
     *  @throws tools::ToolError if there is no daemon at the start, or the bus closes the connection */
    int Run() {
        m_owner = m_client.RequireOwner();
        AskForState();
        return m_loop.RunUntilInterrupted();
    }

private:
    void OnSignal(const std::string& signal, GVariant* body) {
        const auto isSignal = [&](const char* name, const char* type) {
            return signal == name && g_variant_is_of_type(body, G_VARIANT_TYPE(type)) == TRUE;
        };
        gint32 first = 0;
        gint32 value = 0;
        if (isSignal("SpeakerVolumeChanged", "(ii)")) {
            g_variant_get(body, "(ii)", &first, &value);
            OnChange(Property::VOLUME, first, value);
        } else if (isSignal("SpeakerMuteChanged", "(ib)")) {
            g_variant_get(body, "(ib)", &first, &value);
            OnChange(Property::MUTE, first, value);
        } else if (isSignal("SpeakerChangeRequest", "(ii)")) {
            g_variant_get(body, "(ii)", &first, nullptr);
            Json::Value fields;
            fields["route"] = first;
            PrintEvent("request", "change the output to route " + std::to_string(first), fields);
        }
    }

    void OnOwnerChanged(const std::string& owner) {
        if (owner == m_owner) {
            return;
        }
        if (!m_owner.empty()) {
            PrintEvent("gone", "kavreld has left the bus", {});
        }
        m_owner = owner;
        m_hasBegun = true;
        Forget();
        if (!m_owner.empty()) {
            PrintEvent("back", "kavreld is on the bus again", {});
            AskForState();
        }
    }

    /** Forgets the daemon's state, and ignores the answers that are still to come. */
    void Forget() {
        m_state.clear();
        m_isAsking = false;
        ++m_round;
    }

    void AskForState() {
        Forget();
        m_isAsking = true;
        for (const Property property : PROPERTIES) {
            const auto onAnswer = [this, round = m_round, property](const auto& reading, const auto& error) {
                m_loop.Guard([&] { OnAnswer(round, property, reading, error); });
            };
            m_client.ReadLater(GetterOf(property), onAnswer);
        }
    }

    void OnAnswer(unsigned round, Property property, const tools::Reading& reading,
                  const std::optional<tools::ToolError>& error) {
        if (round != m_round) {
            return;
        }
        if (error && !m_hasBegun) {
            throw tools::ToolError(*error);
        }
        if (error) {
            Forget();  // so that the other answers print no further errors
            Json::Value fields;
            fields["message"] = error->what();
            PrintEvent("error", error->what(), fields);
            return;
        }
        m_state[property] = reading;
        if (m_state.size() == PROPERTIES.size()) {
            m_isAsking = false;
            PrintState();
        }
    }

    void OnChange(Property property, int support, int value) {
        const bool isNewSupport =
            !m_state.contains(Property::SUPPORT) || m_state[Property::SUPPORT].value != support;
        for (const auto& [changed, now] :
             {std::pair(Property::SUPPORT, support), std::pair(property, value)}) {
            // An answer that is still to come is at least as new as this change.
            if (!m_isAsking || m_state.contains(changed)) {
                m_state[changed] = {now, 0};
            }
        }
        if (m_isAsking) {
            return;
        }
        if (isNewSupport) {
            PrintProperty(Property::SUPPORT);
        }
        PrintProperty(property);
    }

    void PrintState() {
        m_hasBegun = true;
        Json::Value fields;
        for (const auto& [property, reading] : m_state) {
            AddTo(fields, property, reading);
            if (!m_asJson) {
                PrintProperty(property);
            }
        }
        if (m_asJson) {
            PrintEvent("state", "", fields);
        }
    }

    void PrintProperty(Property property) {
        Json::Value fields;
        AddTo(fields, property, m_state[property]);
        PrintEvent(NameOf(property), InWords(property, m_state[property]), fields);
    }

    /** Prints one line: the words, or the fields together with the event's name and time. */
    void PrintEvent(const char* event, const std::string& words, Json::Value fields,
                    tools::WallTime time = g_get_real_time()) const {
        if (m_asJson) {
            fields["event"] = event;
            fields["time"] = tools::Timestamp(time);
            tools::PrintJson(fields);
            return;
        }
        const std::string when = tools::TimeOfDay(time) + "  ";
        const int room = tools::ColumnsOfOutput() - static_cast<int>(when.size() + EVENT_WIDTH);
        tools::PrintLine(m_style.Dim(when) + Title(event) + tools::Clipped(words, room));
    }

    std::string Title(const std::string& event) const {
        std::string title = event;
        title.resize(EVENT_WIDTH, ' ');
        if (event == "gone" || event == "error") {
            return m_style.Red(title);
        }
        if (event == "back") {
            return m_style.Green(title);
        }
        return event == "call" ? m_style.Blue(title) : m_style.Bold(title);
    }

    const bool m_asJson;
    const tools::Style m_style;
    tools::KavrelClient m_client;
    tools::MainLoop m_loop;
    std::unique_ptr<CallWatch> m_calls;
    /** Unique name of the daemon, empty while it is not on the bus. */
    std::string m_owner;
    std::map<Property, tools::Reading> m_state;
    /** Set until the daemon has answered all questions about its state. Changes are not printed meanwhile: they
     *  are part of the state that is printed then. */
    bool m_isAsking = false;
    /** Counts the rounds of questions: an answer to an earlier round is too late. */
    unsigned m_round = 0;
    /** Set once a state or a change of owner was printed; from then on no missing answer ends the monitor. */
    bool m_hasBegun = false;
};

struct MonitorCommand {
    bool asJson = false;
    bool withCalls = false;

    void AddArguments(CLI::App& command) {
        AddJson(command, asJson);
        command.add_flag("--calls", withCalls,
                         "Show each method call to the daemon, too: its caller,\n"
                         "its answer, and how long it took (may need root)");
    }
    int Run(const Tool& tool) const { return Monitor(asJson, withCalls, tool.Timeout()).Run(); }
};

}  // namespace

void AddMonitorCommand(Tool& tool) {
    tool.Add<MonitorCommand>("monitor",
                             "Show the present state, then every change with its time\n"
                             "It goes on through a restart of the daemon, and ends with Ctrl-C or when its\n"
                             "reader has gone. The daemon does not announce a change of output.",
                             "kavrelctl monitor --json\nkavrelctl monitor --calls");
}

}  // namespace ctl
