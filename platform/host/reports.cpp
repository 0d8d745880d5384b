// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "reports.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "seam.h"

namespace fs = std::filesystem;

namespace host {
namespace {

/**
 * A file is finished when its writer closes it or moves it into place. Nothing reports a file that disappears.
 * A folder that disappears may exist elsewhere already, if its link now leads there.
 */
constexpr std::uint32_t FINISHED = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t WATCHED =
    FINISHED | IN_MOVED_FROM | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t MOVED_GROUND = IN_Q_OVERFLOW | IN_ISDIR | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

/** The kernel shows a change of it once to each that has it open. */
constexpr const char* MOUNTS = "/proc/self/mountinfo";

constexpr int RETRY_MILLISECONDS = 1000;
constexpr std::size_t MOST_GONE_ZONES = 64;  // whose last routes are remembered

}  // namespace

/** The notifications that one read takes out of the kernel's queue. */
class Notifications {
public:
    explicit Notifications(const FileDescriptor& inotify)
        : m_size(read(inotify.Get(), m_bytes.data(), m_bytes.size())) {}  // never waits

    const inotify_event* First() const { return At(0); }
    const inotify_event* After(const inotify_event& event) const {
        return At(reinterpret_cast<const char*>(&event) - m_bytes.data() +
                  static_cast<std::ptrdiff_t>(sizeof(event) + event.len));
    }

private:
    const inotify_event* At(std::ptrdiff_t offset) const {
        return offset < m_size ? reinterpret_cast<const inotify_event*>(m_bytes.data() + offset) : nullptr;
    }

    alignas(inotify_event) std::array<char, 16384> m_bytes;  // [0, m_size) is set
    const ssize_t m_size;
};

RecursiveMutex deliveryLock;

int Change::Integer() const {
    int value = 0;
    ParseInteger(text, {}, value);
    return value;
}

Reports& Reports::Get() {
    static Reports& reports = *std::make_unique<Reports>().release();
    return reports;
}

// --- The calling thread

Error Reports::Set(const Value& value, std::string_view text) {
    const Guard guard(deliveryLock);
    if (!IsHeard(value.topic)) {
        return Write(value, text);
    }
    std::optional<bool> isNews = ExchangeKnown(value, text);
    if (!isNews) {
        // A write of the present value makes no report, even if the last value known differs from it: then
        // another process made the change, and its notification is on the way to the platform thread.
        std::string present;
        isNews = Read(value, present) ? FollowedOf(value).known != text : present != text;
        if (Error error = Write(value, text)) {
            return error;
        }
    }
    if (*isNews) {
        Deliver(FollowedOf(value), std::string(text));
    }
    return {};
}

Error Reports::Add(const Value& value, Handler handler, int& id) {
    const Guard guard(deliveryLock);
    if (Error error = Start()) {
        return error;
    }
    const bool isFirst = !IsHeard(value.topic);
    id = ++m_lastId;
    m_registrations.try_emplace(id, Registration{value, std::move(handler)});
    if (!isFirst) {
        return {};
    }
    m_watches.clear();
    FollowAll(value);
    if (!m_unwatched.empty()) {
        Wake();
    }
    for (auto& [path, followed] : m_values) {
        std::string text;
        if (followed.value.topic == value.topic && !Read(followed.value, text)) {
            followed.known = text;
            followed.isSure = true;
        }
    }
    return {};
}

Error Reports::Remove(const std::string& topic, int id) {
    const Guard guard(deliveryLock);
    const auto found = m_registrations.find(id);
    if (found == m_registrations.end() || found->second.value.topic != topic) {
        return {ENOENT, {}};
    }
    m_registrations.erase(found);
    if (IsHeard(topic)) {
        return {};
    }
    std::erase_if(m_values, [&](const auto& entry) { return entry.second.value.topic == topic; });
    Rewatch();
    return {};
}

void Reports::Replace(int id, Handler handler) {
    const Guard guard(deliveryLock);
    m_registrations.at(id).handler = std::move(handler);
}

/**
 * Calls the handlers that were registered when the report began and still are. If one of them writes the same
 * value, all handlers get that newer report within the call, and this older report ends.
 */
void Reports::Deliver(Followed& followed, const std::string& text) {
    followed.known = text;
    const std::uint64_t report = followed.report = ++m_reports;
    const Value value = followed.value;
    const int lastId = m_lastId;
    int id = 0;
    for (auto next = m_registrations.begin(); next != m_registrations.end() && next->first <= lastId;
         next = m_registrations.upper_bound(id)) {
        id = next->first;
        if (next->second.value.topic != value.topic) {
            continue;
        }
        const Handler handler = next->second.handler;  // a copy, because the callback may remove it
        handler({value.path, text});
        const auto still = m_values.find(value.path);
        if (still == m_values.end() || still->second.report != report) {
            return;
        }
    }
}

bool Reports::IsHeard(const std::string& topic) const {
    return std::any_of(m_registrations.begin(), m_registrations.end(),
                       [&](const auto& entry) { return entry.second.value.topic == topic; });
}

Reports::Followed& Reports::FollowedOf(const Value& value) {
    Followed& followed = m_values[value.path];
    followed.value = value;
    return followed;
}

/** Whether the last value known is the present one, and what is kept of folders is in its place. */
bool Reports::IsCertain(const Followed& followed) {
    if (followed.watch < 0 || !followed.isSure || !m_pending.empty() || m_haveMountsMoved ||
        !m_writersMounts) {
        return false;
    }
    std::array<pollfd, 3> files = {
        {{m_wake.Get(), POLLIN, 0}, {m_inotify.Get(), POLLIN, 0}, {m_writersMounts.Get(), POLLPRI, 0}}};
    const int count = poll(files.data(), files.size(), 0);
    if (files.back().revents != 0) {  // which the kernel shows only once
        m_haveMountsMoved = true;
        Wake();
    }
    return count == 0;
}

/**
 * Writes a value whose present text is known, in a folder that can be kept.
 * @return whether the value was another one; none if this is no such value: then it has not been written
 */
std::optional<bool> Reports::ExchangeKnown(const Value& value, std::string_view text) {
    Followed& followed = FollowedOf(value);
    if (!IsCertain(followed)) {
        followed.kept.reset();
        return std::nullopt;
    }
    if (!followed.kept) {
        followed.kept = KeepFolder(value);
    }
    if (!followed.kept) {
        return std::nullopt;
    }
    // The platform thread sleeps on: it would find nothing in the queue, and wait for the delivery lock.
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_DEL, m_inotify.Get(), nullptr);
    const std::optional<bool> isNews = ExchangeText(value, followed, text);
    HeedNotifications();
    return isNews;
}

/** @return whether the value was another one; none if it could not be written this way */
std::optional<bool> Reports::ExchangeText(const Value& value, Followed& followed, std::string_view text) {
    Exchange exchange(followed.kept, value);
    if (exchange.Make(text) != 0) {
        followed.kept.reset();
        return std::nullopt;
    }
    const bool isNews = followed.known != text;
    if (TakeOwnNotifications(followed)) {
        return isNews;
    }
    Wake();  // and `followed` may be gone: that of a zone that is gone is forgotten
    std::string replaced;
    const int error = exchange.ReadReplaced(replaced);
    if (error == EISDIR) {
        exchange.Undo();
        return std::nullopt;
    }
    return error == 0 ? replaced != text : isNews;
}

/** Wakes the platform thread at each notification from now on, and at once if there is one. */
void Reports::HeedNotifications() {
    if (!WaitFor(m_inotify, EPOLLIN)) {
        NoteUnwatched(Root(), errno);
        m_inotify = {};  // the platform thread opens another and watches everything anew
        Wake();
    }
}

/** @return whether there were those of an own exchange alone: then they are done with */
bool Reports::TakeOwnNotifications(const Followed& followed) {
    const Notifications notifications(m_inotify);
    const std::string name = NameIn(followed.value.path);
    const auto isOf = [&](const inotify_event* event, std::uint32_t move) {
        return event != nullptr && event->mask == move && event->wd == followed.watch && event->name == name;
    };
    const inotify_event* const came = notifications.First();
    const inotify_event* const went = isOf(came, IN_MOVED_TO) ? notifications.After(*came) : nullptr;
    if (isOf(went, IN_MOVED_FROM) && went->cookie == came->cookie + 1 &&
        notifications.After(*went) == nullptr) {
        return true;
    }
    NoteAll(notifications);
    return false;
}

void Reports::Wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(m_wake.Get(), &one, sizeof(one));  // full: it wakes anyway
}

// --- The platform thread

/** Starts with the first registration: a process that only reads and writes has neither thread nor watches. */
Error Reports::Start() {
    if (m_wake) {
        return {};
    }
    m_epoll = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    FileDescriptor wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!WaitFor(wake, EPOLLIN)) {
        return MakeError("watch", "the TV", errno);
    }
    m_mounts = FileDescriptor(open(MOUNTS, O_RDONLY | O_CLOEXEC));
    m_writersMounts = FileDescriptor(open(MOUNTS, O_RDONLY | O_CLOEXEC));
    WaitFor(m_mounts, EPOLLPRI);
    m_wake = std::move(wake);
    try {
        std::thread(&Reports::Listen, this).detach();
    } catch (const std::system_error& error) {
        m_wake = {};
        return MakeError("start", "the platform thread", error.code().value());
    }
    return {};
}

bool Reports::WaitFor(const FileDescriptor& file, std::uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.fd = file.Get();
    return file && epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, file.Get(), &event) == 0;
}

/** Whether the first `count` events have one of `file`. */
bool Reports::Has(const Events& events, int count, const FileDescriptor& file) {
    return std::any_of(events.begin(), events.begin() + std::max(count, 0),
                       [&](const epoll_event& event) { return event.data.fd == file.Get(); });
}

void Reports::Listen() {
    pthread_setname_np(pthread_self(), "tv-platform");
    for (int timeout = -1;;) {
        Events events{};
        const int count = epoll_wait(m_epoll.Get(), events.data(), events.size(), timeout);
        if (Has(events, count, m_wake)) {
            std::uint64_t times = 0;
            [[maybe_unused]] const ssize_t size = read(m_wake.Get(), &times, sizeof(times));
        }
        timeout = Take(Has(events, count, m_mounts));
        while (HandleNext()) {
        }
    }
}

/** Notes what is to be read again, and watches again what could not be watched. @return how long to wait then */
int Reports::Take(bool haveMountsMoved) {
    const Guard guard(deliveryLock);
    if (std::exchange(m_haveMountsMoved, false) || haveMountsMoved) {
        LookAtEverything();
    } else if (!m_unwatched.empty()) {
        Rewatch();
    }
    NoteAll(Notifications(m_inotify));
    return m_unwatched.empty() ? -1 : RETRY_MILLISECONDS;
}

void Reports::NoteAll(const Notifications& notifications) {
    bool hasGroundMoved = false;
    for (const auto* event = notifications.First(); event != nullptr; event = notifications.After(*event)) {
        hasGroundMoved = Note(*event) || hasGroundMoved;
    }
    if (hasGroundMoved) {
        LookAtEverything();
    }
}

/** @return whether a folder or a link has come or gone, or notifications have been lost */
bool Reports::Note(const inotify_event& event) {
    const Place place{event.wd, event.len > 0 ? event.name : ""};
    if ((event.mask & MOVED_GROUND) != 0 || m_folders.contains(place)) {
        return true;
    }
    const auto found = m_places.find(place);
    if (found != m_places.end()) {
        Followed& followed = m_values.at(found->second);
        followed.isSure = false;
        followed.kept.reset();
        if ((event.mask & FINISHED) != 0) {
            Await(found->second, true);
        }
    }
    return false;
}

void Reports::Await(const std::string& path, bool isWritten) {
    const auto found = std::find_if(m_pending.begin(), m_pending.end(),
                                    [&](const Pending& pending) { return pending.path == path; });
    if (found == m_pending.end()) {
        m_pending.push_back({path, isWritten});
    } else {
        found->isWritten = found->isWritten || isWritten;
    }
}

/** Watches the folders anew before the values are read, so that nothing is missed in between. */
void Reports::LookAtEverything() {
    Rewatch();
    AwaitEverything();
}

void Reports::AwaitEverything() {
    for (const auto& [path, followed] : m_values) {
        Await(path, false);
    }
}

/** @return whether there was something pending */
bool Reports::HandleNext() {
    const Guard guard(deliveryLock);
    if (m_pending.empty()) {
        return false;
    }
    const Pending next = m_pending.front();
    m_pending.pop_front();
    Check(next);
    return true;
}

void Reports::Check(const Pending& pending) {
    const auto found = m_values.find(pending.path);
    if (found == m_values.end()) {
        return;
    }
    Followed& followed = found->second;
    std::string text;
    const Error error = Read(followed.value, text, Empty::UNFINISHED);
    followed.isSure = !error;
    if (!error && followed.known != text) {
        Deliver(followed, text);
    } else if (pending.isWritten) {
        Log(error);
    }
}

// --- Watches

/**
 * Watches every folder that exists on the way to a value, from the top down, so that a folder that appears
 * later appears in a watched one. A folder that could not be watched until now may have changed meanwhile.
 */
void Reports::Rewatch() {
    const std::set<int> before = std::exchange(m_watched, {});
    m_unwatchedBefore = std::exchange(m_unwatched, {});
    m_watches.clear();
    m_folders.clear();
    m_places.clear();
    for (auto& [path, followed] : m_values) {
        followed.kept.reset();
        followed.watch = -1;
        followed.isPresent = false;
    }
    for (const auto& [id, registration] : m_registrations) {
        FollowAll(registration.value);
    }
    ForgetOldZones();
    for (const int folder : before) {
        if (!m_watched.contains(folder)) {
            inotify_rm_watch(m_inotify.Get(), folder);
        }
    }
    if (m_unwatched != m_unwatchedBefore) {
        AwaitEverything();
        Wake();
    }
    m_unwatchedBefore.clear();
}

/** The kernel bounds how many queues a user may have: one that cannot be made is tried again like a watch. */
bool Reports::OpenInotify() {
    if (m_inotify) {
        return true;
    }
    FileDescriptor inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!WaitFor(inotify, EPOLLIN)) {
        NoteUnwatched(Root(), errno);
        return false;
    }
    m_inotify = std::move(inotify);
    return true;
}

/** Follows the values of a registration; of zones those that exist. */
void Reports::FollowAll(const Value& registered) {
    if (registered.topic != ZONE_ROUTES) {
        FollowValue(registered);
        return;
    }
    std::vector<int> zones;
    if (const Error error = GetZones(zones)) {
        NoteUnwatched(Root() / ZONES, error.number);
    }
    if (OpenInotify()) {
        FollowTv(ZONES);
    }
    for (const int zone : zones) {
        FollowValue(ZoneRoute(zone));
    }
}

void Reports::FollowValue(const Value& value) {
    Followed& followed = FollowedOf(value);
    const fs::path file(value.path);
    const int folder = OpenInotify() ? FollowTv(file.parent_path()) : -1;
    followed.isPresent = true;
    followed.watch = folder;
    if (folder >= 0) {
        m_places.insert_or_assign({folder, file.filename()}, value.path);
    }
}

/** A zone that returns with the last route known is no news. Only so many zones that are gone are remembered. */
void Reports::ForgetOldZones() {
    std::map<std::uint64_t, std::string> gone;  // the oldest first
    for (auto& [path, followed] : m_values) {
        if (followed.isPresent) {
            followed.goneSince = 0;
        } else {
            followed.goneSince = followed.goneSince == 0 ? ++m_zonesGone : followed.goneSince;
            gone.emplace(followed.goneSince, path);
        }
    }
    while (gone.size() > MOST_GONE_ZONES) {
        m_values.erase(gone.begin()->second);
        gone.erase(gone.begin());
    }
}

/** @return the watch of the last folder on the way, or -1 while it does not exist */
int Reports::Follow(fs::path here, const fs::path& way) {
    int watch = Watch(here);
    for (const fs::path& part : way) {
        if (watch < 0) {
            break;
        }
        m_folders.insert({watch, part});
        here /= part;
        watch = Watch(here);
        std::error_code ignored;
        if (watch < 0 && errno == ENOENT && fs::is_symlink(here, ignored)) {
            watch = FollowMissing(here.parent_path() / fs::read_symlink(here, ignored));
        }
    }
    return watch;
}

int Reports::FollowTv(const fs::path& way) {
    std::error_code ignored;
    return fs::is_directory(Root(), ignored) ? Follow(Root(), way) : FollowMissing(Root() / way);
}

/**
 * Watches folders outside the TV directory, while that is missing or a link in it leads nowhere: the folders on
 * the way to the missing one, from the nearest one that exists.
 */
int Reports::FollowMissing(const fs::path& folder) {
    std::error_code ignored;
    fs::path start = folder.parent_path();
    while (start.has_relative_path() && !fs::is_directory(start, ignored)) {
        start = start.parent_path();
    }
    return Follow(start, folder.lexically_relative(start));
}

int Reports::Watch(const fs::path& folder) {
    if (const auto known = m_watches.find(folder); known != m_watches.end()) {
        return known->second;
    }
    const int watch = inotify_add_watch(m_inotify.Get(), folder.c_str(), WATCHED);
    if (watch >= 0) {
        m_watched.insert(watch);
        m_watches.emplace(folder, watch);
    } else if (errno != ENOENT && errno != ENOTDIR) {
        NoteUnwatched(folder, errno);
    }
    return watch;
}

/** Logs it once for as long as it lasts. */
void Reports::NoteUnwatched(const std::string& folder, int number) {
    if (m_unwatched.emplace(folder, number).second && !m_unwatchedBefore.contains(folder)) {
        Log(MakeError("watch", folder, number));
    }
    errno = number;
}

// --- Single registrations

int SingleRegistration::Set(const Value& value, Handler handler) {
    const Guard guard(deliveryLock);
    int id = 0;
    if (const Error error = Reports::Get().Add(value, std::move(handler), id)) {
        return Result(error);
    }
    if (m_id != 0) {
        static_cast<void>(Reports::Get().Remove(value.topic, m_id));
    }
    m_id = id;
    return 0;
}

int SingleRegistration::Clear(const Value& value) {
    const Guard guard(deliveryLock);
    return Reports::Get().Remove(value.topic, std::exchange(m_id, 0)).Code();
}

}  // namespace host
