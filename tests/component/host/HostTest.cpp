// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "HostTest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace host_test {
namespace {

/** Makes the folder in memory if possible, as on a TV: the tests write much. */
fs::path MakeFolder() {
    constexpr const char* MEMORY = "/dev/shm";
    std::string name =
        (access(MEMORY, W_OK) == 0 ? fs::path(MEMORY) : fs::temp_directory_path()) / "kavrel-host-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    return name;
}

std::string ReadAll(const fs::path& file) {
    std::ifstream stream(file);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/** This process's environment without the platform's variables, then the given ones. */
std::vector<std::string> EnvironmentOf(const Folder& tv, const OtherProcess::Environment& given) {
    OtherProcess::Environment set = given;
    set.try_emplace("KAVREL_TV_DIR", tv.Path());
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        if (!text.starts_with("KAVREL_") && !text.starts_with("JOURNAL_STREAM=")) {
            all.emplace_back(text);
        }
    }
    for (const auto& [name, value] : set) {
        if (value) {
            all.push_back(name + '=' + *value);
        }
    }
    return all;
}

}  // namespace

Folder::Folder() : m_path(MakeFolder()) {}

Folder::~Folder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

void Folder::Put(std::string_view file, const std::string& content) const {
    fs::create_directories((m_path / file).parent_path());
    std::ofstream stream(m_path / file);
    stream << content;
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + std::string(file));
    }
}

std::string Folder::Content(std::string_view file) const {
    return ReadAll(m_path / file);
}

std::set<std::string> Folder::Leftovers(std::string_view folder) const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_path / folder)) {
        const std::string name = entry.path().filename();
        if (name.starts_with('.') && name != ".tmp") {
            names.insert(name);
        }
    }
    for (const std::string& own : folder == "." ? OwnFolders() : std::set<std::string>()) {
        for (const auto& entry : fs::directory_iterator(m_path / own)) {
            names.insert(own + '/' + entry.path().filename().string());
        }
    }
    return names;
}

std::set<std::string> Folder::OwnFolders() const {
    std::set<std::string> folders;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(m_path / ".tmp", none)) {
        folders.insert(".tmp/" + entry.path().filename().string());
    }
    return folders;
}

OtherProcess::OtherProcess(const Folder& tv, const Environment& environment, int errorStream) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    m_in = in[1];
    m_out = out[0];

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const std::string log = m_own / "log";
    if (errorStream == CLOSED) {
        posix_spawn_file_actions_addclose(&actions, STDERR_FILENO);
    } else if (errorStream < 0) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT, 0600);
    } else {
        posix_spawn_file_actions_adddup2(&actions, errorStream, STDERR_FILENO);
    }

    std::string program = HOST_OTHER_PROCESS;
    std::array<char*, 2> arguments = {program.data(), nullptr};
    std::vector<std::string> variables = EnvironmentOf(tv, environment);
    std::vector<char*> pointers;
    for (std::string& variable : variables) {
        pointers.push_back(variable.data());
    }
    pointers.push_back(nullptr);
    const int error =
        posix_spawn(&m_process, program.c_str(), &actions, nullptr, arguments.data(), pointers.data());
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), program);
    }
}

OtherProcess::~OtherProcess() {
    close(m_in);
    close(m_out);
    if (m_process < 0) {
        return;
    }
    int status = 0;
    waitpid(m_process, &status, 0);
    EXPECT_EQ(status, 0) << ReadAll(m_own / "log");
}

std::string OtherProcess::Do(const std::string& line) {
    Tell(line);
    return Answer();
}

void OtherProcess::Tell(const std::string& line) const {
    const std::string text = line + '\n';
    if (write(m_in, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("the other hears nothing");
    }
}

std::string OtherProcess::Answer() {
    for (;;) {
        const std::string line = Line();
        if (line.starts_with("= ")) {
            return line.substr(2);
        }
        m_reports.push_back(line.substr(2));
    }
}

std::string OtherProcess::Report() {
    if (m_reports.empty()) {
        return Line().substr(2);
    }
    const std::string report = m_reports.front();
    m_reports.pop_front();
    return report;
}

void OtherProcess::Kill() {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
    m_process = -1;
}

std::vector<std::string> OtherProcess::Log() const {
    return Lines(ReadAll(m_own / "log"));
}

std::string OtherProcess::Line() {
    std::size_t end = 0;
    while ((end = m_read.find('\n')) == std::string::npos) {
        std::array<char, 4096> chunk;
        const ssize_t count = read(m_out, chunk.data(), chunk.size());
        if (count <= 0) {
            throw std::runtime_error("the other has ended:\n" + ReadAll(m_own / "log"));
        }
        m_read.append(chunk.data(), static_cast<std::size_t>(count));
    }
    const std::string line = m_read.substr(0, end);
    m_read.erase(0, end + 1);
    return line;
}

void Ear::Hear(const std::string& text) {
    const std::lock_guard guard(m_mutex);
    m_heard.push_back(text);
    m_threads.push_back(std::this_thread::get_id());
    m_changed.notify_all();
}

std::vector<std::string> Ear::Heard() const {
    const std::lock_guard guard(m_mutex);
    return m_heard;
}

std::vector<std::thread::id> Ear::Threads() const {
    const std::lock_guard guard(m_mutex);
    return m_threads;
}

void Ear::WaitFor(const std::string& text) const {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return std::find(m_heard.begin(), m_heard.end(), text) != m_heard.end(); });
}

void Ear::Forget() {
    const std::lock_guard guard(m_mutex);
    m_heard.clear();
    m_threads.clear();
}

bool IsAsleep(pid_t thread) {
    const std::string stat = ReadAll("/proc/" + std::to_string(thread) + "/stat");
    const std::size_t name = stat.rfind(") ");
    return name != std::string::npos && stat.at(name + 2) == 'S';
}

pid_t ThreadOf(pid_t process, const std::string& name) {
    for (;;) {
        for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
            if (ReadAll(task.path() / "comm") == name + '\n') {
                return std::stoi(task.path().filename());
            }
        }
        std::this_thread::yield();
    }
}

int Sleeps(pid_t process, pid_t thread) {
    constexpr std::string_view KEY = "\nvoluntary_ctxt_switches:";
    const std::string status =
        ReadAll("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/status");
    return std::stoi(status.substr(status.find(KEY) + KEY.size()));
}

std::map<int, std::string> ContextSwitches(pid_t process) {
    std::map<int, std::string> switches;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::string& counters = switches[std::stoi(task.path().filename())];
        for (const std::string& line : Lines(ReadAll(task.path() / "status"))) {
            if (line.find("ctxt_switches") != std::string::npos) {
                counters += line + '\n';
            }
        }
    }
    return switches;
}

}  // namespace host_test
