// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recorder.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "CommandLine.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Routes.h"

namespace tv {

namespace {

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

}  // namespace

void RecordingOptions::AddFile(CLI::App& command, const std::string& name) {
    command.add_option(name, file, "The recording, an old one is replaced;\n- for standard output")
        ->required();
}

Recorder::Recorder(tools::MainLoop& loop, std::string name, Content content)
    : m_loop(loop),
      m_name(std::move(name)),
      m_hasSound(content == Content::CHANGES_AND_SOUND),
      m_watch(loop, host::Root(),
              [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); }) {
    if (m_name != STANDARD_OUTPUT) {
        m_file.open(m_name, std::ios::binary | std::ios::trunc);
    }
    for (const DeviceKind& kind : DeviceKinds()) {
        m_support[kind.support.path] = ValueOf(kind.support.path);
    }
    Write(RecordingHeader(m_hasSound));
    Record("start", m_start);
}

void Recorder::On(DirectoryWatch::Event event, const std::string& path) {
    if (event == DirectoryWatch::Event::LOST) {
        Record("notifications lost", Clock::now());
    } else if (!path.empty()) {
        const std::string value = event == DirectoryWatch::Event::REMOVED ? "removed" : ValueOf(path);
        const bool isEvent = !HasColumn(path) && !IsOldSupport(path, value);
        Record(isEvent ? NameOf(path) + " " + value : "", Clock::now());
    }
}

/** Takes down a line, unless there is neither an event nor a change of the values. */
void Recorder::Record(const std::string& event, Clock::time_point time) {
    const Sample sample{SecondsAt(time), ReadValues(), std::nullopt, event};
    if (event.empty() && sample.values == m_last.values) {
        return;
    }
    m_last = sample;
    if (m_hasSound && event != "start") {
        m_waiting.push_back(sample);
    } else {
        Write(sample);
    }
}

/** Whether this is the support word that the file held before: a device writes it with each answer. */
bool Recorder::IsOldSupport(const std::string& path, const std::string& value) {
    const auto support = m_support.find(path);
    return support != m_support.end() && std::exchange(support->second, value) == value;
}

void Recorder::Hear(Clock::time_point end, double heard) {
    const double seconds = SecondsAt(end);
    while (!m_waiting.empty() && m_waiting.front().seconds <= seconds) {
        Write(m_waiting.front());
        m_waiting.pop_front();
    }
    Write({std::max(seconds, m_written.seconds), m_written.values, heard, ""});
}

int Recorder::RunFor(std::optional<double> seconds) {
    if (!seconds) {
        tools::Complain("recording until Ctrl-C");
    }
    const int status = m_loop.RunUntilInterrupted(seconds);
    End();
    return status;
}

void Recorder::End() {
    Record("end", Clock::now());
    for (Sample& sample : m_waiting) {
        sample.seconds = std::max(sample.seconds, m_written.seconds);
        Write(sample);
    }
    m_waiting.clear();
    if (m_name != STANDARD_OUTPUT) {
        tools::PrintLine(std::to_string(m_count) + " lines in " + tools::Printable(m_name));
    }
}

double Recorder::SecondsAt(Clock::time_point time) const {
    return std::max(0.0, std::chrono::duration<double>(time - m_start).count());
}

void Recorder::Write(const Sample& sample) {
    m_written = sample;
    Write(ToLine(sample, m_hasSound));
    ++m_count;
}

void Recorder::Write(const std::string& text) {
    if (m_name == STANDARD_OUTPUT) {
        tools::Print(text);
        return;
    }
    m_file << text << std::flush;
    if (!m_file) {
        throw tools::ToolError(tools::EXIT_REFUSED, "cannot write " + m_name);
    }
}

}  // namespace tv
