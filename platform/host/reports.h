// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Change reports: who hears what, in which order and on which thread.
 *
 * One recursive lock, the delivery lock, guards everything here. It is held while callbacks run, over every
 * write that can be reported, and while a registration is added or removed. Three things follow from that
 * one rule: reports come one at a time and in the order of the writes; removing a registration waits
 * for a report in flight on another thread; and a callback may write, register and remove in its turn.
 *
 * The last value known of each watched file decides what is news. A write through the seam is reported by
 * the writing thread and becomes the last value known; the kernel's notification of it then finds nothing
 * new. A change by another process is found by the platform thread, which reads the file under the lock when
 * the notification comes: what it finds is never older than the last value known, so no report goes back in
 * time.
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
    std::map<std::string, Followed> m_values GUARDED_BY(delivery_lock);  // by path; those that somebody hears
    int m_lastId GUARDED_BY(delivery_lock) = 0;
    std::uint64_t m_reports GUARDED_BY(delivery_lock) = 0;

    int m_inotify GUARDED_BY(delivery_lock) = -1;
    std::set<int> m_watched GUARDED_BY(delivery_lock);    // the watched folders
    std::set<Place> m_folders GUARDED_BY(delivery_lock);  // what is, or would be, on the way to a value
    std::map<Place, std::string> m_places GUARDED_BY(delivery_lock);  // the values' files; to their paths
    int m_watchError GUARDED_BY(delivery_lock) = 0;  // errno met by the latest Rewatch(), or 0
};

/** The one registration of a call whose removal takes no argument. */
class Slot {
public:
    int Set(const Value& value, Handler handler);
    int Clear(const Value& value);

private:
    int m_id GUARDED_BY(delivery_lock) = 0;
};

}  // namespace host

#endif
