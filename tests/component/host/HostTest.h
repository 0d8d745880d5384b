// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tools for the tests of the host platform: a TV directory, other processes on it, and an ear. */
#ifndef KAVREL_TESTS_HOST_HOSTTEST_H
#define KAVREL_TESTS_HOST_HOSTTEST_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace host_test {

/** A new folder in memory or, without such, below the system's temporary one. Removed at the end. */
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(std::string_view name) const { return m_path / name; }

    /** Writes like `echo`: in place, with a newline. Makes missing folders. */
    void Echo(std::string_view file, const std::string& text) const { Put(file, text + '\n'); }
    void Put(std::string_view file, const std::string& content) const;
    std::string Content(std::string_view file) const;
    /** Names that begin with a dot, but for the folder `.tmp` itself: of that, the files in its folders. */
    std::set<std::string> Leftovers(std::string_view folder) const;
    /** The writers' own folders: their paths below this folder. */
    std::set<std::string> OwnFolders() const;

private:
    const std::filesystem::path m_path;
};

/** Another process on a TV directory. other_process.cpp lists the lines that it understands. */
class OtherProcess {
public:
    /** A variable without a value is not set. */
    using Environment = std::map<std::string, std::optional<std::string>>;
    static constexpr int CLOSED = -2;

    /** @param errorStream standard error of the process, still the caller's to close; -1: a file, see Log(); or CLOSED */
    explicit OtherProcess(const Folder& tv, const Environment& environment = {}, int errorStream = -1);
    /** Closes its input, waits for its end, and fails the test unless its status is 0. */
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /** Sends the line and waits for the answer. Keeps the reports that come before it. */
    std::string Do(const std::string& line);
    void Tell(const std::string& line) const;
    std::string Answer();
    /** Waits for the next report. */
    std::string Report();
    std::deque<std::string> TakeReports() { return std::exchange(m_reports, {}); }

    void Kill();
    pid_t Process() const { return m_process; }
    std::vector<std::string> Log() const;

private:
    std::string Line();

    Folder m_own;
    int m_in = -1;
    int m_out = -1;
    pid_t m_process = -1;
    std::string m_read;
    std::deque<std::string> m_reports;
};

/** Collects what callbacks hear, in order, from any thread. */
class Ear {
public:
    void Hear(const std::string& text);
    std::vector<std::string> Heard() const;
    std::vector<std::thread::id> Threads() const;
    void WaitFor(const std::string& text) const;
    void Forget();

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::vector<std::string> m_heard;
    std::vector<std::thread::id> m_threads;
};

/** Whether a thread of any process sleeps. */
bool IsAsleep(pid_t thread);

/** The thread of a process that has this name, as soon as it has. */
pid_t ThreadOf(pid_t process, const std::string& name);

/** How often a thread of a process has gone to sleep. */
int Sleeps(pid_t process, pid_t thread);

/** How often each thread of a process, by id, has been switched to or from. */
std::map<int, std::string> ContextSwitches(pid_t process);

}  // namespace host_test

#endif
