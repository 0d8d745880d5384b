// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gio/gio.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Errors.h"
#include "GLibPtr.h"
#include "Platform.h"
#include "Print.h"
#include "Recording.h"
#include "Terminal.h"

namespace tv {

namespace {

constexpr double CLOSEST_MARKS = 0.04;  // of the time shown
constexpr double LEAST_SPAN = 0.1;      // seconds
constexpr int LONGEST_MARK = 24;        // characters, which fit above the panel

constexpr const char* SETTINGS = R"(
set terminal svg size 960,600 dynamic font 'sans-serif,13' background '#ffffff'
set multiplot title title noenhanced font ',15'
set xrange [begin:end]
set grid linecolor rgb '#e0e0e0'
set lmargin 9
set rmargin 4
set key outside bottom center horizontal
)";

/** The gains in the upper panel; volume and mute in the lower one, with the same marks but without their names. */
constexpr const char* PANELS = R"(
set size 1,0.56
set origin 0,0.40
set bmargin 3
set ylabel 'gain (%)'
set yrange [-5:105]
set ytics 20
plot $data using 1:2 with steps linewidth 2.5 linecolor rgb '#0060c0' title 'main output gain', \
     $data using 1:3 with steps linewidth 1.5 dashtype 2 linecolor rgb '#e07000' title 'sub output gain'
unset label
set size 1,0.40
set origin 0,0
set tmargin 1
set bmargin 5
set ylabel 'volume'
set xlabel 'time (s)'
set style fill solid 0.25 noborder
plot $data using 1:($5 == 1 ? 105 : NaN):(-5) with fillsteps linecolor rgb '#c02020' title 'muted', \
     $data using 1:4 with steps linewidth 2.5 linecolor rgb '#208040' title 'volume'
unset multiplot
)";

/** The text as a string of gnuplot. */
std::string InQuotes(const std::string& text) {
    return "'" + CLI::detail::find_and_replace(tools::Printable(text), "'", "''") + "'";
}

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
void AddMarks(std::ostream& script, const std::vector<Sample>& samples, double closest) {
    std::vector<Sample> marks;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(marks), HasMark);
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

void AddData(std::ostream& script, const std::vector<Sample>& samples) {
    script << "$data << END_OF_DATA\n";
    for (const Sample& sample : samples) {
        script << sample.seconds;
        for (const auto& value : sample.values) {
            script << ' ' << (value ? std::to_string(*value) : "NaN");
        }
        script << '\n';
    }
    script << "END_OF_DATA\n";
}

std::string Script(const std::vector<Sample>& samples, const std::string& title) {
    const double begin = samples.front().seconds;
    const double end = std::max(samples.back().seconds, begin + LEAST_SPAN);
    const bool hasMarks = std::any_of(samples.begin(), samples.end(), HasMark);
    std::ostringstream script;
    AddData(script, samples);
    script << "begin = " << begin << "\nend = " << end << "\ntitle = " << InQuotes(title) << SETTINGS
           << "set tmargin " << (hasMarks ? 6 : 3) << '\n';
    AddMarks(script, samples, (end - begin) * CLOSEST_MARKS);
    script << PANELS;
    return script.str();
}

/** Runs the installer that ./run names; its messages go to standard error. */
void InstallGnuplot() {
    const char* const script = R"([ -z "$KAVREL_INSTALL" ] || "$KAVREL_INSTALL" gnuplot-nox >&2)";
    const tools::GLibPtr<GSubprocess> shell(
        g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, nullptr, "/bin/sh", "-c", script, nullptr));
    if (shell != nullptr) {
        g_subprocess_wait(shell.get(), nullptr, nullptr);
    }
}

std::string RunGnuplot(const std::string& script) {
    const tools::GLibPtr<char> program(g_find_program_in_path("gnuplot"));
    if (program == nullptr) {
        InstallGnuplot();
    }
    tools::GLibError error;
    const auto flags = static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    const tools::GLibPtr<GSubprocess> process(g_subprocess_new(flags, error, "gnuplot", "-", nullptr));
    if (process == nullptr) {
        throw tools::ToolError(
            tools::EXIT_REFUSED,
            "cannot start gnuplot, which draws the picture: install the Debian package gnuplot-nox");
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

struct PlotCommand {
    std::string recording;
    std::string picture;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE.csv", recording, "A recording of kavrel-tv record")->required();
        command.add_option("FILE.svg", picture, "The picture; an old one is replaced")->required();
    }

    int Run(const std::string& /*directory*/) const {
        const std::vector<Sample> samples = ParseRecording(recording, ReadFile(recording));
        const std::string title =
            "Gains, volume and mute: " + std::filesystem::path(recording).filename().string();
        const std::string svg = RunGnuplot(Script(samples, title));
        tools::GLibError error;
        if (!g_file_set_contents(picture.c_str(), svg.data(), static_cast<gssize>(svg.size()), error)) {
            throw tools::ToolError(tools::EXIT_REFUSED, error->message);
        }
        tools::PrintLine(std::to_string(samples.size()) + " lines drawn in " + tools::Printable(picture));
        return tools::EXIT_DONE;
    }
};

}  // namespace

void AddPlot(tools::CommandLine& line, const std::string& directory) {
    AddCommand<PlotCommand>(line, directory,
                            {"plot",
                             "Draw a recording as an SVG picture\n\n"
                             "The picture has both gains above, volume and mute below, and a mark at each\n"
                             "event.",
                             "kavrel-tv plot fade.csv fade.svg"});
}

}  // namespace tv
