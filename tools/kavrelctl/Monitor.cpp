// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Monitor.h"

#include <unistd.h>

#include <utility>

#include "CallReport.h"
#include "Errors.h"
#include "Print.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr size_t EVENT_WIDTH = 9;

bool HasType(GVariant* body, const char* type) {
    return g_variant_is_of_type(body, G_VARIANT_TYPE(type)) == TRUE;
}

std::string Coloured(const tools::Style& style, const std::string& event) {
    std::string title = event;
    title.resize(EVENT_WIDTH, ' ');
    if (event == "gone" || event == "error") {
        return style.Red(title);
    }
    if (event == "back") {
        return style.Green(title);
    }
    return event == "call" ? style.Blue(title) : style.Bold(title);
}

}  // namespace

Monitor::Monitor(const Options& options) : m_options(options), m_client(options.timeout) {
    m_loop.EndWithReader();
    m_client.OnOwnerChanged([this](const auto& owner) { m_loop.Guard([&] { OnOwnerChanged(owner); }); });
    m_client.OnSignal([this](const auto& sender, const auto& signal, GVariant* body) {
        m_loop.Guard([&] { OnSignal(sender, signal, body); });
    });
    m_client.OnBusGone([this] {
        m_loop.Guard([] { throw tools::ToolError(tools::EXIT_UNREACHABLE, "the bus has gone"); });
    });
    if (options.withCalls) {
        m_calls = std::make_unique<CallWatch>(m_loop, m_client, options.timeout,
                                              [this](const Call& call) { OnCall(call); });
    }
}

int Monitor::Run() {
    m_owner = m_client.RequireOwner();
    AskForState();
    return m_loop.RunUntilInterrupted();
}

void Monitor::OnSignal(const std::string& sender, const std::string& signal, GVariant* body) {
    if (sender != m_owner) {
        return;
    }
    gint32 first = 0;
    gint32 value = 0;
    if (signal == "SpeakerVolumeChanged" && HasType(body, "(ii)")) {
        g_variant_get(body, "(ii)", &first, &value);
        OnChange(Item::VOLUME, first, value);
    } else if (signal == "SpeakerMuteChanged" && HasType(body, "(ib)")) {
        g_variant_get(body, "(ib)", &first, &value);
        OnChange(Item::MUTE, first, value);
    } else if (signal == "SpeakerChangeRequest" && HasType(body, "(ii)")) {
        g_variant_get(body, "(ii)", &first, nullptr);
        Json::Value fields;
        fields["route"] = first;
        Tell("request", "change the output to route " + std::to_string(first), fields);
    }
}

void Monitor::OnOwnerChanged(const std::string& owner) {
    if (owner == m_owner) {
        return;
    }
    if (!m_owner.empty()) {
        Tell("gone", "kavreld has left the bus", {});
    }
    m_owner = owner;
    m_hasBegun = true;
    Forget();
    if (!m_owner.empty()) {
        Tell("back", "kavreld is on the bus again", {});
        AskForState();
    }
}

void Monitor::OnCall(const Call& call) {
    TellAt(call.time, "call", InWords(call), InJson(call));
}

void Monitor::Forget() {
    m_state.clear();
    m_isAsking = false;
    ++m_asked;
}

void Monitor::AskForState() {
    Forget();
    m_isAsking = true;
    for (const auto& info : ITEMS) {
        m_client.ReadLater(info.getter, [this, asked = m_asked, item = info.item](
                                            const tools::Reading& reading, const auto& error) {
            m_loop.Guard([&] { OnAnswer(asked, item, reading, error); });
        });
    }
}

void Monitor::OnAnswer(unsigned asked, Item item, const tools::Reading& reading,
                       const std::optional<tools::ToolError>& error) {
    if (asked != m_asked) {
        return;
    }
    if (error && !m_hasBegun) {
        throw tools::ToolError(*error);
    }
    if (error) {
        Forget();  // one complaint is enough; from now on changes tell what they tell
        Json::Value fields;
        fields["message"] = error->what();
        Tell("error", error->what(), fields);
        return;
    }
    m_state[item] = reading;
    if (m_state.size() == ITEMS.size()) {
        m_isAsking = false;
        TellState();
    }
}

void Monitor::OnChange(Item item, int support, int value) {
    const bool isNewSupport = !m_state.contains(Item::SUPPORT) || m_state[Item::SUPPORT].value != support;
    for (const auto& [changed, reading] : {std::pair(Item::SUPPORT, support), std::pair(item, value)}) {
        // What is still to be answered will be no older than this.
        if (!m_isAsking || m_state.contains(changed)) {
            m_state[changed] = {reading, 0};
        }
    }
    if (m_isAsking) {
        return;
    }
    if (isNewSupport) {
        TellItem(Item::SUPPORT);
    }
    TellItem(item);
}

void Monitor::TellState() {
    m_hasBegun = true;
    if (m_options.isJson) {
        Json::Value fields;
        for (const auto& [item, reading] : m_state) {
            AddTo(fields, item, reading);
        }
        Tell("state", "", fields);
        return;
    }
    for (const auto& info : ITEMS) {
        TellItem(info.item);
    }
}

void Monitor::TellItem(Item item) {
    Json::Value fields;
    AddTo(fields, item, m_state[item]);
    Tell(InfoOf(item).name, InWords(item, m_state[item]), fields);
}

void Monitor::Tell(const char* event, const std::string& words, Json::Value fields) {
    TellAt(tools::Now(), event, words, std::move(fields));
}

void Monitor::TellAt(tools::WallTime time, const char* event, const std::string& words, Json::Value fields) {
    if (m_options.isJson) {
        fields["event"] = event;
        fields["time"] = tools::Timestamp(time);
        tools::PrintJson(fields);
        return;
    }
    const std::string when = tools::TimeOfDay(time) + "  ";
    const int room = tools::SizeOfTerminal().columns - static_cast<int>(when.size() + EVENT_WIDTH);
    const bool isForPeople = isatty(STDOUT_FILENO) == 1;
    tools::PrintLine(m_style.Dim(when) + Coloured(m_style, event) +
                     (isForPeople ? tools::Clipped(words, room) : words));
}

void AddMonitorCommand(Tool& tool) {
    const auto withCalls = std::make_shared<bool>(false);
    CLI::App& command =
        tool.AddCommand("monitor",
                        "Show the present state, then every change with its time\n"
                        "Goes on through a restart of the daemon; ends with Ctrl-C, or when nobody reads\n"
                        "its output any more. A change of the output is not told over the bus.",
                        "kavrelctl monitor --json\nkavrelctl monitor --calls", [&tool, withCalls] {
                            return Monitor({tool.Timeout(), tool.Json(), *withCalls}).Run();
                        });
    tool.OfferJson(command);
    command.add_flag("--calls", *withCalls,
                     "show who calls which method of the daemon, too, the\n"
                     "answer, and how long it took (may need root)");
}

}  // namespace ctl
