// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <glib.h>
#include <json/value.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "DirectoryWatch.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Routes.h"
#include "Terminal.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds SHORTEST_FRAME(50);

enum class Bars { WITHOUT, WITH };

using Paint = std::string (tools::Style::*)(std::string_view) const;

constexpr Paint PLAIN = nullptr;
constexpr Paint BOLD = &tools::Style::Bold;
constexpr Paint FAINT = &tools::Style::Dim;
constexpr Paint GOOD = &tools::Style::Green;
constexpr Paint BAD = &tools::Style::Red;
constexpr Paint NOTED = &tools::Style::Yellow;
constexpr Paint FILLED = &tools::Style::Cyan;

constexpr std::size_t LABEL_WIDTH = 19;  // with the branches before it
constexpr std::size_t BRANCH_WIDTH = 3;
constexpr std::size_t LABEL_GAP = 3;
constexpr int BAR_WIDTH = 25;

/** The characters of trees and bars. */
struct Shapes {
    std::string_view branch, lastBranch, trunk, space, full, empty;
};

constexpr Shapes ASCII = {"|- ", "`- ", "|  ", "   ", "#", "."};
constexpr Shapes BOXES = {"├─ ", "└─ ", "│  ", "   ", "█", "░"};

const Shapes& ShapesOfCharset() {
    return g_get_charset(nullptr) == TRUE ? BOXES : ASCII;
}

/** A line in pieces of one colour each. */
class Line {
public:
    Line() = default;
    explicit Line(std::string_view text, Paint paint = PLAIN) { Add(text, paint); }

    Line& Add(std::string_view text, Paint paint = PLAIN) {
        if (m_pieces.empty() || m_pieces.back().paint != paint) {
            m_pieces.push_back({"", paint});
        }
        m_pieces.back().text += text;
        return *this;
    }

    Line& Add(const Line& other) {
        m_pieces.insert(m_pieces.end(), other.m_pieces.begin(), other.m_pieces.end());
        return *this;
    }

    bool IsEmpty() const { return m_pieces.empty(); }

    std::string Render(const tools::Style& style, int columns) const {
        std::string line;
        for (const auto& [text, paint] : m_pieces) {
            const std::string_view shown = Cut(text, columns);
            line += paint != PLAIN && !shown.empty() ? (style.*paint)(shown) : std::string(shown);
        }
        return line + "\n";
    }

private:
    struct Piece {
        std::string text;
        Paint paint;
    };

    /** The part of a valid UTF-8 text that fits into the columns left, and takes it off them. */
    static std::string_view Cut(const std::string& text, int& columns) {
        const char* end = text.c_str();
        for (; *end != '\0' && columns > 0; --columns) {
            end = g_utf8_next_char(end);
        }
        return {text.c_str(), end};
    }

    std::vector<Piece> m_pieces;
};

struct Node {
    std::string label;
    Line value;
    std::vector<Node> children = {};
};

/** Draws nodes below a line, all values below one another unless a label is longer than usual. */
class Tree {
public:
    explicit Tree(const tools::Style& style) : m_style(style) {}

    std::string Draw(const std::vector<Node>& nodes, const std::string& trunk = "",
                     std::size_t depth = 1) const {
        std::string text;
        std::size_t width = LABEL_WIDTH - BRANCH_WIDTH * depth;
        for (const Node& node : nodes) {
            width = std::max(width, node.label.size() + LABEL_GAP);
        }
        for (const Node& node : nodes) {
            const bool isLast = &node == &nodes.back();
            Line line(trunk + std::string(isLast ? m_shapes.lastBranch : m_shapes.branch), FAINT);
            line.Add(node.label);
            if (!node.value.IsEmpty()) {
                line.Add(std::string(width - node.label.size(), ' ')).Add(node.value);
            }
            text += line.Render(m_style, m_columns);
            text +=
                Draw(node.children, trunk + std::string(isLast ? m_shapes.space : m_shapes.trunk), depth + 1);
        }
        return text;
    }

private:
    const Shapes& m_shapes = ShapesOfCharset();
    const tools::Style& m_style;
    const int m_columns = tools::ColumnsOfOutput();
};

// --- Values in words

Line NoValue(const Integer& number) {
    return number.IsMissing() ? Line("not set", FAINT) : Line("unreadable", BAD);
}

Line Switch(const Integer& number, std::string_view off, std::string_view on) {
    if (!number) {
        return NoValue(number);
    }
    return number.value == 0 ? Line(off) : Line(on, GOOD);
}

Line Mute(const Integer& mute) {
    return mute && mute.value != 0 ? Line("on", NOTED) : Switch(mute, "off", "on");
}

/** "2 hdmi, HDMI receiver" */
Line Described(const Integer& route) {
    if (!route) {
        return NoValue(route);
    }
    const Route* known = FindRoute(route.value);
    return Line(std::to_string(route.value) + " " + std::string(NameOfRoute(route.value)) +
                (known != nullptr ? ", " + std::string(known->words) : ""));
}

Line Level(const Integer& level, Bars bars, std::string_view unit = "") {
    if (!level) {
        return NoValue(level);
    }
    Line line;
    if (bars == Bars::WITH) {
        const Shapes& shapes = ShapesOfCharset();
        const int filled = std::clamp(level.value, 0, 100) * BAR_WIDTH / 100;
        for (int i = 0; i < BAR_WIDTH; ++i) {
            line.Add(i < filled ? shapes.full : shapes.empty, i < filled ? FILLED : FAINT);
        }
        line.Add(" ");
    }
    return line.Add(std::to_string(level.value), BOLD).Add(unit);
}

/** In one line: the whole TV, with zones and a device, is to fit into 24. */
Line Volume(const host::Value& level, const host::Value& mute, Bars bars) {
    return Level(ReadInteger(level), bars).Add(", mute ").Add(Mute(ReadInteger(mute)));
}

// --- The branches of the tree

Node Output(Bars bars) {
    const OutputInUse output = ReadOutput();
    Node node = {"output", Described(output.route)};
    if (output.zone) {
        node.value.Add(", of the zone in focus", FAINT);
    }
    if (const DeviceKind* device = output.Device(); device != nullptr) {
        const Integer support = ReadInteger(device->support);
        node.children = {
            {"level", Volume(device->level, device->mute, bars)},
            {"can", support ? Line(tools::SupportInWords(support.value)) : NoValue(support)},
        };
    }
    return node;
}

Node Sound(Bars bars) {
    return {"sound",
            {},
            {
                {"route", Described(ReadInteger(host::ROUTE))},
                {"volume", Volume(host::MASTER_VOLUME, host::MASTER_MUTE, bars)},
                {"main gain", Level(ReadInteger(host::MAIN_OUT_GAIN), bars, " %")},
                {"sub gain", Level(ReadInteger(host::SUB_OUT_GAIN), bars, " %")},
            }};
}

Node Multiview() {
    Node node = {"multi-view", IsMultiviewOn() ? Line("on", GOOD) : Line("off")};
    const std::vector<Zone> zones = ReadZones();
    const Integer focus = ReadInteger(host::FOCUS);
    const Integer subBluetooth = ReadInteger(host::SUB_BLUETOOTH_ZONE);
    if (zones.empty()) {
        node.value.Add(", no zones", FAINT);
    }
    const auto hasFocus = [&](const Zone& zone) { return focus && focus.value == zone.id; };
    if (focus && std::none_of(zones.begin(), zones.end(), hasFocus)) {
        node.value.Add(", focus on zone " + std::to_string(focus.value), NOTED);
    } else if (!focus && (!focus.IsMissing() || !zones.empty())) {
        node.value.Add(", focus ").Add(NoValue(focus));
    }
    for (const Zone& zone : zones) {
        Line line = Described(zone.route);
        if (hasFocus(zone)) {
            line.Add(", focus", GOOD);
        }
        if (subBluetooth && subBluetooth.value == zone.id) {
            line.Add(", sub Bluetooth", NOTED);
        }
        node.children.push_back({"zone " + std::to_string(zone.id), line});
    }
    return node;
}

Node Connections() {
    const auto shown = [](const host::Value& value, std::string_view off, std::string_view on) {
        return Switch(ReadInteger(value), off, on);
    };
    const Integer zone = ReadInteger(host::SUB_BLUETOOTH_ZONE);
    const bool none = zone.IsMissing() || (zone && zone.value == -1);
    const Line sub = zone ? Line("zone " + std::to_string(zone.value)) : NoValue(zone);
    const bool popup = IsDone(host::POPUP_EVENT);
    return {"connections",
            {},
            {
                {"cable", shown(host::OPTICAL_CABLE, "out", "in").Add(" (S/PDIF)", FAINT)},
                {"mobile", shown(host::MOBILE_MIRRORING, "off", "on").Add(" (TV to mobile)", FAINT)},
                {"sub-bt", none ? Line("none") : sub},
                {"projector", shown(host::PROJECTOR_READY, "not ready", "ready")},
                {"popup", Line(popup ? "on" : "off", popup ? GOOD : PLAIN)},
            }};
}

Node Features() {
    Node node = {"features", Line("(kavreld reads them when it starts)", FAINT)};
    for (const auto& [key, value] : ReadFeatures()) {
        node.children.push_back({tools::Printable(key), Switch(value, "off", "on")});
    }
    return node;
}

/** The open TV as a tree with a line for each value and what it means, each line cut at the last column. */
std::string Draw(Bars bars, const tools::Style& style) {
    const bool isReady = IsDone(host::READY_EVENT);
    Line title("TV", BOLD);
    title.Add(" in " + tools::Printable(host::Root().string()) + ", kavreld ");
    title.Add(isReady ? "ready" : "not ready", isReady ? GOOD : NOTED);
    return title.Render(style, tools::ColumnsOfOutput()) +
           Tree(style).Draw({Output(bars), Sound(bars), Multiview(), Connections(), Features()});
}

// --- JSON

Json::Value ToJson(const Integer& integer) {
    return integer ? Json::Value(integer.value) : Json::Value();
}

Json::Value ToJsonSwitch(const Integer& integer) {
    return integer ? Json::Value(integer.value != 0) : Json::Value();
}

Json::Value ToJsonRoute(const Integer& route) {
    Json::Value json;
    if (route) {
        json["code"] = route.value;
        json["name"] = std::string(NameOfRoute(route.value));
    }
    return json;
}

Json::Value ToJsonOutput(const OutputInUse& output) {
    Json::Value json;
    json["route"] = ToJsonRoute(output.route);
    json["zone"] = output.zone ? Json::Value(*output.zone) : Json::Value();
    Json::Value& device = json["device"];
    if (const DeviceKind* kind = output.Device(); kind != nullptr) {
        device["kind"] = std::string(kind->name);
        device["support"] = ToJson(ReadInteger(kind->support));
        device["level"] = ToJson(ReadInteger(kind->level));
        device["mute"] = ToJsonSwitch(ReadInteger(kind->mute));
    }
    return json;
}

/** The same facts; a value that is missing or cannot be read is null. */
Json::Value ToJson() {
    Json::Value json;
    json["directory"] = tools::Printable(host::Root().string());
    json["ready"] = IsDone(host::READY_EVENT);
    json["output"] = ToJsonOutput(ReadOutput());
    json["route"] = ToJsonRoute(ReadInteger(host::ROUTE));
    json["multiview"] = IsMultiviewOn();
    json["zones"] = Json::Value(Json::arrayValue);
    for (const Zone& zone : ReadZones()) {
        Json::Value& item = json["zones"].append({});
        item["id"] = zone.id;
        item["route"] = ToJsonRoute(zone.route);
    }
    for (const auto& [key, value] : {std::pair("focus", host::FOCUS),
                                     {"volume", host::MASTER_VOLUME},
                                     {"main_gain", host::MAIN_OUT_GAIN},
                                     {"sub_gain", host::SUB_OUT_GAIN}}) {
        json[key] = ToJson(ReadInteger(value));
    }
    for (const auto& [key, value] : {std::pair("mute", host::MASTER_MUTE),
                                     {"cable", host::OPTICAL_CABLE},
                                     {"mobile", host::MOBILE_MIRRORING},
                                     {"projector", host::PROJECTOR_READY}}) {
        json[key] = ToJsonSwitch(ReadInteger(value));
    }
    const Integer subBluetooth = ReadInteger(host::SUB_BLUETOOTH_ZONE);
    json["sub_bt"] = ToJson(subBluetooth.value != -1 ? subBluetooth : Integer());
    json["popup"] = IsDone(host::POPUP_EVENT);
    json["features"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : ReadFeatures()) {
        json["features"][tools::Printable(key)] = ToJsonSwitch(value);
    }
    return json;
}

// --- The commands

struct ShowCommand {
    bool asJson = false;

    void AddOptions(CLI::App& command) {
        command.add_flag("--json", asJson, "Print one object on one line; null: not set or unreadable");
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        if (asJson) {
            tools::PrintJson(ToJson());
        } else {
            tools::Print(Draw(Bars::WITHOUT, tools::Style()));
        }
        return tools::EXIT_DONE;
    }
};

/** Shows the TV and, whenever something has changed, shows it anew. */
class LiveView {
public:
    LiveView(tools::MainLoop& loop, bool asJson) : m_loop(loop), m_asJson(asJson) { Show(); }

    void Suspend() {
        if (m_screen) {
            m_screen->Suspend();
        } else {
            kill(getpid(), SIGSTOP);
        }
        Changed();
    }

    void Changed() {
        if (m_next) {
            return;
        }
        const auto passed = std::chrono::duration_cast<milliseconds>(Clock::now() - m_shown);
        m_next = m_loop.After(std::max(SHORTEST_FRAME - passed, milliseconds(0)), [this] { Show(); });
    }

private:
    void Show() {
        m_next.reset();
        m_shown = Clock::now();
        if (m_asJson) {
            tools::PrintJson(ToJson());
        } else {
            m_screen->Show(Draw(Bars::WITH, m_style));
        }
    }

    tools::MainLoop& m_loop;
    const bool m_asJson;
    const std::unique_ptr<tools::FullScreen> m_screen =
        m_asJson ? nullptr : std::make_unique<tools::FullScreen>();
    const tools::Style m_style;
    Clock::time_point m_shown;
    tools::GLibPtr<GSource> m_next;  // the frame to come
};

/** Ctrl-Z, which the main loop does not know: it can be read from a file instead of being acted upon. */
class SuspendSignal {
public:
    SuspendSignal() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTSTP);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        m_file = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~SuspendSignal() { close(m_file); }
    SuspendSignal(const SuspendSignal&) = delete;
    SuspendSignal& operator=(const SuspendSignal&) = delete;

    int File() const { return m_file; }
    bool Take() const {
        signalfd_siginfo info = {};
        return read(m_file, &info, sizeof(info)) > 0;
    }

private:
    int m_file = -1;
};

struct WatchCommand {
    bool asJson = false;

    void AddOptions(CLI::App& command) {
        command.add_flag("--json", asJson, "Print an object on a line of its own for each change");
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        loop.EndWithReader();
        std::unique_ptr<LiveView> view;
        // Everything is watched before the first look, so that no change in between is lost.
        const DirectoryWatch changes(loop, directory,
                                     [&](DirectoryWatch::Event, const std::string&) { view->Changed(); });
        const auto resized = loop.OnSignal(SIGWINCH, [&] { view->Changed(); });
        const SuspendSignal suspension;
        const auto suspended = loop.WhenReadable(suspension.File(), [&] {
            if (suspension.Take()) {
                view->Suspend();
            }
        });
        view = std::make_unique<LiveView>(loop, asJson);
        return loop.RunUntilInterrupted();
    }
};

}  // namespace

void AddShowAndWatch(tools::CommandLine& line, const std::string& directory) {
    AddCommand<ShowCommand>(
        line, directory,
        {"show",
         "Show the whole TV on one screen\n\n"
         "A setting that nobody has written yet is \"not set\"; a value that is not one of\n"
         "its kind is \"unreadable\".",
         "kavrel-tv show --json"});
    AddCommand<WatchCommand>(line, directory,
                             {"watch",
                              "Show the TV live, with bars, until Ctrl-C\n\n"
                              "The screen is drawn again after each change, at most 20 times a second.",
                              "kavrel-tv watch"});
}

}  // namespace tv
