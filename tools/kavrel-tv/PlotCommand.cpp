// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gio/gio.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "GLibPtr.h"
#include "Print.h"
#include "ReadFile.h"
#include "Recording.h"
#include "Terminal.h"

namespace tv {

namespace {

constexpr double CLOSEST_MARKS = 0.04;  // of the time shown
constexpr double LEAST_SPAN = 0.1;      // seconds
constexpr int LONGEST_MARK = 24;        // characters, which fit above the panel

/** For a single-quoted string of gnuplot. */
std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char letter : tools::Printable(text)) {
        quoted += letter == '\'' ? "''" : std::string(1, letter);
    }
    return quoted + "'";
}

bool IsMark(const Moment& moment) {
    return !moment.event.empty() && moment.event != "start" && moment.event != "end";
}

/** The last part of a long path says enough beside a line. */
std::string ShortMark(const std::string& event) {
    const std::size_t value = event.find(' ');
    const std::size_t slash = event.rfind('/', value);
    return slash == std::string::npos ? event : event.substr(slash + 1);
}

/**
 * Dashed lines through a panel; the upper one names them. What
 * happens too close for two names shares one.
 */
std::string Marks(const std::vector<Moment>& moments, double closest, bool named) {
    std::ostringstream script;
    std::vector<const Moment*> marks;
    for (const Moment& moment : moments) {
        if (IsMark(moment)) {
            marks.push_back(&moment);
        }
    }
    for (std::size_t i = 0; i < marks.size();) {
        const double seconds = marks[i]->seconds;
        std::string name = tools::Clipped(tools::Printable(ShortMark(marks[i]->event)), LONGEST_MARK);
        const std::size_t first = i;
        while (i < marks.size() && marks[i]->seconds < seconds + closest) {
            ++i;
        }
        name += i - first > 1 ? " +" + std::to_string(i - first - 1) : "";
        script << "set arrow from " << seconds << ", graph 0 to " << seconds
               << ", graph 1 nohead dashtype 3 linecolor rgb '#808080'\n";
        if (named) {
            script << "set label " << Quoted(name) << " at " << seconds
                   << ", graph 1.02 rotate by 35 font ',10' textcolor rgb '#505050' noenhanced\n";
        }
    }
    return script.str();
}

std::string Data(const std::vector<Moment>& moments) {
    std::ostringstream data;
    data << "$data << END_OF_DATA\n";
    for (const Moment& moment : moments) {
        data << moment.seconds;
        for (const auto& value : moment.values) {
            data << ' ' << (value ? std::to_string(*value) : "NaN");
        }
        data << '\n';
    }
    data << "END_OF_DATA\n";
    return data.str();
}

std::string Script(const std::vector<Moment>& moments, const std::string& title) {
    const double begin = moments.front().seconds;
    const double end = std::max(moments.back().seconds, begin + LEAST_SPAN);
    const double closest = (end - begin) * CLOSEST_MARKS;
    const bool hasMarks = std::any_of(moments.begin(), moments.end(), IsMark);
    std::ostringstream script;
    script << Data(moments)
           << "set terminal svg size 960,600 dynamic font 'sans-serif,13' background '#ffffff'\n"
           << "set multiplot title " << Quoted(title) << " noenhanced font ',15'\n"
           << "set xrange [" << begin << ":" << end << "]\n"
           << "set grid linecolor rgb '#e0e0e0'\n"
           << "set lmargin 9\nset rmargin 4\nset key outside bottom center horizontal\n"
           << "set size 1,0.56\nset origin 0,0.40\nset bmargin 3\nset tmargin " << (hasMarks ? 6 : 3) << '\n'
           << "set ylabel 'gain (%)'\nset yrange [-5:105]\nset ytics 20\n"
           << Marks(moments, closest, true)
           << "plot $data using 1:2 with steps linewidth 2.5 linecolor rgb '#0060c0' title 'main output "
              "gain', \\\n"
           << "     $data using 1:3 with steps linewidth 1.5 dashtype 2 linecolor rgb '#e07000' "
              "title 'sub output gain'\n"
           << "unset label\nunset arrow\n"
           << "set size 1,0.40\nset origin 0,0\nset tmargin 1\nset bmargin 5\n"
           << "set ylabel 'volume'\nset xlabel 'time (s)'\n"
           << Marks(moments, closest, false) << "set style fill solid 0.25 noborder\n"
           << "plot $data using 1:($5 == 1 ? 105 : NaN):(-5) with fillsteps linecolor rgb '#c02020' "
              "title 'muted', \\\n"
           << "     $data using 1:4 with steps linewidth 2.5 linecolor rgb '#208040' title 'volume'\n"
           << "unset multiplot\n";
    return script.str();
}

struct ReleaseObject {
    void operator()(void* object) const { g_object_unref(object); }
};

std::string RunGnuplot(const std::string& script) {
    tools::GLibError error;
    const auto flags = static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    const std::unique_ptr<GSubprocess, ReleaseObject> process(
        g_subprocess_new(flags, error, "gnuplot", "-", nullptr));
    if (process == nullptr) {
        throw tools::ToolError(tools::EXIT_REFUSED,
                               "cannot start gnuplot (Debian package gnuplot-nox), which draws the picture");
    }
    char* output = nullptr;
    char* errors = nullptr;
    const bool isDone = g_subprocess_communicate_utf8(process.get(), script.c_str(), nullptr, &output,
                                                      &errors, error) != FALSE;
    const tools::GLibPtr<char> picture(output);
    const tools::GLibPtr<char> complaint(errors);
    if (!isDone || !g_subprocess_get_successful(process.get()) || picture == nullptr) {
        throw tools::ToolError(tools::EXIT_REFUSED,
                               "gnuplot has failed: " + std::string(complaint ? complaint.get() : ""));
    }
    return picture.get();
}

int Plot(const std::string& recording, const std::string& name) {
    const std::vector<Moment> moments = ParseRecording(recording, ReadFile(recording));
    const std::string picture = RunGnuplot(
        Script(moments, "Gains, volume and mute: " + std::filesystem::path(recording).filename().string()));
    tools::GLibError error;
    if (!g_file_set_contents(name.c_str(), picture.data(), static_cast<gssize>(picture.size()), error)) {
        throw tools::ToolError(tools::EXIT_REFUSED, error.Get()->message);
    }
    tools::PrintLine(std::to_string(moments.size()) + " moments drawn in " + tools::Printable(name));
    return tools::EXIT_DONE;
}

}  // namespace

void AddPlot(tools::CommandLine& line) {
    auto recording = std::make_shared<std::string>();
    auto picture = std::make_shared<std::string>();
    CLI::App& plot = line.AddCommand("plot",
                                     "draw a recording as an SVG picture\n\n"
                                     "Both gains above, volume and mute below, and a mark at each event.",
                                     "kavrel-tv plot fade.csv fade.svg",
                                     [recording, picture] { return Plot(*recording, *picture); });
    plot.add_option("FILE.csv", *recording, "of kavrel-tv record")->required();
    plot.add_option("FILE.svg", *picture, "is written anew")->required();
}

}  // namespace tv
