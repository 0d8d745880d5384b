// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The folders of the TV directory, and the writer's own folder among them.
 *
 * Everything is opened from the TV directory itself, and no link leads out of it, with one exception:
 * settings/db may lead anywhere, and what lies below it is opened from there.
 *
 * A writer makes its files in `.tmp/<name>/`, a folder of its own, and renames them into place. It holds a
 * lock on that folder as long as it lives. The kernel releases the lock of a process that ends or is killed,
 * so a folder that can be locked has no owner any more: RemoveLeftovers() empties and removes it.
 */
#ifndef KAVREL_HOST_TREE_H
#define KAVREL_HOST_TREE_H

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "file_descriptor.h"
#include "thread_safety.h"

namespace host {

/**
 * Opens `path` below `folder`. Links are followed as long as they stay below it.
 * @param flags of open(); nothing is made
 * @return empty, with errno, on failure; EXDEV: a link leads out
 */
FileDescriptor OpenBelow(int folder, const std::string& path, int flags);

/**
 * Opens an absolute path in one step, if no part of it is a link: then it leads to where its words say.
 * @param flags of open(), also O_CREAT
 * @return empty, with errno, on failure; ELOOP: a part is a link
 */
FileDescriptor OpenWithoutLinks(const std::string& path, int flags);

struct Entry {
    std::string name;
    unsigned char type;  // DT_DIR, DT_REG, ...; DT_UNKNOWN on some file systems
};

/** The entries of a folder opened for reading but "." and ".."; none, with errno, on failure. */
std::optional<std::vector<Entry>> List(const FileDescriptor& folder);

/** KAVREL_TV_DIR, else /run/kavrel, absolute. */
const std::string& TreePath();

/** The folder in which one process makes its files. */
struct OwnFolder {
    FileDescriptor folder;
    std::string path;  // absolute
};

/** The TV directory that was found under its name; it stays open while a pointer to it exists. */
class Tree {
public:
    /** The directory that the name leads to now; null, with errno, if there is none. Costs one system call. */
    static std::shared_ptr<Tree> Current();

    explicit Tree(FileDescriptor folder);

    int Folder() const { return m_folder.Get(); }

    /** Opens a file or a folder of the tree. @param flags of open(); nothing is made */
    FileDescriptor Open(const std::string& path, int flags) const;
    /** Opens a folder to work in it. */
    FileDescriptor OpenFolder(const std::string& path) const;
    /**
     * Like OpenFolder(), but refuses a folder that can be unmounted, because an open folder would prevent that, and one
     * behind a link, because what is behind it may move unnoticed.
     */
    FileDescriptor OpenKeptFolder(const std::string& path) const;
    /** Makes the folders that are missing on the way. @return 0 or the errno */
    int MakeFolders(const std::string& path) const;

    /** This process's own folder for unfinished files; null if it cannot have one. */
    std::shared_ptr<const OwnFolder> GetOwnFolder();
    /** Forgets the own folder: it is no longer part of the tree. */
    void LeaveOwnFolder(const std::shared_ptr<const OwnFolder>& left);

    /** Removes what writers that are gone have left behind. */
    void RemoveLeftovers() const;

private:
    bool IsAt(const struct stat& status) const;
    OwnFolder MakeOwnFolder() const;

    const FileDescriptor m_folder;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    Mutex m_mutex;
    std::shared_ptr<const OwnFolder> m_ownFolder GUARDED_BY(m_mutex);
};

/** The part of a path before the last slash. */
std::string FolderOf(std::string_view path);
/** The part of a path after the last slash. */
std::string NameIn(std::string_view path);

/** A name for an unfinished file outside of the own folder; no two are alike. */
std::string TemporaryName();

}  // namespace host

#endif
