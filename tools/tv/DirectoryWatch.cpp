// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "Errors.h"

namespace fs = std::filesystem;

namespace tv {

namespace {

constexpr std::size_t BUFFER_SIZE = 65536;

// Where both ends of a rename are watched, the kernel never merges two renames to one name into a single
// notification.
constexpr std::uint32_t EVENTS = IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE |
                                 IN_DELETE | IN_DELETE_SELF | IN_ONLYDIR;

/** A name with a dot in front is a file or a folder before its writer moves it into place. Only in the directory
 * itself may it be something else. */
bool IsTemporary(const fs::path& path) {
    return path.has_parent_path() && path.filename().string().starts_with('.');
}

/** Whether it lies where writers make their files. That folder is watched as the other end of their renames. */
bool IsOfWriters(const fs::path& path) {
    return path.begin() != path.end() && *path.begin() == ".tmp";
}

[[noreturn]] void CannotWatch(const fs::path& directory) {
    throw tools::ToolError(tools::EXIT_REFUSED, "cannot watch " + directory.string() + ": " +
                                                    std::generic_category().message(errno));
}

}  // namespace

DirectoryWatch::DirectoryWatch(tools::MainLoop& loop, fs::path directory, Handler handler)
    : m_directory(std::move(directory)),
      m_handler(std::move(handler)),
      m_inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (m_inotify < 0) {
        CannotWatch(m_directory);
    }
    Follow("", false);
    if (m_folders.empty()) {
        const int error = errno;
        close(m_inotify);
        errno = error;
        CannotWatch(m_directory);
    }
    m_source = loop.WhenReadable(m_inotify, [this] { Read(); });
}

DirectoryWatch::~DirectoryWatch() {
    m_source.reset();
    close(m_inotify);
}

void DirectoryWatch::Read() {
    alignas(inotify_event) std::array<char, BUFFER_SIZE> buffer;
    const ssize_t size = read(m_inotify, buffer.data(), buffer.size());
    for (const char* at = buffer.data(); at < buffer.data() + size;) {
        const auto& event = *reinterpret_cast<const inotify_event*>(at);
        Handle(event);
        at += sizeof(event) + event.len;
    }
}

void DirectoryWatch::Handle(const inotify_event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        m_folders.clear();
        Follow("", false);
        m_handler(Event::LOST, "");
        return;
    }
    const auto folder = m_folders.find(event.wd);
    if (folder == m_folders.end()) {
        return;
    }
    if ((event.mask & (IN_IGNORED | IN_DELETE_SELF)) != 0) {
        const bool isOfWriters = IsOfWriters(folder->second);
        m_folders.erase(folder);
        if (!isOfWriters) {
            m_handler(Event::REMOVED, "");
        }
        return;
    }
    const fs::path path = event.len > 0 ? folder->second / event.name : folder->second;
    const bool isNew = (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0;
    std::error_code ignored;
    if (IsTemporary(path)) {
        return;
    }
    if (IsOfWriters(path)) {
        if (isNew && fs::is_directory(m_directory / path, ignored)) {
            Follow(path, false);
        }
    } else if (isNew && fs::is_directory(m_directory / path, ignored)) {
        Follow(path, true);
        m_handler(Event::WRITTEN, "");
    } else if ((event.mask & IN_ISDIR) == 0) {
        HandleFile(path, event.mask);
    } else if ((event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        Leave(path);
        m_handler(Event::REMOVED, path);
    }
}

/** Reports a file as written when it is moved into place, or closed after a write: a program that moves a finished
 * file may close it before or after. */
void DirectoryWatch::HandleFile(const fs::path& path, std::uint32_t mask) {
    if ((mask & IN_MODIFY) != 0) {
        m_modified.insert(path);
    } else if ((mask & IN_MOVED_TO) != 0 || ((mask & IN_CLOSE_WRITE) != 0 && m_modified.contains(path))) {
        m_modified.erase(path);
        m_handler(Event::WRITTEN, path);
    } else if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        m_modified.erase(path);
        m_handler(Event::REMOVED, path);
    }
}

/** Stops to watch a folder that was moved away, with those in it. */
void DirectoryWatch::Leave(const fs::path& folder) {
    const std::string below = folder.string() + "/";
    std::erase_if(m_folders, [&](const auto& entry) {
        const auto& [watch, path] = entry;
        const bool isGone = path == folder || path.string().starts_with(below);
        if (isGone) {
            inotify_rm_watch(m_inotify, watch);
        }
        return isGone;
    });
}

/** Watches a folder and those in it. @param reportFiles whether to report the files that are there already */
void DirectoryWatch::Follow(const fs::path& folder, bool reportFiles) {
    const int watch = inotify_add_watch(m_inotify, (m_directory / folder).c_str(), EVENTS);
    if (watch < 0) {
        return;
    }
    if (!m_folders.emplace(watch, folder).second) {
        return;  // a link that leads to a folder watched already, which keeps its name
    }
    std::error_code error;
    for (fs::directory_iterator entry(m_directory / folder, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::path path = folder / entry->path().filename();
        std::error_code ignored;
        if (IsTemporary(path)) {
            continue;
        }
        if (entry->is_directory(ignored)) {
            Follow(path, reportFiles);
        } else if (reportFiles) {
            m_handler(Event::WRITTEN, path);
        }
    }
}

}  // namespace tv
