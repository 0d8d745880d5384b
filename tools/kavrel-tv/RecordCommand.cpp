// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <utility>

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

decltype(Sample::values) ReadValues() {
    const auto number = [](const Integer& integer) {
        return integer ? std::optional(integer.value) : std::nullopt;
    };
    const auto read = [&](const host::Value& value) {
        return number(ReadInteger({value.path, host::ANY_INTEGER}));
    };
    const OutputInUse output = ReadOutput();
    const auto volume = output.Volume();
    return {read(host::MAIN_OUT_GAIN),
            read(host::SUB_OUT_GAIN),
            read(host::MASTER_VOLUME),
            read(host::MASTER_MUTE),
            number(output.route),
            volume ? read(volume->level) : std::nullopt,
            volume ? read(volume->mute) : std::nullopt};
}

/** Whether the value at the path has a column of its own, at the moment. */
bool HasColumn(const std::string& path) {
    const auto volume = ReadOutput().Volume();
    return path == host::MAIN_OUT_GAIN.path || path == host::SUB_OUT_GAIN.path ||
           path == host::MASTER_VOLUME.path || path == host::MASTER_MUTE.path ||
           (volume && (path == volume->level.path || path == volume->mute.path));
}

std::map<std::string, std::string> NamesOfPaths() {
    std::map<std::string, std::string> names = {{host::ROUTE.path, "route"},
                                                {host::FOCUS.path, "focus"},
                                                {host::MULTIVIEW_INFO.path, "multiview"},
                                                {host::OPTICAL_CABLE.path, "cable"},
                                                {host::MOBILE_MIRRORING.path, "mobile"},
                                                {host::PROJECTOR_READY.path, "projector"},
                                                {host::SUB_BLUETOOTH_ZONE.path, "sub-bt"},
                                                {host::LEVEL_REQUEST.path, "level request"},
                                                {host::MUTE_REQUEST.path, "mute request"}};
    for (const DeviceKind& kind : DeviceKinds()) {
        const std::string name(kind.name);
        names[kind.support.path] = name + " support";
        names[kind.level.path] = name + " level";
        names[kind.mute.path] = name + " mute";
    }
    return names;
}

/** The verb that changes the value, "zone 2 route" for a zone's route, "hdmi level" for a device's level, and else
 *  the path. */
std::string NameOf(const std::string& path) {
    static const std::string ZONES = std::string(host::ZONES) + "/";
    static const auto NAMES = NamesOfPaths();
    if (const auto named = NAMES.find(path); named != NAMES.end()) {
        return named->second;
    }
    if (!path.starts_with(ZONES)) {
        return path;
    }
    std::string name = "zone " + path.substr(ZONES.size());
    std::replace(name.begin(), name.end(), '/', ' ');
    return name;
}

/** The present value, in the word of a verb if there is one. */
std::string ValueOf(const std::string& path) {
    static const std::map<std::string, std::array<const char*, 2>> SWITCHES = {
        {host::OPTICAL_CABLE.path, {"out", "in"}},
        {host::MOBILE_MIRRORING.path, {"off", "on"}},
        {host::PROJECTOR_READY.path, {"not-ready", "ready"}}};
    if (path == host::MULTIVIEW_INFO.path) {
        const Json::Value mode = ReadMultiviewInfo()["mode"];
        return mode.isString() ? mode.asString() : "unreadable";
    }
    const Integer number = ReadInteger({path, host::ANY_INTEGER});
    if (number && path.ends_with("/route")) {
        return NameOrCodeOfRoute(number.value);
    }
    const auto words = SWITCHES.find(path);
    if (number && words != SWITCHES.end() && (number.value == 0 || number.value == 1)) {
        return words->second.at(static_cast<std::size_t>(number.value));
    }
    std::string text;
    return host::Read({path, host::TEXT}, text) ? "unreadable" : text;
}

/** Writes a line for each change on the open TV, at once. */
class Recorder {
public:
    Recorder(tools::MainLoop& loop, const std::string& directory, const std::string& name)
        : m_name(name),
          m_watch(loop, directory,
                  [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); }) {
        if (m_name != STANDARD_OUTPUT) {
            m_file.open(m_name, std::ios::binary | std::ios::trunc);
        }
        for (const DeviceKind& kind : DeviceKinds()) {
            m_support[kind.support.path] = ValueOf(kind.support.path);
        }
        Write(RecordingHeader());
        Record("start", m_start);
    }

    /** Writes a line, unless there is neither an event nor a change of the values. */
    void Record(const std::string& event, Clock::time_point time = Clock::now()) {
        const Sample sample{std::chrono::duration<double>(time - m_start).count(), ReadValues(), event};
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
            const std::string value = event == DirectoryWatch::Event::REMOVED ? "removed" : ValueOf(path);
            const bool isEvent = !HasColumn(path) && !IsOldSupport(path, value);
            Record(isEvent ? NameOf(path) + " " + value : "");
        }
    }

    /** Whether this is the support word that the file held before: a device writes it with each answer. */
    bool IsOldSupport(const std::string& path, const std::string& value) {
        const auto support = m_support.find(path);
        return support != m_support.end() && std::exchange(support->second, value) == value;
    }

    void Write(const std::string& text) {
        if (m_name == STANDARD_OUTPUT) {
            tools::Print(text);
            return;
        }
        m_file << text << std::flush;
        if (!m_file) {
            throw tools::ToolError(tools::EXIT_REFUSED, "cannot write " + m_name);
        }
    }

    const Clock::time_point m_start = Clock::now();
    const std::string m_name;
    std::ofstream m_file;
    DirectoryWatch m_watch;
    std::map<std::string, std::string> m_support;  // the last value of each device's support word, by path
    decltype(Sample::values) m_last;
    int m_count = 0;
};

struct RecordCommand {
    std::string file;
    std::optional<double> seconds;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE", file, "The recording, an old one is replaced;\n- for standard output")
            ->required();
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
        if (file != STANDARD_OUTPUT) {
            tools::PrintLine(std::to_string(recorder.Count()) + " lines in " + tools::Printable(file));
        }
        return status;
    }
};

}  // namespace

void AddRecord(tools::CommandLine& line, const std::string& directory) {
    AddCommand<RecordCommand>(
        line, directory,
        {"record",
         "Record gains, volume, mute and the output over time\n\n"
         "The recording has comma-separated values, a line for each change and event:\n"
         "  seconds                     since the recording began\n"
         "  main_gain, sub_gain         of the outputs of the audio hardware, in percent\n"
         "  volume, mute                the TV's master volume, and mute: 1 on, 0 off\n"
         "  output                      the output in use, by the name of its route\n"
         "  output_level, output_mute   its own volume and mute; those of the TV for an\n"
         "                              output that is not external\n"
         "  event                       what else changed; start, end\n"
         "A cell is empty if its value cannot be read, or the output has no volume.",
         "kavrel-tv record --seconds 5 fade.csv"});
}

}  // namespace tv
