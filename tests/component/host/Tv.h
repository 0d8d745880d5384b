// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** What the tests of the host platform share: a TV directory, other processes on it, and an ear. */
#ifndef KAVREL_TESTS_HOST_TV_H
#define KAVREL_TESTS_HOST_TV_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace host_test {

/** A folder of its own below the system's temporary one, removed at the end. */
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(std::string_view name) const { return m_path / name; }

    /** As `echo` does it: in place, with a newline. Makes missing folders. */
    void Echo(std::string_view file, const std::string& text) const { Put(file, text + '\n'); }
    void Put(std::string_view file, const std::string& content) const;
    std::string Content(std::string_view file) const;
    /** Names that begin with a dot. */
    std::set<std::string> Leftovers(std::string_view folder) const;

private:
    const std::filesystem::path m_path;
};

/** Another process on a TV directory: see peer.cpp for what it can be told. */
class Peer {
public:
    using Environment = std::map<std::string, std::string>;

    /** @param errorStream its standard error, which stays the caller's; -1: a file, see Log() */
    explicit Peer(const Folder& tv, const Environment& environment = {}, int errorStream = -1);
    /** Ends it, waits, and fails the test if it did not end well by itself. */
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /** The answer to the line. Reports that come before it are kept. */
    std::string Do(const std::string& line);
    void Tell(const std::string& line) const;
    std::string Answer();
    /** The next report, which is waited for. */
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

/** What callbacks were told, in order, from any thread. */
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

/** Whether the thread of this process sleeps: in a lock, since that is all it can be waiting for. */
bool IsAsleep(pid_t thread);

/** Of all threads of a process, by id: how often each has been switched to or from. */
std::map<int, std::string> ContextSwitches(pid_t process);

}  // namespace host_test

#endif
