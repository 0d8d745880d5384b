// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <string>

#include "Commands.h"
#include "DirectoryWatch.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Recording.h"
#include "Routes.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;

/** Writes a line for each change on the open TV, at once. */
class Recorder {
public:
    Recorder(tools::MainLoop& loop, const std::string& directory, const std::string& name)
        : m_name(name),
          m_file(name, std::ios::binary | std::ios::trunc),
          m_watch(loop, directory,
                  [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); }) {
        Write(RecordingHeader());
        Record("start");
    }

    /** Writes a line, unless there is neither an event nor a change of the values. */
    void Record(const std::string& event) {
        Sample sample{std::chrono::duration<double>(Clock::now() - m_start).count(), {}, event};
        for (std::size_t i = 0; i < COLUMNS.size(); ++i) {
            const Integer value = ReadInteger({COLUMNS[i].value.path, host::ANY_INTEGER});
            sample.values[i] = value ? std::optional(value.value) : std::nullopt;
        }
        if (event.empty() && sample.values == m_last) {
            return;
        }
        m_last = sample.values;
        Write(ToLine(sample));
        ++m_count;
    }

    int Count() const { return m_count; }

private:
    void On(DirectoryWatch::Event event, const std::string& path) {
        if (event == DirectoryWatch::Event::LOST) {
            Record("notifications lost");
        } else if (!path.empty()) {
            const bool isColumn = std::any_of(COLUMNS.begin(), COLUMNS.end(), [&](const Column& column) {
                return path == column.value.path;
            });
            const bool isRemoved = event == DirectoryWatch::Event::REMOVED;
            Record(isColumn ? "" : NameOf(path) + " " + (isRemoved ? "removed" : ValueOf(path)));
        }
    }

    /** The verb that changes the value, "zone 2 route" for a zone's route, and else the path. */
    static std::string NameOf(const std::string& path) {
        static const std::string ZONES = std::string(host::ZONES) + "/";
        if (path == host::ROUTE.path) {
            return "route";
        }
        if (path == host::FOCUS.path) {
            return "focus";
        }
        if (!path.starts_with(ZONES)) {
            return path;
        }
        std::string name = "zone " + path.substr(ZONES.size());
        std::replace(name.begin(), name.end(), '/', ' ');
        return name;
    }

    static std::string ValueOf(const std::string& path) {
        if (const Integer route = ReadInteger({path, host::ANY_INTEGER}); route && path.ends_with("/route")) {
            return std::string(NameOfRoute(route.value));
        }
        std::string text;
        return host::Read({path, host::TEXT}, text) ? "unreadable" : text;
    }

    void Write(const std::string& text) {
        m_file << text << std::flush;
        if (!m_file) {
            throw tools::ToolError(tools::EXIT_REFUSED, "cannot write " + m_name);
        }
    }

    const Clock::time_point m_start = Clock::now();
    const std::string m_name;
    std::ofstream m_file;
    DirectoryWatch m_watch;
    decltype(Sample::values) m_last;
    int m_count = 0;
};

struct RecordCommand {
    std::string file;
    std::optional<double> seconds;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE", file, "The recording; an old one is replaced")->required();
        command.add_option("--seconds", seconds, "End after 0.001 to 86400 seconds (default: at Ctrl-C)")
            ->type_name("S")
            ->transform(tools::DecimalNumber(0.001, 86400));
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        Recorder recorder(loop, directory, file);
        tools::GLibPtr<GSource> end;
        if (seconds) {
            const std::chrono::duration<double> time(*seconds);
            end = loop.After(std::chrono::ceil<std::chrono::milliseconds>(time),
                             [&loop] { loop.Quit(tools::EXIT_DONE); });
        } else {
            tools::Complain("recording until Ctrl-C");
        }
        const int status = loop.RunUntilInterrupted();
        recorder.Record("end");
        tools::PrintLine(std::to_string(recorder.Count()) + " lines in " + tools::Printable(file));
        return status;
    }
};

}  // namespace

void AddRecord(tools::CommandLine& line, const std::string& directory) {
    AddCommand<RecordCommand>(line, directory,
                              {"record",
                               "Record gains, volume and mute over time\n\n"
                               "The recording has comma-separated values, a line for each change: seconds,\n"
                               "main_gain, sub_gain, volume, mute, event.",
                               "kavrel-tv record --seconds 5 fade.csv"});
}

}  // namespace tv
