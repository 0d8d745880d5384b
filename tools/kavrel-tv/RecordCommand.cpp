// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <directory.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
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

/**
 * Writes a line whenever something changes on the open TV;
 * each is in the file when the next thing happens.
 */
class Recorder {
public:
    Recorder(tools::MainLoop& loop, const std::string& directory, const std::string& name)
        : m_name(name),
          m_file(name, std::ios::binary | std::ios::trunc),
          m_watch(loop, directory,
                  [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); }) {
        Write(RecordingHeader());
        Note("start");
    }

    void Note(const std::string& event) {
        Moment moment{std::chrono::duration<double>(Clock::now() - m_start).count(), {}, event};
        for (std::size_t i = 0; i < COLUMNS.size(); ++i) {
            std::string text;
            int value = 0;
            if (!host::Read({COLUMNS[i].path, host::Range{}}, text) &&
                host::ParseInteger(text, {}, value) == 0) {
                moment.values[i] = value;
            }
        }
        if (event.empty() && moment.values == m_last) {
            return;
        }
        m_last = moment.values;
        Write(ToLine(moment));
        ++m_count;
    }

    int Count() const { return m_count; }

private:
    void On(DirectoryWatch::Event event, const std::string& path) {
        if (event == DirectoryWatch::Event::LOST) {
            Note("notifications lost");
        } else if (!path.empty()) {
            const bool isColumn = std::any_of(COLUMNS.begin(), COLUMNS.end(),
                                              [&](const Column& column) { return path == column.path; });
            const bool isRemoved = event == DirectoryWatch::Event::REMOVED;
            Note(isColumn ? "" : NameOf(path) + " " + (isRemoved ? "removed" : ValueOf(path)));
        }
    }

    /** As the verbs call it: "route", "focus", "zone 2 route"; else its path. */
    static std::string NameOf(const std::string& path) {
        static constexpr std::string_view ZONES = "sound/zones/";
        if (path == ROUTE_PATH) {
            return "route";
        }
        if (path == FOCUS_PATH) {
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
        std::string text;
        if (host::Read({path, std::nullopt}, text)) {
            return "unreadable";
        }
        int route = 0;
        const bool isRoute = path.ends_with("/route") && host::ParseInteger(text, {}, route) == 0;
        return isRoute ? std::string(NameOfRoute(route)) : text;
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
    decltype(Moment::values) m_last;
    int m_count = 0;
};

int Record(const std::string& directory, const std::string& name, const std::string& text) {
    const double seconds = text.empty() ? 0 : tools::Decimal("--seconds", text, 0.001, 86400);
    OpenTv(directory);
    tools::MainLoop loop;
    Recorder recorder(loop, directory, name);
    tools::GLibPtr<GSource> end;
    if (seconds > 0) {
        const auto time =
            std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
        end = loop.After(time, [&loop] { loop.Quit(tools::EXIT_DONE); });
    } else {
        tools::Complain("recording until Ctrl-C");
    }
    const int status = loop.RunUntilInterrupted();
    recorder.Note("end");
    tools::PrintLine(std::to_string(recorder.Count()) + " moments in " + tools::Printable(name));
    return status;
}

}  // namespace

void AddRecord(tools::CommandLine& line, const Options& options) {
    auto file = std::make_shared<std::string>();
    auto seconds = std::make_shared<std::string>();
    CLI::App& record =
        line.AddCommand("record",
                        "record gains, volume and mute over time\n\n"
                        "Writes comma-separated values, a line for each change: seconds, main_gain,\n"
                        "sub_gain, volume, mute, event. Ends after the given time, or at Ctrl-C.",
                        "kavrel-tv record --seconds 5 fade.csv",
                        [&options, file, seconds] { return Record(options.directory, *file, *seconds); });
    record.add_option("FILE", *file, "is written anew")->required();
    record.add_option("--seconds", *seconds, "for how long, 0.001 to 86400; without it: until Ctrl-C")
        ->type_name("S");
}

}  // namespace tv
