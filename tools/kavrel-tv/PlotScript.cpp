// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "PlotScript.h"

#include <CLI/StringTools.hpp>
#include <algorithm>
#include <functional>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <utility>

#include "Print.h"
#include "Routes.h"
#include "Terminal.h"

namespace tv {

namespace {

constexpr double CLOSEST_MARKS = 0.04;  // of the time shown
constexpr double LEAST_SPAN = 0.1;      // seconds
constexpr int LONGEST_MARK = 24;        // characters, which fit above the upper panel

// Pixels
constexpr int WIDTH = 960;
constexpr int TITLE_HEIGHT = 50;
constexpr int MARKS_HEIGHT = 90;
constexpr int GAINS_HEIGHT = 220;
constexpr int VOLUMES_HEIGHT = 160;
constexpr int ROW_HEIGHT = 24;     // of an output
constexpr int LEGEND_HEIGHT = 50;  // below a panel
constexpr int TIMES_HEIGHT = 45;   // below the last panel

constexpr int PRECISION = 12;  // digits of a time

constexpr int LOWEST = -5;  // of the numbers that a panel shows in any case
constexpr int HIGHEST = 105;

constexpr const char* SETTINGS = R"(
set encoding utf8
set grid xtics ytics linetype 1 linecolor rgb '#e0e0e0'
set lmargin at screen 0.12
set rmargin at screen 0.9
set format x ''
)";

constexpr const char* MAIN_GAIN_STYLE = "linewidth 2.5 linecolor rgb '#0060c0'";
constexpr const char* HEARD_STYLE = "linewidth 2 linecolor rgb '#e0a0a0'";
constexpr const char* SUB_GAIN_STYLE = "linewidth 1.5 dashtype 2 linecolor rgb '#e07000'";
constexpr const char* VOLUME_STYLE = "linewidth 2 linecolor rgb '#208040'";
/** As wide as to be seen on both sides of the TV's volume, which it often equals. */
constexpr const char* LEVEL_STYLE = "linewidth 6 linecolor rgb '#d0b0f0'";
constexpr const char* MUTED_STYLE = "linecolor rgb '#c02020' fillstyle solid 0.25 border";
constexpr const char* OUTPUT_STYLE = "linecolor rgb '#6080a0' fillstyle solid 0.5 border";
constexpr const char* OUTPUT_MUTED_STYLE = "linecolor rgb '#c02020' fillstyle solid 0.8 border";

struct Recording {
    const std::vector<Sample>& samples;
    double begin;  // of the time shown, in seconds
    double end;
};

/** A drawing over the whole time shown. */
struct Panel {
    int height = 0;             // pixels
    std::string data = {};      // blocks of numbers that the plots use
    std::string settings = {};  // of the axis on the left
    std::vector<std::string> plots = {};
};

/** A time in which something holds, and where it is drawn on the axis on the left. */
struct Box {
    double begin;  // seconds
    double end;
    double low;
    double high;
};

/** The text as a string of gnuplot. */
std::string InQuotes(const std::string& text) {
    return "'" + CLI::detail::find_and_replace(tools::Printable(text), "'", "''") + "'";
}

std::string Block(const std::string& name, const std::string& lines) {
    return "$" + name + " << END_OF_DATA\n" + lines + "END_OF_DATA\n";
}

// --- Panels

/** Adds a line unless the recording lacks the values. */
void AddLine(Panel& panel, const Recording& recording, Column column, const std::string& title,
             const std::string& style) {
    const auto hasValue = [=](const Sample& sample) { return sample.values[column].has_value(); };
    if (std::any_of(recording.samples.begin(), recording.samples.end(), hasValue)) {
        const int place = static_cast<int>(column) + 2;  // behind the seconds, counted from 1
        panel.plots.push_back("$samples using 1:" + std::to_string(place) + " with steps title " +
                              InQuotes(title) + " " + style);
    }
}

/** Adds boxes, unless there are none, under a name that no other boxes have. */
void AddBoxes(Panel& panel, const std::string& name, const std::vector<Box>& boxes, const std::string& title,
              const std::string& style) {
    if (boxes.empty()) {
        return;
    }
    std::ostringstream lines;
    lines << std::setprecision(PRECISION);
    for (const Box& box : boxes) {
        lines << box.begin << ' ' << box.end << ' ' << box.low << ' ' << box.high << '\n';
    }
    panel.data += Block(name, lines.str());
    panel.plots.push_back("$" + name + " using (($1+$2)/2):(($3+$4)/2):1:2:3:4 with boxxyerror title " +
                          InQuotes(title) + " " + style);
}

/** A box for each time in which the condition holds: until the sample in which it does not, or to the end. */
void FindBoxes(std::vector<Box>& boxes, const Recording& recording, double low, double high,
               const std::function<bool(const Sample&)>& holds) {
    bool isOpen = false;
    for (const Sample& sample : recording.samples) {
        if (isOpen && !holds(sample)) {
            boxes.back().end = sample.seconds;
        } else if (!isOpen && holds(sample)) {
            boxes.push_back({sample.seconds, recording.end, low, high});
        }
        isOpen = holds(sample);
    }
}

/** Draws the sound so that its loudest window is as high as the gain 100. */
void AddHeard(Panel& panel, const Recording& recording) {
    double loudest = 0;
    for (const Sample& sample : recording.samples) {
        loudest = std::max(loudest, sample.heard.value_or(0));
    }
    if (loudest <= 0) {
        return;
    }
    std::ostringstream lines;
    lines << std::setprecision(PRECISION);
    for (const Sample& sample : recording.samples) {
        if (sample.heard) {
            lines << sample.seconds << ' ' << *sample.heard * 100 / loudest << '\n';
        }
    }
    panel.data += Block("heard", lines.str());
    panel.plots.push_back(std::string("$heard using 1:2 with lines title 'heard' ") + HEARD_STYLE);
}

Panel Gains(const Recording& recording) {
    Panel panel = {.height = GAINS_HEIGHT, .settings = "set ylabel 'gain (%)'\nset ytics 20\n"};
    panel.settings += "set yrange [" + std::to_string(LOWEST) + ":" + std::to_string(HIGHEST) + "]\n";
    AddHeard(panel, recording);
    AddLine(panel, recording, MAIN_GAIN, "main output gain", MAIN_GAIN_STYLE);
    AddLine(panel, recording, SUB_GAIN, "sub output gain", SUB_GAIN_STYLE);
    return panel;
}

Panel Volumes(const Recording& recording) {
    int low = LOWEST;
    int high = HIGHEST;
    for (const Sample& sample : recording.samples) {
        const int level = sample.values[OUTPUT_LEVEL].value_or(0);  // a device may have any
        low = std::min(low, level);
        high = std::max(high, level);
    }
    Panel panel = {.height = VOLUMES_HEIGHT, .settings = "set ylabel 'volume'\nset ytics autofreq\n"};
    panel.settings += "set yrange [" + std::to_string(low) + ":" + std::to_string(high) + "]\n";
    std::vector<Box> muted;
    FindBoxes(muted, recording, low, high, [](const Sample& sample) { return sample.values[MUTE] == 1; });
    AddBoxes(panel, "muted", muted, "TV muted", MUTED_STYLE);
    AddLine(panel, recording, OUTPUT_LEVEL, "output level", LEVEL_STYLE);
    AddLine(panel, recording, VOLUME, "TV volume", VOLUME_STYLE);
    return panel;
}

/** The routes of the outputs, in the order of their first use. */
std::vector<int> RoutesOf(const std::vector<Sample>& samples) {
    std::vector<int> routes;
    for (const Sample& sample : samples) {
        const auto route = sample.values[OUTPUT];
        if (route && std::find(routes.begin(), routes.end(), *route) == routes.end()) {
            routes.push_back(*route);
        }
    }
    return routes;
}

/** A row for each output. */
Panel Outputs(const Recording& recording) {
    const std::vector<int> routes = RoutesOf(recording.samples);
    const int rows = static_cast<int>(routes.size());
    std::vector<Box> used;
    std::vector<Box> muted;
    std::vector<std::string> names;
    for (int row = 0; row < rows; ++row) {
        const int route = routes[static_cast<std::size_t>(row)];
        const auto isUsed = [=](const Sample& sample) { return sample.values[OUTPUT] == route; };
        FindBoxes(used, recording, row - 0.35, row + 0.35, isUsed);
        FindBoxes(muted, recording, row - 0.35, row + 0.35,
                  [&](const Sample& sample) { return isUsed(sample) && sample.values[OUTPUT_MUTE] == 1; });
        names.push_back(InQuotes(NameOrCodeOfRoute(route)) + " " + std::to_string(row));
    }
    Panel panel = {.height = rows * ROW_HEIGHT, .settings = "unset ylabel\n"};
    panel.settings += "set ytics (" + tools::Joined(names, ", ") + ")\n";
    panel.settings += "set yrange [" + std::to_string(rows) + "-0.5:-0.5]\n";
    AddBoxes(panel, "used", used, "output in use", OUTPUT_STYLE);
    AddBoxes(panel, "used_muted", muted, "output muted", OUTPUT_MUTED_STYLE);
    return panel;
}

// --- Marks

bool HasMark(const Sample& sample) {
    return !sample.event.empty() && sample.event != "start" && sample.event != "end";
}

/** The event, with the last part alone of a long path. */
std::string MarkOf(const std::string& event) {
    const std::size_t value = event.find(' ');
    const std::size_t slash = event.rfind('/', value);
    return tools::Clipped(tools::Printable(slash == std::string::npos ? event : event.substr(slash + 1)),
                          LONGEST_MARK);
}

/** A dashed line with a name at each event; events that are too close for two names share the first one's. */
void AddMarks(std::ostream& script, const Recording& recording) {
    const double closest = (recording.end - recording.begin) * CLOSEST_MARKS;
    std::vector<Sample> marks;
    std::copy_if(recording.samples.begin(), recording.samples.end(), std::back_inserter(marks), HasMark);
    for (auto first = marks.begin(); first != marks.end();) {
        const double seconds = first->seconds;
        const auto next = std::find_if(first, marks.end(),
                                       [&](const Sample& mark) { return mark.seconds >= seconds + closest; });
        const auto others = next - first - 1;
        const std::string name = MarkOf(first->event) + (others > 0 ? " +" + std::to_string(others) : "");
        script << "set arrow from " << seconds << ", graph 0 to " << seconds
               << ", graph 1 nohead dashtype 3 linecolor rgb '#808080'\n"
               << "set label " << InQuotes(name) << " at " << seconds
               << ", graph 1.02 rotate by 35 font ',10' textcolor rgb '#505050' noenhanced\n";
        first = next;
    }
}

// --- The picture

/** The samples as numbers, with the last values once more at the end, to which their lines are drawn. */
std::string Samples(const Recording& recording) {
    std::ostringstream lines;
    lines << std::setprecision(PRECISION);
    const auto add = [&](double seconds, const Sample& sample) {
        lines << seconds;
        for (const auto& value : sample.values) {
            lines << ' ' << (value ? std::to_string(*value) : "NaN");
        }
        lines << '\n';
    };
    for (const Sample& sample : recording.samples) {
        add(sample.seconds, sample);
    }
    add(recording.end, recording.samples.back());
    return lines.str();
}

std::string Terminal(PictureType type, int height) {
    const std::string size = " size " + std::to_string(WIDTH) + "," + std::to_string(height);
    return type == PictureType::PNG
               ? "set terminal pngcairo" + size + " rounded font 'sans,10' background '#ffffff'\n"
               : "set terminal svg" + size + " dynamic rounded font 'sans-serif,13' background '#ffffff'\n";
}

/** @param top counted from the bottom of the picture, as a part of its height, like the other heights */
void AddPanel(std::ostream& script, const Panel& panel, double top, double bottom, double legend) {
    const std::string plots = panel.plots.empty() ? "NaN notitle" : tools::Joined(panel.plots, ", ");
    script << "set tmargin at screen " << top << "\nset bmargin at screen " << bottom << '\n'
           << panel.settings << "set key at screen 0.51," << legend << " center horizontal maxrows 1\n"
           << "plot " << plots << '\n';
}

}  // namespace

std::string PlotScript(const std::vector<Sample>& samples, const std::string& title, PictureType type) {
    const double begin = samples.front().seconds;
    const Recording recording = {samples, begin, std::max(samples.back().seconds, begin + LEAST_SPAN)};
    std::vector<Panel> panels = {Gains(recording), Volumes(recording)};
    if (Panel outputs = Outputs(recording); !outputs.plots.empty()) {
        panels.push_back(std::move(outputs));
    }
    int y = TITLE_HEIGHT + (std::any_of(samples.begin(), samples.end(), HasMark) ? MARKS_HEIGHT : 0);
    double height = y + TIMES_HEIGHT;
    std::ostringstream script;
    script << std::setprecision(PRECISION) << Block("samples", Samples(recording));
    for (const Panel& panel : panels) {
        height += panel.height + LEGEND_HEIGHT;
        script << panel.data;
    }
    script << Terminal(type, static_cast<int>(height)) << "set multiplot title " << InQuotes(title)
           << " noenhanced font ',15'\n"
           << SETTINGS << "set xrange [" << begin << ":" << recording.end << "]\n";
    AddMarks(script, recording);
    for (const Panel& panel : panels) {
        const bool isLast = &panel == &panels.back();
        const int legend = (isLast ? TIMES_HEIGHT : 0) + LEGEND_HEIGHT / 2;
        script << (isLast ? "set xlabel 'time (s)'\nset format x '%g'\n" : "");
        AddPanel(script, panel, 1 - y / height, 1 - (y + panel.height) / height,
                 1 - (y + panel.height + legend) / height);
        script << "unset label\n";  // the names of the marks are above the first panel
        y += panel.height + LEGEND_HEIGHT;
    }
    script << "unset multiplot\n";
    return script.str();
}

}  // namespace tv
