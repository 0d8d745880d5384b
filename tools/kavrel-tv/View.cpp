// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "View.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <vector>

#include "KavrelClient.h"
#include "Print.h"

namespace tv {

namespace {

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
    Tree(const Shapes& shapes, const tools::Style& style, int columns)
        : m_shapes(shapes), m_style(style), m_columns(columns) {}

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
    const Shapes& m_shapes;
    const tools::Style& m_style;
    const int m_columns;
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

/** The nodes of one snapshot. */
class Nodes {
public:
    Nodes(const Snapshot& tv, Bars bars, const Shapes& shapes) : m_tv(tv), m_bars(bars), m_shapes(shapes) {}

    std::vector<Node> All() const { return {Output(), Sound(), Multiview(), Connections(), Features()}; }

private:
    Node Output() const {
        Node output = {"output", Described(m_tv.output.route)};
        if (m_tv.output.zone) {
            output.value.Add(", of the zone in focus", FAINT);
        }
        if (m_tv.output.Device() != nullptr) {
            output.children.push_back({"level", Volume(m_tv.device.level, m_tv.device.mute)});
            const Integer& support = m_tv.device.support;
            output.children.push_back(
                {"can", support ? Line(tools::SupportInWords(support.value)) : NoValue(support)});
        }
        return output;
    }

    Node Sound() const {
        return {"sound",
                {},
                {
                    {"route", Described(m_tv.route)},
                    {"volume", Volume(m_tv.volume, m_tv.mute)},
                    {"main gain", Level(m_tv.mainGain, " %")},
                    {"sub gain", Level(m_tv.subGain, " %")},
                }};
    }

    Node Multiview() const {
        Node node = {"multi-view", m_tv.multiview ? Line("on", GOOD) : Line("off")};
        if (m_tv.zones.empty()) {
            node.value.Add(", no zones", FAINT);
        }
        const auto hasFocus = [&](const Zone& zone) { return m_tv.focus && m_tv.focus.value == zone.id; };
        if (m_tv.focus && std::none_of(m_tv.zones.begin(), m_tv.zones.end(), hasFocus)) {
            node.value.Add(", focus on zone " + std::to_string(m_tv.focus.value), NOTED);
        } else if (!m_tv.focus && (!m_tv.focus.IsMissing() || !m_tv.zones.empty())) {
            node.value.Add(", focus ").Add(NoValue(m_tv.focus));
        }
        for (const Zone& zone : m_tv.zones) {
            Line line = Described(zone.route);
            if (hasFocus(zone)) {
                line.Add(", focus", GOOD);
            }
            if (m_tv.subBluetooth && m_tv.subBluetooth.value == zone.id) {
                line.Add(", sub Bluetooth", NOTED);
            }
            node.children.push_back({"zone " + std::to_string(zone.id), line});
        }
        return node;
    }

    Node Connections() const {
        const Integer& zone = m_tv.subBluetooth;
        const bool none = zone.IsMissing() || (zone && zone.value == -1);
        const Line sub = zone ? Line("zone " + std::to_string(zone.value)) : NoValue(zone);
        return {"connections",
                {},
                {
                    {"cable", Switch(m_tv.cable, "out", "in").Add(" (S/PDIF)", FAINT)},
                    {"mobile", Switch(m_tv.mobile, "off", "on").Add(" (TV to mobile)", FAINT)},
                    {"sub-bt", none ? Line("none") : sub},
                    {"projector", Switch(m_tv.projector, "not ready", "ready")},
                    {"popup", Line(m_tv.popup ? "on" : "off", m_tv.popup ? GOOD : PLAIN)},
                }};
    }

    Node Features() const {
        Node node = {"features", Line("(kavreld reads them when it starts)", FAINT)};
        for (const auto& [key, value] : m_tv.features) {
            node.children.push_back({tools::Printable(key), Switch(value, "off", "on")});
        }
        return node;
    }

    /** In one line: the whole TV, with zones and a device, is to fit into 24. */
    Line Volume(const Integer& level, const Integer& mute) const {
        return Level(level, "").Add(", mute ").Add(Mute(mute));
    }

    Line Level(const Integer& level, std::string_view unit) const {
        if (!level) {
            return NoValue(level);
        }
        Line line;
        if (m_bars == Bars::WITH) {
            const int filled = std::clamp(level.value, 0, 100) * BAR_WIDTH / 100;
            for (int i = 0; i < BAR_WIDTH; ++i) {
                line.Add(i < filled ? m_shapes.full : m_shapes.empty, i < filled ? FILLED : FAINT);
            }
            line.Add(" ");
        }
        return line.Add(std::to_string(level.value), BOLD).Add(unit);
    }

    const Snapshot& m_tv;
    const Bars m_bars;
    const Shapes& m_shapes;
};

// --- JSON: null for an integer that is missing or cannot be read

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

Json::Value ToJsonOutput(const Snapshot& tv) {
    Json::Value json;
    json["route"] = ToJsonRoute(tv.output.route);
    json["zone"] = tv.output.zone ? Json::Value(*tv.output.zone) : Json::Value();
    Json::Value& device = json["device"];
    if (const DeviceKind* kind = tv.output.Device(); kind != nullptr) {
        device["kind"] = std::string(kind->name);
        device["support"] = ToJson(tv.device.support);
        device["level"] = ToJson(tv.device.level);
        device["mute"] = ToJsonSwitch(tv.device.mute);
    }
    return json;
}

}  // namespace

std::string Draw(const Snapshot& tv, Bars bars, const tools::Style& style, int columns) {
    const Shapes& shapes = g_get_charset(nullptr) == TRUE ? BOXES : ASCII;
    Line title("TV", BOLD);
    title.Add(" in " + tools::Printable(tv.directory) + ", kavreld ");
    title.Add(tv.ready ? "ready" : "not ready", tv.ready ? GOOD : NOTED);
    return title.Render(style, columns) + Tree(shapes, style, columns).Draw(Nodes(tv, bars, shapes).All());
}

int ColumnsOfOutput() {
    return isatty(STDOUT_FILENO) == 1 ? tools::SizeOfTerminal().columns : std::numeric_limits<int>::max();
}

Json::Value ToJson(const Snapshot& tv) {
    Json::Value json;
    json["directory"] = tools::Printable(tv.directory);
    json["ready"] = tv.ready;
    json["output"] = ToJsonOutput(tv);
    json["route"] = ToJsonRoute(tv.route);
    json["multiview"] = tv.multiview;
    json["zones"] = Json::Value(Json::arrayValue);
    for (const Zone& zone : tv.zones) {
        Json::Value& item = json["zones"].append({});
        item["id"] = zone.id;
        item["route"] = ToJsonRoute(zone.route);
    }
    json["focus"] = ToJson(tv.focus);
    json["volume"] = ToJson(tv.volume);
    json["mute"] = ToJsonSwitch(tv.mute);
    json["main_gain"] = ToJson(tv.mainGain);
    json["sub_gain"] = ToJson(tv.subGain);
    json["cable"] = ToJsonSwitch(tv.cable);
    json["mobile"] = ToJsonSwitch(tv.mobile);
    json["projector"] = ToJsonSwitch(tv.projector);
    json["sub_bt"] = ToJson(tv.subBluetooth.value != -1 ? tv.subBluetooth : Integer());
    json["popup"] = tv.popup;
    json["features"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : tv.features) {
        json["features"][tools::Printable(key)] = ToJsonSwitch(value);
    }
    return json;
}

}  // namespace tv
