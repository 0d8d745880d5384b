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
 * A file is reported when its text differs from the last one known. The platform thread finds a change by
 * another process: at the notification it reads the file under the lock. The text that it finds is never older
 * than the last one known, so no report goes back in time.
 *
 * The thread that writes through the seam reports its own write, if the text differs from the present one. That
 * is the last one known as long as the file is watched and no notification waits. Then the writer exchanges the
 * file for a new one, which makes two notifications: one of the file that came and one of the file that went. It
 * takes both out of the kernel's queue, so that the platform thread need not. If there are no others, and the
 * kernel numbered the two in a row, nobody else has written the value since: the kernel merges a notification
 * only with an equal one before it, of which it keeps the number. Otherwise the writer reads the file that it
 * has replaced, and leaves the file in its place to the platform thread. In all other cases the writer reads the
 * file, then writes, and the platform thread finds that there is nothing to report.
 *
 * A folder that cannot be watched silences the values in it alone. While there is one, and only then, the
 * platform thread tries again once a second.
 */
#ifndef KAVREL_HOST_REPORTS_H
#define KAVREL_HOST_REPORTS_H

#include <sys/epoll.h>
#include <sys/inotify.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "directory.h"
#include "thread_safety.h"
#include "value_file.h"

namespace host {

struct Change {
    std::string path;
    std::string text;

    /** The value as an integer. Only for values with a range; others are not integers. */
    int Integer() const;
};

class Notifications;

/** The delivery lock; see above. */
extern RecursiveMutex deliveryLock;

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
        bool isSure =
            false;  // the file held it when it was last read, and none has come into its place since
        std::uint64_t report = 0;     // the number of its latest report
        int watch = -1;               // of its folder; -1: changes by other processes are not noticed
        bool isPresent = false;       // not the route of a zone that is gone
        std::uint64_t goneSince = 0;  // zones that went earlier have lower numbers; 0: not gone
        std::shared_ptr<const KeptFolder> kept;  // until a folder has moved; may be null
    };
    struct Pending {
        std::string path;
        bool isWritten;  // its own file was finished
    };
    using Place = std::pair<int, std::string>;  // a watched folder and a name in it

    using Events = std::array<epoll_event, 3>;

    Error Start() REQUIRES(deliveryLock);
    bool WaitFor(const FileDescriptor& file, std::uint32_t events) const;
    static bool Has(const Events& events, int count, const FileDescriptor& file);
    [[noreturn]] void Listen();
    int Take(bool haveMountsMoved);
    std::optional<bool> ExchangeKnown(const Value& value, std::string_view text) REQUIRES(deliveryLock);
    std::optional<bool> ExchangeText(const Value& value, Followed& followed, std::string_view text)
        REQUIRES(deliveryLock);
    void HeedNotifications() REQUIRES(deliveryLock);
    bool TakeOwnNotifications(const Followed& followed) REQUIRES(deliveryLock);
    void NoteAll(const Notifications& notifications) REQUIRES(deliveryLock);
    bool Note(const inotify_event& event) REQUIRES(deliveryLock);
    void Await(const std::string& path, bool isWritten) REQUIRES(deliveryLock);
    void LookAtEverything() REQUIRES(deliveryLock);
    void AwaitEverything() REQUIRES(deliveryLock);
    bool HandleNext();
    void Check(const Pending& pending) REQUIRES(deliveryLock);
    void Deliver(Followed& followed, const std::string& text) REQUIRES(deliveryLock);

    bool IsHeard(const std::string& topic) const REQUIRES(deliveryLock);
    Followed& FollowedOf(const Value& value) REQUIRES(deliveryLock);
    bool IsCertain(const Followed& followed) REQUIRES(deliveryLock);
    void Wake() const REQUIRES(deliveryLock);

    void Rewatch() REQUIRES(deliveryLock);
    bool OpenInotify() REQUIRES(deliveryLock);
    void FollowValue(const Value& value) REQUIRES(deliveryLock);
    void FollowAll(const Value& registered) REQUIRES(deliveryLock);
    void ForgetOldZones() REQUIRES(deliveryLock);
    int Follow(std::filesystem::path here, const std::filesystem::path& way) REQUIRES(deliveryLock);
    int FollowTv(const std::filesystem::path& way) REQUIRES(deliveryLock);
    int FollowMissing(const std::filesystem::path& folder) REQUIRES(deliveryLock);
    int Watch(const std::filesystem::path& folder) REQUIRES(deliveryLock);
    void NoteUnwatched(const std::string& folder, int number) REQUIRES(deliveryLock);

    std::map<int, Registration> m_registrations GUARDED_BY(deliveryLock);
    std::map<std::string, Followed> m_values GUARDED_BY(deliveryLock);  // by path; each has a listener
    std::deque<Pending> m_pending GUARDED_BY(deliveryLock);  // to be read again by the platform thread
    int m_lastId GUARDED_BY(deliveryLock) = 0;
    std::uint64_t m_reports GUARDED_BY(deliveryLock) = 0;
    std::uint64_t m_zonesGone GUARDED_BY(deliveryLock) = 0;

    FileDescriptor m_epoll;  // all that the platform thread waits for; like the next two set by Start() alone
    FileDescriptor m_wake;   // an eventfd: there is something pending, or a watch to try again
    // The kernel's table of mounts, for the platform thread and for writers; empty where there is none.
    FileDescriptor m_mounts;
    FileDescriptor m_writersMounts;
    FileDescriptor m_inotify GUARDED_BY(deliveryLock);
    bool m_haveMountsMoved GUARDED_BY(deliveryLock) = false;

    std::map<std::string, int> m_watches
        GUARDED_BY(deliveryLock);                        // by folder, -1: none; of the present look
    std::set<int> m_watched GUARDED_BY(deliveryLock);    // the watched folders
    std::set<Place> m_folders GUARDED_BY(deliveryLock);  // folders on the way to a value, also missing ones
    std::map<Place, std::string> m_places GUARDED_BY(deliveryLock);  // the values' files; to their paths
    std::map<std::string, int> m_unwatched
        GUARDED_BY(deliveryLock);  // folders that cannot be watched; to the errno
    std::map<std::string, int> m_unwatchedBefore
        GUARDED_BY(deliveryLock);  // while everything is watched anew
};

/** The registration of a callback of which the process has only one. */
class SingleRegistration {
public:
    int Set(const Value& value, Handler handler);
    int Clear(const Value& value);

private:
    int m_id GUARDED_BY(deliveryLock) = 0;
};

}  // namespace host

#endif
