// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Settings.h"

#include <Platform.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "Errors.h"
#include "Print.h"

namespace sound {

namespace {

/** No value of the TV has a name with a dot in front. */
std::string FileName() {
    return host::Root() / ".sound";
}

constexpr mode_t FILE_MODE = 0660;  // for the group audio, as all files of the TV directory

[[noreturn]] void Fail(const std::string& action) {
    const int error = errno;
    tv::ThrowIfFailed(host::MakeError(action, FileName(), error));
    throw std::logic_error("no error");
}

struct flock WholeFile() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool IsLocked(int file) {
    struct flock lock = WholeFile();
    return fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

Json::Value ToJson(const Settings& settings) {
    Json::Value json(Json::objectValue);
    json["process"] = getpid();
    json["server"] = settings.server;
    json["outputs"] = Json::Value(Json::arrayValue);
    for (const std::string& output : settings.outputs) {
        json["outputs"].append(output);
    }
    json["sub"] = settings.sub;
    json["latency"] = settings.latency;
    json["default"] = settings.isDefault;
    json["smoothing"] = !settings.isRough;
    return json;
}

/** @throws Json::Exception if it is not what ToJson() has made */
Claim::Holder FromJson(const Json::Value& json) {
    Claim::Holder holder{
        json["process"].asInt(), {}, json["defaultSink"].asString(), json["guarding"].asBool()};
    holder.settings.server = json["server"].asString();
    for (const Json::Value& output : json["outputs"]) {
        std::string option = output.asString();
        if (OutputOption()(option).empty()) {
            holder.settings.outputs.push_back(option);
        }
    }
    holder.settings.sub = json["sub"].asString();
    holder.settings.latency = json["latency"].asInt();
    holder.settings.isDefault = json["default"].asBool();
    holder.settings.isRough = !json["smoothing"].asBool();
    return holder;
}

/** Reads what a bridge has written, which may run no longer. */
std::optional<Claim::Holder> ReadHolder() {
    try {
        Json::Value json;
        const std::string text = tv::ReadFile(FileName());
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (reader->parse(text.data(), text.data() + text.size(), &json, nullptr)) {
            return FromJson(json);
        }
    } catch (const Json::Exception&) {
        // No bridge has written that.
    } catch (const tools::ToolError&) {
        // It cannot be read.
    }
    return std::nullopt;
}

}  // namespace

void Settings::AddOptions(CLI::App& app) {
    app.add_option("--server", server, "Name the sound server (default: the one that pactl finds)")
        ->type_name("S");
    app.add_option("--output", outputs, "Play a route on a sink; for each route once")
        ->type_name("ROUTE=SINK")
        ->allow_extra_args(false)
        ->transform(OutputOption());
    app.add_option("--sub", sub, "Play the sub output on a sink")->type_name("SINK")->transform(SinkOption());
    app.add_option("--latency", latency, "Let the sound be late by so many milliseconds (default: 60)")
        ->type_name("MS")
        ->transform(tools::WholeNumber(1, 2000));
    app.add_flag("--default", isDefault, "Make \"kavrel\" the default sink");
    app.add_flag("--no-smoothing", isRough, "Change gains in the daemon's own steps");
}

Claim::Claim(const Settings& settings)
    : m_file(open(FileName().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, FILE_MODE)),
      m_settings(settings) {
    struct flock lock = WholeFile();
    if (!m_file) {
        Fail("open");
    }
    if (fcntl(m_file.Get(), F_OFD_SETLK, &lock) != 0) {
        const auto holder = Find();
        const std::string process = holder ? " (process " + std::to_string(holder->process) + ")" : "";
        throw tools::ToolError(tools::EXIT_REFUSED,
                               "another kavrel-sound" + process + " plays this TV already");
    }
    static_cast<void>(fchmod(m_file.Get(), FILE_MODE));  // only the owner of the file may
    if (const auto last = ReadHolder()) {
        m_defaultSink = last->defaultSink;
        m_isGuarding = last->isGuarding;
    }
    if (!Write()) {
        Fail("write");
    }
}

void Claim::NoteDefaultSink(const std::string& sink) {
    if (m_defaultSink != sink) {
        m_defaultSink = sink;
        static_cast<void>(Write());
    }
}

void Claim::NoteGuard(bool isGuarding) {
    m_isGuarding = isGuarding;
    static_cast<void>(Write());
}

/** Writes before it shortens the file, so that a reader never finds it empty. */
bool Claim::Write() const {
    Json::Value json = ToJson(m_settings);
    json["defaultSink"] = m_defaultSink;
    json["guarding"] = m_isGuarding;
    const std::string text = tools::JsonLine(json) + "\n";
    return pwrite(m_file.Get(), text.data(), text.size(), 0) >= 0 &&
           ftruncate(m_file.Get(), static_cast<off_t>(text.size())) == 0;
}

std::optional<Claim::Holder> Claim::Find() {
    const host::FileDescriptor file(open(FileName().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file || !IsLocked(file.Get())) {
        return std::nullopt;
    }
    return ReadHolder();
}

}  // namespace sound
