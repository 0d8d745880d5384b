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

/** What trees and bars are drawn with: any terminal knows the one, one with UTF-8 the other. */
struct Shapes {
    std::string_view branch, lastBranch, trunk, space, full, empty;
};

constexpr Shapes ASCII = {"|- ", "`- ", "|  ", "   ", "#", "."};
constexpr Shapes BOXES = {"├─ ", "└─ ", "│  ", "   ", "█", "░"};

const Shapes& ShapesOfTerminal() {
    return g_get_charset(nullptr) == TRUE ? BOXES : ASCII;
}

/** A line in pieces of one colour each. */
class Line {
public:
    Line() = default;
    explicit Line(std::string_view text, Paint paint = PLAIN) { Add(text, paint); }

    Line& Add(std::string_view text, Paint paint = PLAIN) {
        m_pieces.push_back({std::string(text), paint});
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

class Tree {
public:
    Tree(const Shapes& shapes, const tools::Style& style, int columns)
        : m_shapes(shapes), m_style(style), m_columns(columns) {}

    void Root(const Line& line) { m_text += line.Render(m_style, m_columns); }

    void Branches(const std::vector<Node>& nodes, const std::string& trunk = "", std::size_t depth = 1) {
        const std::size_t width = WidthOfLabels(nodes, depth);
        for (const Node& node : nodes) {
            const bool isLast = &node == &nodes.back();
            Line line(trunk + std::string(isLast ? m_shapes.lastBranch : m_shapes.branch), FAINT);
            line.Add(node.label);
            if (!node.value.IsEmpty()) {
                line.Add(std::string(width - node.label.size(), ' ')).Add(node.value);
            }
            m_text += line.Render(m_style, m_columns);
            Branches(node.children, trunk + std::string(isLast ? m_shapes.space : m_shapes.trunk), depth + 1);
        }
    }

    const std::string& Text() const { return m_text; }

private:
    /** All values stand below one another, unless labels are longer than usual: then those beside them. */
    static std::size_t WidthOfLabels(const std::vector<Node>& nodes, std::size_t depth) {
        std::size_t width = LABEL_WIDTH - BRANCH_WIDTH * depth;
        for (const Node& node : nodes) {
            width = std::max(width, node.label.size() + LABEL_GAP);
        }
        return width;
    }

    const Shapes& m_shapes;
    const tools::Style& m_style;
    const int m_columns;
    std::string m_text;
};

// --- Values and what they mean

Line NoValue(const Number& number) {
    return number.IsMissing() ? Line("not set", FAINT) : Line("unreadable", BAD);
}

Line Switch(const Number& number, std::string_view off, std::string_view on) {
    if (!number) {
        return NoValue(number);
    }
    return number.value == 0 ? Line(off) : Line(on, GOOD);
}

Line Mute(const Number& mute) {
    return mute && mute.value != 0 ? Line("on", NOTED) : Switch(mute, "off", "on");
}

Line Described(const Number& route) {
    return route ? Line(DescribeRoute(route.value)) : NoValue(route);
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
            const Number& support = m_tv.device.support;
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
        if (m_tv.focus && !HasZone(m_tv.focus.value)) {
            node.value.Add(", focus on zone " + std::to_string(m_tv.focus.value), NOTED);
        } else if (!m_tv.focus && (!m_tv.focus.IsMissing() || !m_tv.zones.empty())) {
            node.value.Add(", focus ").Add(NoValue(m_tv.focus));
        }
        for (const Zone& zone : m_tv.zones) {
            Line line = Described(zone.route);
            if (m_tv.focus && m_tv.focus.value == zone.id) {
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
        const Number& zone = m_tv.subBluetooth;
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

    bool HasZone(int id) const {
        return std::any_of(m_tv.zones.begin(), m_tv.zones.end(),
                           [&](const Zone& zone) { return zone.id == id; });
    }

    /** In one line: the whole TV, with zones and a device, is to fit into 24. */
    Line Volume(const Number& level, const Number& mute) const {
        return Level(level, "").Add(", mute ").Add(Mute(mute));
    }

    Line Level(const Number& level, std::string_view unit) const {
        if (!level) {
            return NoValue(level);
        }
        Line line;
        if (m_bars == Bars::WITH) {
            const int filled = std::clamp(level.value, 0, 100) * BAR_WIDTH / 100;
            line.Add(Repeated(m_shapes.full, filled), FILLED);
            line.Add(Repeated(m_shapes.empty, BAR_WIDTH - filled), FAINT).Add(" ");
        }
        return line.Add(std::to_string(level.value), BOLD).Add(unit);
    }

    static std::string Repeated(std::string_view shape, int count) {
        std::string text;
        for (; count > 0; --count) {
            text += shape;
        }
        return text;
    }

    const Snapshot& m_tv;
    const Bars m_bars;
    const Shapes& m_shapes;
};

// --- JSON

Json::Value ToJson(const Number& number) {
    return number ? Json::Value(number.value) : Json::Value();
}

Json::Value ToJsonSwitch(const Number& number) {
    return number ? Json::Value(number.value != 0) : Json::Value();
}

Json::Value ToJsonRoute(const Number& route) {
    if (!route) {
        return {};
    }
    Json::Value json;
    json["code"] = route.value;
    json["name"] = std::string(NameOfRoute(route.value));
    return json;
}

Json::Value ToJsonOutput(const Snapshot& tv) {
    Json::Value json;
    json["route"] = ToJsonRoute(tv.output.route);
    json["zone"] = tv.output.zone ? Json::Value(*tv.output.zone) : Json::Value();
    const DeviceKind* kind = tv.output.Device();
    if (kind != nullptr) {
        Json::Value& device = json["device"];
        device["kind"] = std::string(kind->name);
        device["support"] = ToJson(tv.device.support);
        device["level"] = ToJson(tv.device.level);
        device["mute"] = ToJsonSwitch(tv.device.mute);
    } else {
        json["device"] = Json::Value();
    }
    return json;
}

Json::Value ToJsonZones(const std::vector<Zone>& zones) {
    Json::Value json(Json::arrayValue);
    for (const Zone& zone : zones) {
        Json::Value item;
        item["id"] = zone.id;
        item["route"] = ToJsonRoute(zone.route);
        json.append(item);
    }
    return json;
}

Json::Value ToJsonFeatures(const Snapshot& tv) {
    Json::Value json(Json::objectValue);
    for (const auto& [key, value] : tv.features) {
        json[tools::Printable(key)] = ToJsonSwitch(value);
    }
    return json;
}

}  // namespace

std::string Draw(const Snapshot& tv, Bars bars, const tools::Style& style, int columns) {
    const Shapes& shapes = ShapesOfTerminal();
    Tree tree(shapes, style, columns);
    Line title("TV", BOLD);
    title.Add(" in " + tools::Printable(tv.directory) + ", kavreld ");
    title.Add(tv.ready ? "ready" : "not ready", tv.ready ? GOOD : NOTED);
    tree.Root(title);
    tree.Branches(Nodes(tv, bars, shapes).All());
    return tree.Text();
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
    json["zones"] = ToJsonZones(tv.zones);
    json["focus"] = ToJson(tv.focus);
    json["volume"] = ToJson(tv.volume);
    json["mute"] = ToJsonSwitch(tv.mute);
    json["main_gain"] = ToJson(tv.mainGain);
    json["sub_gain"] = ToJson(tv.subGain);
    json["cable"] = ToJsonSwitch(tv.cable);
    json["mobile"] = ToJsonSwitch(tv.mobile);
    json["projector"] = ToJsonSwitch(tv.projector);
    const bool hasSub = tv.subBluetooth && tv.subBluetooth.value != -1;
    json["sub_bt"] = hasSub ? Json::Value(tv.subBluetooth.value) : Json::Value();
    json["popup"] = tv.popup;
    json["features"] = ToJsonFeatures(tv);
    return json;
}

std::string DescribeRoute(int code) {
    const Route* route = FindRoute(code);
    const std::string words = route != nullptr ? ", " + std::string(route->words) : "";
    return std::to_string(code) + " " + std::string(NameOfRoute(code)) + words;
}

}  // namespace tv
