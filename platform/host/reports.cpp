// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "reports.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include <dlog.h>

namespace fs = std::filesystem;

namespace host {
namespace {

using Guard = std::lock_guard<std::recursive_mutex>;

/**
 * Files count when they are closed or moved into place, folders and links when they appear. What disappears
 * is no news, but a folder that is gone may come back elsewhere: where its link leads.
 */
constexpr std::uint32_t FINISHED = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t WATCHED = FINISHED | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t MOVED_GROUND = IN_Q_OVERFLOW | IN_ISDIR | IN_DELETE_SELF | IN_MOVE_SELF;

int Fail(const char* what, int error) {
    __dlog_print(DLOG_ERROR, "Kavrel", "Cannot %s: %s\n", what, std::strerror(error));
    return Failure(error);
}

std::vector<Item> ItemsOf(const Item& registered) {
    if (registered.topic != ZONE_ROUTES)
        return {registered};
    std::vector<int> zones;
    GetZones(zones);
    std::vector<Item> routes;
    for (const int zone : zones)
        routes.push_back(ZoneRoute(zone));
    return routes;
}

}  // namespace

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

int Reports::Set(const Item& item, std::string_view text) {
    const Guard guard(m_lock);
    std::string present;
    const bool readable = TryRead(item, present) == 0;
    const int result = Write(item, text);
    if (result != 0 || !IsHeard(item.topic))
        return result;

    Value& value = m_values.try_emplace(item.path, Value{item, std::nullopt}).first->second;
    // An equal value is not news here, even if the last one known is another: then the change to it was made
    // by another process, and its notification is on the way to the platform thread.
    if (readable ? present != text : value.known != text)
        Deliver(value, std::string(text));
    return 0;
}

int Reports::Add(const Item& item, Handler handler) {
    const Guard guard(m_lock);
    if (const int result = Start(); result != 0)
        return result;
    const bool first = !IsHeard(item.topic);
    const int id = ++m_lastId;
    m_registrations.try_emplace(id, Registration{item, std::move(handler)});
    if (const int error = Rewatch(); error != 0) {
        Remove(item.topic, id);
        return Fail("watch the TV", error);
    }
    if (!first)
        return id;
    for (auto& [path, value] : m_values) {
        std::string text;
        if (value.item.topic == item.topic && TryRead(value.item, text) == 0)
            value.known = text;
    }
    return id;
}

int Reports::Remove(const std::string& topic, int id) {
    const Guard guard(m_lock);
    const auto found = m_registrations.find(id);
    if (found == m_registrations.end() || found->second.item.topic != topic)
        return Failure(ENOENT);
    m_registrations.erase(found);
    if (IsHeard(topic))
        return 0;
    std::erase_if(m_values, [&](const auto& entry) { return entry.second.item.topic == topic; });
    Rewatch();
    return 0;
}

void Reports::Replace(int id, Handler handler) {
    const Guard guard(m_lock);
    m_registrations.at(id).handler = std::move(handler);
}

/**
 * Calls those that were registered when the report began and still are. A callback may write the same value:
 * that report then has gone to all of them, and this one, now the older, ends.
 */
void Reports::Deliver(Value& value, const std::string& text) {
    value.known = text;
    const std::uint64_t report = value.report = ++m_reports;
    const Item item = value.item;
    const int lastId = m_lastId;
    int id = 0;
    for (auto next = m_registrations.begin(); next != m_registrations.end() && next->first <= lastId;
         next = m_registrations.upper_bound(id)) {
        id = next->first;
        if (next->second.item.topic != item.topic)
            continue;
        const Handler handler = next->second.handler;  // the callback may remove it
        handler({item.path, text});
        const auto still = m_values.find(item.path);
        if (still == m_values.end() || still->second.report != report)
            return;
    }
}

bool Reports::IsHeard(const std::string& topic) const {
    for (const auto& [id, registration] : m_registrations) {
        if (registration.item.topic == topic)
            return true;
    }
    return false;
}

// --- The platform thread

/**
 * With the first registration, so that a process that only
 * reads and writes has neither thread nor watches.
 */
int Reports::Start() {
    if (m_inotify >= 0)
        return 0;
    m_inotify = inotify_init1(IN_CLOEXEC);
    if (m_inotify < 0)
        return Fail("watch the TV", errno);
    try {
        std::thread(&Reports::Listen, this, m_inotify).detach();
    } catch (const std::system_error& error) {
        close(m_inotify);
        m_inotify = -1;
        return Fail("start the platform thread", error.code().value());
    }
    return 0;
}

void Reports::Listen(int inotify) {
    pthread_setname_np(pthread_self(), "tv-platform");
    alignas(inotify_event) std::array<char, 64 * 1024> buffer;
    for (;;) {
        const ssize_t size = read(inotify, buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0) {
            Fail("listen to the TV", errno);
            return;
        }
        for (const char* at = buffer.data(); at < buffer.data() + size;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(at);
            Handle(event);
            at += sizeof(event) + event.len;
        }
    }
}

void Reports::Handle(const inotify_event& event) {
    const bool written = (event.mask & FINISHED) != 0 && (event.mask & IN_ISDIR) == 0;
    for (const std::string& path : Affected(event))
        Check(path, written);
}

/**
 * The values that may have changed. Where a folder or a link has come or gone, or notifications have been
 * lost, that is every one; the folders are watched anew before, so that nothing is missed in between.
 */
std::set<std::string> Reports::Affected(const inotify_event& event) {
    const Guard guard(m_lock);
    const Place place{event.wd, event.len > 0 ? event.name : ""};
    std::set<std::string> paths;
    if ((event.mask & MOVED_GROUND) != 0 || m_folders.contains(place)) {
        if (const int error = Rewatch(); error != 0)
            Fail("watch the TV", error);
        for (const auto& [path, value] : m_values)
            paths.insert(path);
    } else if (const auto found = m_places.find(place);
               found != m_places.end() && (event.mask & FINISHED) != 0) {
        paths.insert(found->second);
    }
    return paths;
}

/** @param written whether it is this value's file that was finished: if it is unreadable, that is worth a
 * line */
void Reports::Check(const std::string& path, bool written) {
    const Guard guard(m_lock);
    const auto found = m_values.find(path);
    if (found == m_values.end())
        return;
    Value& value = found->second;
    std::string text;
    const int result =
        written ? Read(value.item, text, Empty::unfinished) : TryRead(value.item, text, Empty::unfinished);
    if (result == 0 && value.known != text)
        Deliver(value, text);
}

// --- Watches

/**
 * Watches every folder that exists on the way to a value, from the top down: whatever appears later appears
 * in a folder that is watched already. Watching a folder again is free.
 * @return the errno of a folder that is there and cannot be watched, or 0
 */
int Reports::Rewatch() {
    const std::set<int> before = std::exchange(m_watched, {});
    m_folders.clear();
    m_places.clear();
    m_watchError = 0;
    for (const auto& [id, registration] : m_registrations) {
        if (registration.item.topic == ZONE_ROUTES)
            FollowTv(ZONE_ROUTES);
        for (const Item& item : ItemsOf(registration.item))
            m_values.try_emplace(item.path, Value{item, std::nullopt});
    }
    for (const auto& [path, value] : m_values) {
        const fs::path file(path);
        const int folder = FollowTv(file.parent_path());
        if (folder >= 0)
            m_places.insert_or_assign({folder, file.filename()}, path);
    }
    for (const int folder : before) {
        if (!m_watched.contains(folder))
            inotify_rm_watch(m_inotify, folder);
    }
    return m_watchError;
}

/** @return the watch of the last folder on the way, or -1 while it does not exist */
int Reports::Follow(fs::path here, const fs::path& way) {
    int watch = Watch(here);
    for (const fs::path& part : way) {
        if (watch < 0)
            break;
        m_folders.insert({watch, part});
        here /= part;
        watch = Watch(here);
        std::error_code ignored;
        if (watch < 0 && errno == ENOENT && fs::is_symlink(here, ignored))
            watch = FollowMissing(here.parent_path() / fs::read_symlink(here, ignored));
    }
    return watch;
}

int Reports::FollowTv(const fs::path& way) {
    std::error_code ignored;
    return fs::is_directory(Root(), ignored) ? Follow(Root(), way) : FollowMissing(Root() / way);
}

/**
 * Only while the TV directory itself is missing, or a link in it leads nowhere, is anything watched outside:
 * the folders on the way there from the nearest one that exists.
 */
int Reports::FollowMissing(const fs::path& folder) {
    std::error_code ignored;
    fs::path start = folder.parent_path();
    while (start.has_relative_path() && !fs::is_directory(start, ignored))
        start = start.parent_path();
    return Follow(start, folder.lexically_relative(start));
}

int Reports::Watch(const fs::path& folder) {
    const int watch = inotify_add_watch(m_inotify, folder.c_str(), WATCHED);
    if (watch >= 0)
        m_watched.insert(watch);
    else if (errno != ENOENT && errno != ENOTDIR)
        m_watchError = errno;
    return watch;
}

// --- Slots

int Slot::Set(const Item& item, Handler handler) {
    const Guard guard(Reports::Get().DeliveryLock());
    const int id = Reports::Get().Add(item, std::move(handler));
    if (id < 0)
        return id;
    if (m_id != 0)
        Reports::Get().Remove(item.topic, m_id);
    m_id = id;
    return 0;
}

int Slot::Clear(const Item& item) {
    const Guard guard(Reports::Get().DeliveryLock());
    return Reports::Get().Remove(item.topic, std::exchange(m_id, 0));
}

}  // namespace host
