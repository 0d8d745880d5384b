// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "reports.h"

#include <pthread.h>
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
 * A file is finished when its writer closes it or moves it into place. Nothing reports a file that disappears. A
 * folder that disappears may exist elsewhere already, if its link now leads there.
 */
constexpr std::uint32_t FINISHED = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t WATCHED = FINISHED | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t MOVED_GROUND = IN_Q_OVERFLOW | IN_ISDIR | IN_DELETE_SELF | IN_MOVE_SELF;

std::vector<Value> ValuesOf(const Value& registered) {
    if (registered.topic != ZONE_ROUTES) {
        return {registered};
    }
    std::vector<int> zones;
    Log(GetZones(zones));
    std::vector<Value> routes;
    routes.reserve(zones.size());
    for (const int zone : zones) {
        routes.push_back(ZoneRoute(zone));
    }
    return routes;
}

}  // namespace

RecursiveMutex delivery_lock;

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
    const Guard guard(delivery_lock);
    std::string present;
    const bool isReadable = !Read(value, present);
    Error error = Write(value, text);
    if (error || !IsHeard(value.topic)) {
        return error;
    }
    Followed& followed = m_values.try_emplace(value.path, Followed{value, std::nullopt}).first->second;
    // A write of the present value makes no report, even if the last value known differs from it: then another
    // process made the change, and its notification is on the way to the platform thread.
    if (isReadable ? present != text : followed.known != text) {
        Deliver(followed, std::string(text));
    }
    return {};
}

Error Reports::Add(const Value& value, Handler handler, int& id) {
    const Guard guard(delivery_lock);
    if (Error error = Start()) {
        return error;
    }
    const bool isFirst = !IsHeard(value.topic);
    const int added = ++m_lastId;
    m_registrations.try_emplace(added, Registration{value, std::move(handler)});
    if (const int error = Rewatch(); error != 0) {
        static_cast<void>(Remove(value.topic, added));
        return MakeError("watch", "the TV", error);
    }
    id = added;
    if (!isFirst) {
        return {};
    }
    for (auto& [path, followed] : m_values) {
        std::string text;
        if (followed.value.topic == value.topic && !Read(followed.value, text)) {
            followed.known = text;
        }
    }
    return {};
}

Error Reports::Remove(const std::string& topic, int id) {
    const Guard guard(delivery_lock);
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
    const Guard guard(delivery_lock);
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

// --- The platform thread

/** Runs at the first registration: a process that only reads and writes has neither a thread nor watches. */
Error Reports::Start() {
    if (m_inotify >= 0) {
        return {};
    }
    m_inotify = inotify_init1(IN_CLOEXEC);
    if (m_inotify < 0) {
        return MakeError("watch", "the TV", errno);
    }
    try {
        std::thread(&Reports::Listen, this, m_inotify).detach();
    } catch (const std::system_error& error) {
        close(m_inotify);
        m_inotify = -1;
        return MakeError("start", "the platform thread", error.code().value());
    }
    return {};
}

void Reports::Listen(int inotify) {
    pthread_setname_np(pthread_self(), "tv-platform");
    alignas(inotify_event) std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size = read(inotify, buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0) {
            Log(MakeError("listen to", "the TV", errno));
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
    for (const std::string& path : Affected(event)) {
        Check(path, written);
    }
}

/**
 * The values that may have changed. If a folder or a link has come or gone, or notifications are lost, these
 * are all values; then the folders are watched anew first, so that no change in between is missed.
 */
std::set<std::string> Reports::Affected(const inotify_event& event) {
    const Guard guard(delivery_lock);
    const Place place{event.wd, event.len > 0 ? event.name : ""};
    std::set<std::string> paths;
    if ((event.mask & MOVED_GROUND) != 0 || m_folders.contains(place)) {
        if (const int error = Rewatch(); error != 0) {
            Log(MakeError("watch", "the TV", error));
        }
        for (const auto& [path, followed] : m_values) {
            paths.insert(path);
        }
    } else if (const auto found = m_places.find(place);
               found != m_places.end() && (event.mask & FINISHED) != 0) {
        paths.insert(found->second);
    }
    return paths;
}

/** @param isWritten whether the value's own file was finished; only then is an unreadable text logged */
void Reports::Check(const std::string& path, bool isWritten) {
    const Guard guard(delivery_lock);
    const auto found = m_values.find(path);
    if (found == m_values.end()) {
        return;
    }
    Followed& followed = found->second;
    std::string text;
    const Error error = Read(followed.value, text, Empty::UNFINISHED);
    if (!error && followed.known != text) {
        Deliver(followed, text);
    } else if (isWritten) {
        Log(error);
    }
}

// --- Watches

/**
 * Watches every folder that exists on the way to a value, from the top down, so that a folder that appears later
 * appears in a watched one. Watching a folder again is free.
 * @return the errno of a folder that is there and cannot be watched, or 0
 */
int Reports::Rewatch() {
    const std::set<int> before = std::exchange(m_watched, {});
    m_folders.clear();
    m_places.clear();
    m_watchError = 0;
    for (const auto& [id, registration] : m_registrations) {
        if (registration.value.topic == ZONE_ROUTES) {
            FollowTv(ZONE_ROUTES);
        }
        for (const Value& value : ValuesOf(registration.value)) {
            m_values.try_emplace(value.path, Followed{value, std::nullopt});
        }
    }
    for (const auto& [path, followed] : m_values) {
        const fs::path file(path);
        const int folder = FollowTv(file.parent_path());
        if (folder >= 0) {
            m_places.insert_or_assign({folder, file.filename()}, path);
        }
    }
    for (const int folder : before) {
        if (!m_watched.contains(folder)) {
            inotify_rm_watch(m_inotify, folder);
        }
    }
    return m_watchError;
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
    const int watch = inotify_add_watch(m_inotify, folder.c_str(), WATCHED);
    if (watch >= 0) {
        m_watched.insert(watch);
    } else if (errno != ENOENT && errno != ENOTDIR) {
        m_watchError = errno;
    }
    return watch;
}

// --- Single registrations

int SingleRegistration::Set(const Value& value, Handler handler) {
    const Guard guard(delivery_lock);
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
    const Guard guard(delivery_lock);
    return Reports::Get().Remove(value.topic, std::exchange(m_id, 0)).Code();
}

}  // namespace host
