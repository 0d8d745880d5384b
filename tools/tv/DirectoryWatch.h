// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_TV_DIRECTORYWATCH_H
#define KAVREL_TOOLS_TV_DIRECTORYWATCH_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "GLibPtr.h"
#include "MainLoop.h"

struct inotify_event;

namespace tv {

/**
 * Reports every write below a directory on the main loop: in place or by a rename, of a new or of an equal text. The
 * folders themselves may come and go.
 */
class DirectoryWatch {
public:
    enum class Event {
        WRITTEN,
        REMOVED,
        LOST,  // notifications have been lost: anything may have happened
    };
    /** @param path below the directory: of a file, or of a folder that was removed; empty for LOST and for any other
     *  change of a folder */
    using Handler = std::function<void(Event event, const std::string& path)>;

    /** @throws ToolError if the directory cannot be watched */
    DirectoryWatch(tools::MainLoop& loop, std::filesystem::path directory, Handler handler);
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

private:
    void Read();
    void Handle(const inotify_event& event);
    void HandleFile(const std::filesystem::path& path, std::uint32_t mask);
    void Leave(const std::filesystem::path& folder);
    void Follow(const std::filesystem::path& folder, bool reportFiles);

    const std::filesystem::path m_directory;
    const Handler m_handler;
    const int m_inotify;
    std::map<int, std::filesystem::path> m_folders;  // by watch
    std::set<std::filesystem::path> m_modified;      // written to in place, and not closed yet
    tools::GLibPtr<GSource> m_source;
};

}  // namespace tv

#endif
