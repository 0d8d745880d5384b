// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Change reports: which callbacks get which changes, in which order and on which thread.
 *
 * One recursive lock, the delivery lock, guards everything here. A thread holds it while it runs callbacks,
 * makes a write that can be reported, or adds or removes a registration. Three things follow from that one
 * rule: reports come one at a time and in the order of the writes; the removal of a registration waits for a
 * report that runs on another thread; and a callback may write, register and remove.
 *
 * A file is reported when its text differs from the last one known. The thread that writes through the seam
 * reports its own write, and so the kernel's notification of that write finds no difference. The platform thread
 * finds a change by another process: at the notification it reads the file under the lock. The text that it
 * finds is never older than the last one known, so no report goes back in time.
 */
#ifndef KAVREL_HOST_REPORTS_H
#define KAVREL_HOST_REPORTS_H

#include <sys/inotify.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "directory.h"
#include "thread_safety.h"

namespace host {

struct Change {
    std::string path;
    std::string text;

    /** The value as an integer. Only for values with a range; others are not integers. */
    int Integer() const;
};

/** The delivery lock; see above. */
extern RecursiveMutex delivery_lock;

using Handler = std::function<void(const Change&)>;

class Reports {
public:
    /** Never destroyed: the platform thread may outlive main(). */
    static Reports& Get();

    /** Writes the value and, if it is not the present one, reports it before it returns. */
    Error Set(const Value& value, std::string_view text);

    /** @param id the registration's, above 0; set on success only */
    Error Add(const Value& value, Handler handler, int& id);
    Error Remove(const std::string& topic, int id);
    void Replace(int id, Handler handler);

private:
    struct Registration {
        Value value;
        Handler handler;
    };
    struct Followed {
        Value value;
        std::optional<std::string> known;  // the last text known, if there was one
        std::uint64_t report = 0;          // the number of its latest report
    };
    using Place = std::pair<int, std::string>;  // a watched folder and a name in it

    Error Start() REQUIRES(delivery_lock);
    void Listen(int inotify);
    void Handle(const inotify_event& event);
    std::set<std::string> Affected(const inotify_event& event);
    void Check(const std::string& path, bool written);
    void Deliver(Followed& followed, const std::string& text) REQUIRES(delivery_lock);

    bool IsHeard(const std::string& topic) const REQUIRES(delivery_lock);
    int Rewatch() REQUIRES(delivery_lock);
    int Follow(std::filesystem::path here, const std::filesystem::path& way) REQUIRES(delivery_lock);
    int FollowTv(const std::filesystem::path& way) REQUIRES(delivery_lock);
    int FollowMissing(const std::filesystem::path& folder) REQUIRES(delivery_lock);
    int Watch(const std::filesystem::path& folder) REQUIRES(delivery_lock);

    std::map<int, Registration> m_registrations GUARDED_BY(delivery_lock);
    std::map<std::string, Followed> m_values
        GUARDED_BY(delivery_lock);  // by path; only those with a registration
    int m_lastId GUARDED_BY(delivery_lock) = 0;
    std::uint64_t m_reports GUARDED_BY(delivery_lock) = 0;

    int m_inotify GUARDED_BY(delivery_lock) = -1;
    std::set<int> m_watched GUARDED_BY(delivery_lock);    // the watched folders
    std::set<Place> m_folders GUARDED_BY(delivery_lock);  // the folders and links on the way to a value
    std::map<Place, std::string> m_places GUARDED_BY(delivery_lock);  // from a value's file to its path
    int m_watchError GUARDED_BY(delivery_lock) = 0;                   // errno of the latest Rewatch(), or 0
};

/** The registration of a callback of which the process has only one. */
class SingleRegistration {
public:
    int Set(const Value& value, Handler handler);
    int Clear(const Value& value);

private:
    int m_id GUARDED_BY(delivery_lock) = 0;
};

}  // namespace host

#endif
