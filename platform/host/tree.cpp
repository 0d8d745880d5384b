// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/syscall.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace host {
namespace {

constexpr int AS_FOLDER = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int TO_LIST = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int ATTEMPTS = 100;

constexpr const char* OWN_FOLDERS = ".tmp";
constexpr const char* TEMPORARY_PREFIX = ".kavrel-";
constexpr std::string_view DB = "settings/db";

// --- Opening below a folder

/** Follows no link at all: for kernels and sandboxes without openat2(). */
FileDescriptor OpenPartByPart(int folder, const std::string& path, int flags) {
    FileDescriptor here;
    std::size_t start = 0;
    for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        const std::string part = path.substr(start, slash - start);
        FileDescriptor next(openat(here ? here.Get() : folder, part.c_str(), AS_FOLDER | O_NOFOLLOW));
        if (!next) {
            return next;
        }
        here = std::move(next);
        start = slash + 1;
    }
    return FileDescriptor(
        openat(here ? here.Get() : folder, path.c_str() + start, flags | O_NOFOLLOW | O_CLOEXEC));
}

FileDescriptor Openat2(int folder, const std::string& path, int flags, std::uint64_t resolve) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? 0666 : 0;
    how.resolve = resolve;
    return FileDescriptor(static_cast<int>(syscall(SYS_openat2, folder, path.c_str(), &how, sizeof(how))));
}

FileDescriptor OpenBelow(int folder, const std::string& path, int flags, std::uint64_t resolve) {
    // The kernel answers EAGAIN when something was renamed meanwhile; also when a file would have to be waited
    // for, which does not pass.
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        FileDescriptor file = Openat2(folder, path, flags, resolve);
        if (file || errno != EAGAIN) {
            return file || (errno != ENOSYS && errno != EPERM) ? std::move(file)
                                                               : OpenPartByPart(folder, path, flags);
        }
    }
    return {};
}

// --- Leftovers

/** Whether this process holds the lock now: then no other process owns the file. */
bool Lock(const FileDescriptor& file) {
    return file && flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
}

void RemoveOwnFolderOfNobody(const FileDescriptor& all, const std::string& name) {
    const FileDescriptor folder(openat(all.Get(), name.c_str(), TO_LIST));
    if (!Lock(folder)) {
        return;
    }
    if (const auto entries = List(folder)) {
        for (const Entry& entry : *entries) {
            unlinkat(folder.Get(), entry.name.c_str(), 0);
        }
    }
    unlinkat(all.Get(), name.c_str(), AT_REMOVEDIR);
}

/** A writer that has no folder of its own locks its unfinished file. */
void RemoveFileOfNobody(const FileDescriptor& folder, const std::string& name) {
    const FileDescriptor file(
        openat(folder.Get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (Lock(file)) {
        unlinkat(folder.Get(), name.c_str(), 0);
    }
}

void RemoveFilesOfNobody(const FileDescriptor& folder) {
    const auto entries = List(folder);
    if (!entries) {
        return;
    }
    for (const auto& [name, type] : *entries) {
        if (name.starts_with(TEMPORARY_PREFIX)) {
            RemoveFileOfNobody(folder, name);
        } else if (!name.starts_with('.') && (type == DT_DIR || type == DT_UNKNOWN)) {
            RemoveFilesOfNobody(FileDescriptor(openat(folder.Get(), name.c_str(), TO_LIST)));
        }
    }
}

/** This process's id and a random number, so that also processes in different containers differ. */
const std::string& UniqueName() {
    static const std::string& name = *[] {
        std::uint32_t random = 0;
        if (getrandom(&random, sizeof(random), GRND_NONBLOCK) != sizeof(random)) {
            random = 0;  // too early in the boot: the process id alone makes the name
        }
        return std::make_unique<std::string>(std::to_string(getpid()) + '-' + std::to_string(random))
            .release();
    }();
    return name;
}

std::string FindTreePath() {
    const char* const name = std::getenv("KAVREL_TV_DIR");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    std::error_code ignored;  // then the working directory is gone, and nothing can be read
    return fs::absolute(name != nullptr && *name != '\0' ? name : "/run/kavrel", ignored);
}

struct CurrentTree {
    Mutex mutex;
    std::shared_ptr<Tree> tree GUARDED_BY(mutex);
};

}  // namespace

FileDescriptor OpenBelow(int folder, const std::string& path, int flags) {
    return OpenBelow(folder, path, flags, RESOLVE_BENEATH);
}

FileDescriptor OpenWithoutLinks(const std::string& path, int flags) {
    return Openat2(AT_FDCWD, path, flags, RESOLVE_NO_SYMLINKS);
}

std::optional<std::vector<Entry>> List(const FileDescriptor& folder) {
    const int copy = folder ? fcntl(folder.Get(), F_DUPFD_CLOEXEC, 0) : -1;
    DIR* const opened = copy >= 0 ? fdopendir(copy) : nullptr;
    if (opened == nullptr) {
        FileDescriptor(copy).Close();
        return std::nullopt;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opened, closedir);
    std::vector<Entry> entries;
    while (const dirent* const entry = readdir(stream.get())) {  // NOLINT(concurrency-mt-unsafe): own stream
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            entries.push_back({std::string(name), entry->d_type});
        }
    }
    return entries;
}

// Never destroyed, like all that the platform thread uses: it may outlive main().

const std::string& TreePath() {
    static const std::string& path = *std::make_unique<std::string>(FindTreePath()).release();
    return path;
}

std::shared_ptr<Tree> Tree::Current() {
    static CurrentTree& current = *std::make_unique<CurrentTree>().release();
    struct stat status {};
    if (stat(TreePath().c_str(), &status) != 0) {
        return nullptr;
    }
    const Guard guard(current.mutex);
    if (!current.tree || !current.tree->IsAt(status)) {
        FileDescriptor folder(open(TreePath().c_str(), AS_FOLDER));
        if (!folder) {
            return nullptr;
        }
        current.tree = std::make_shared<Tree>(std::move(folder));
    }
    return current.tree;
}

Tree::Tree(FileDescriptor folder) : m_folder(std::move(folder)) {
    struct stat status {};
    if (fstat(m_folder.Get(), &status) == 0) {
        m_device = status.st_dev;
        m_inode = status.st_ino;
    }
}

bool Tree::IsAt(const struct stat& status) const {
    return status.st_dev == m_device && status.st_ino == m_inode;
}

FileDescriptor Tree::Open(const std::string& path, int flags) const {
    if (path != DB && !path.starts_with(std::string(DB) + '/')) {
        return OpenBelow(Folder(), path, flags);
    }
    const FileDescriptor settings = OpenBelow(Folder(), FolderOf(DB), AS_FOLDER);
    const std::string name = NameIn(DB);
    if (!settings || path == DB) {
        return FileDescriptor(settings ? openat(settings.Get(), name.c_str(), flags | O_CLOEXEC) : -1);
    }
    const FileDescriptor db(openat(settings.Get(), name.c_str(), AS_FOLDER));
    return db ? OpenBelow(db.Get(), path.substr(DB.size() + 1), flags) : FileDescriptor();
}

FileDescriptor Tree::OpenFolder(const std::string& path) const {
    return Open(path, AS_FOLDER);
}

FileDescriptor Tree::OpenKeptFolder(const std::string& path) const {
    return OpenBelow(Folder(), path, AS_FOLDER, RESOLVE_BENEATH | RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS);
}

int Tree::MakeFolders(const std::string& path) const {
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = path.find('/', end + 1);
        const std::string folder = path.substr(0, end);
        if (OpenFolder(folder)) {
            continue;
        }
        if (errno != ENOENT) {
            return errno;
        }
        const FileDescriptor parent = OpenFolder(FolderOf(folder));
        if (!parent || (mkdirat(parent.Get(), NameIn(folder).c_str(), 0777) != 0 && errno != EEXIST)) {
            return errno;
        }
    }
    return 0;
}

std::shared_ptr<const OwnFolder> Tree::GetOwnFolder() {
    const Guard guard(m_mutex);
    if (!m_ownFolder) {
        OwnFolder made = MakeOwnFolder();
        if (made.folder) {
            m_ownFolder = std::make_shared<const OwnFolder>(std::move(made));
        }
    }
    return m_ownFolder;
}

void Tree::LeaveOwnFolder(const std::shared_ptr<const OwnFolder>& left) {
    const Guard guard(m_mutex);
    if (m_ownFolder == left) {
        m_ownFolder.reset();
    }
}

/** Between making and locking it, a process that starts may take the folder for a leftover: then make another. */
OwnFolder Tree::MakeOwnFolder() const {
    if (mkdirat(Folder(), OWN_FOLDERS, 0777) != 0 && errno != EEXIST) {
        return {};
    }
    const FileDescriptor all(openat(Folder(), OWN_FOLDERS, AS_FOLDER | O_NOFOLLOW));
    for (int attempt = 0; all && attempt < ATTEMPTS; ++attempt) {
        const std::string name = UniqueName() + '-' + std::to_string(attempt);
        // The folder is open like any other, so that a process of another user can remove it as a leftover.
        if (mkdirat(all.Get(), name.c_str(), 0777) != 0) {
            if (errno == EEXIST) {
                continue;
            }
            return {};
        }
        FileDescriptor own(openat(all.Get(), name.c_str(), TO_LIST));
        struct stat opened {};
        struct stat named {};
        if (Lock(own) && fstat(own.Get(), &opened) == 0 &&
            fstatat(all.Get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
            opened.st_ino == named.st_ino) {
            return {std::move(own), TreePath() + '/' + OWN_FOLDERS + '/' + name};
        }
    }
    return {};
}

void Tree::RemoveLeftovers() const {
    const FileDescriptor all(openat(Folder(), OWN_FOLDERS, TO_LIST));
    if (const auto entries = List(all)) {
        for (const Entry& entry : *entries) {
            RemoveOwnFolderOfNobody(all, entry.name);
        }
    }
    RemoveFilesOfNobody(FileDescriptor(openat(Folder(), ".", TO_LIST)));
    RemoveFilesOfNobody(Open(std::string(DB), O_RDONLY | O_DIRECTORY));  // a link, which the search passes by
}

std::string FolderOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? "." : std::string(path.substr(0, slash));
}

std::string NameIn(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string TemporaryName() {
    static std::atomic<unsigned int> count = 0;
    return TEMPORARY_PREFIX + UniqueName() + '-' + std::to_string(++count);
}

}  // namespace host
