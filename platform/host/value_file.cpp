// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "value_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cstdio>

#include "write_all.h"

namespace host {
namespace {

/** Neither does a FIFO make the reader wait, nor does a terminal become the process's own. */
constexpr int TO_READ = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
constexpr int TO_MAKE = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
constexpr int ATTEMPTS = 100;
constexpr const char* DB_VALUES = "settings/db/";

bool IsRegular(const FileDescriptor& file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
}

/** Reads at most one byte more than a value and its newline may have. */
int ReadBytes(const FileDescriptor& file, std::string& bytes) {
    bytes.clear();
    std::array<char, 4096> chunk;
    while (bytes.size() <= MAX_VALUE_SIZE + 1) {
        const ssize_t count = pread(file.Get(), chunk.data(), chunk.size(), static_cast<off_t>(bytes.size()));
        if (count < 0) {
            return errno == ESPIPE ? EINVAL : errno;  // no file but a pipe or the like
        }
        bytes.append(chunk.data(), static_cast<std::size_t>(count));
        if (static_cast<std::size_t>(count) < chunk.size()) {
            break;
        }
    }
    return 0;
}

/** Where a value goes. */
struct Target {
    int folder;
    std::string name;
    bool isSynced;    // a power cut leaves the old or the new value
    bool isReplaced;  // otherwise an existing value is left as it is
};

int Sync(int folder) {
    const FileDescriptor readable(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return readable && fsync(readable.Get()) == 0 ? 0 : errno;
}

int WriteText(const FileDescriptor& file, std::string_view text, bool isSynced) {
    const int error = WriteAll(file.Get(), std::string(text) + '\n');
    return error == 0 && isSynced && fsync(file.Get()) != 0 ? errno : error;
}

/** Renames a finished file into place, or removes it. */
int Place(int folder, const std::string& temporary, const Target& target) {
    const unsigned int how = target.isReplaced ? 0 : RENAME_NOREPLACE;
    if (renameat2(folder, temporary.c_str(), target.folder, target.name.c_str(), how) == 0) {
        return 0;
    }
    const int error = errno;
    unlinkat(folder, temporary.c_str(), 0);
    return error;
}

/** The name of the next file in the own folder. */
std::string NextName() {
    static std::atomic<unsigned int> count = 0;
    return std::to_string(++count);
}

/** Writes in the own folder. @return the errno, or 0; EXDEV if files cannot be renamed from there into place */
int WriteAside(const FileDescriptor& own, const Target& target, std::string_view text) {
    const std::string temporary = NextName();
    FileDescriptor file(openat(own.Get(), temporary.c_str(), TO_MAKE, 0666));
    if (!file) {
        return errno == ENOENT || errno == EEXIST ? errno : EXDEV;
    }
    if (const int error = WriteText(file, text, target.isSynced)) {
        unlinkat(own.Get(), temporary.c_str(), 0);
        return error;
    }
    file.Close();  // before it has the value's name: closing it then would be a second notification
    return Place(own.Get(), temporary, target);
}

/** Writes in the value's folder. @return the errno, or 0; EAGAIN if a starting process removed the file as a leftover */
int WriteBeside(const Target& target, std::string_view text) {
    const std::string temporary = TemporaryName();
    const FileDescriptor file(openat(target.folder, temporary.c_str(), TO_MAKE, 0666));
    if (!file) {
        return errno;
    }
    struct stat status {};
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0 || fstat(file.Get(), &status) != 0 ||
        status.st_nlink == 0) {
        unlinkat(target.folder, temporary.c_str(), 0);
        return EAGAIN;
    }
    if (const int error = WriteText(file, text, target.isSynced)) {
        unlinkat(target.folder, temporary.c_str(), 0);
        return error;
    }
    return Place(target.folder, temporary, target);
}

bool IsRemoved(const FileDescriptor& folder) {
    struct stat status {};
    return fstat(folder.Get(), &status) == 0 && status.st_nlink == 0;
}

bool IsOnOtherFileSystem(const FileDescriptor& own, int folder) {
    struct stat here {};
    struct stat there {};
    return fstat(own.Get(), &here) == 0 && fstat(folder, &there) == 0 && here.st_dev != there.st_dev;
}

/** @return the errno, or 0; EXDEV if the own folder does not serve */
int WriteFromOwnFolder(Tree& tree, const Target& target, std::string_view text) {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        const auto own = tree.GetOwnFolder();
        // A synced value looks first: syncing its text twice would take long.
        if (!own || (target.isSynced && IsOnOtherFileSystem(own->folder, target.folder))) {
            return EXDEV;
        }
        const int error = WriteAside(own->folder, target, text);
        if (error == ENOENT && IsRemoved(own->folder)) {
            tree.LeaveOwnFolder(own);
        } else if (error != EEXIST || !target.isReplaced) {
            return error;
        }
    }
    return EXDEV;
}

int Write(Tree& tree, const Target& target, std::string_view text) {
    int error = WriteFromOwnFolder(tree, target, text);
    if (error == EXDEV) {
        error = EAGAIN;
        for (int attempt = 0; error == EAGAIN && attempt < ATTEMPTS; ++attempt) {
            error = WriteBeside(target, text);
        }
    }
    return error == 0 && target.isSynced ? Sync(target.folder) : error;
}

/** A folder may go between two steps: then it is made again. */
int WriteByPath(Tree& tree, const Value& value, std::string_view text, bool isReplaced) {
    const bool isSynced = value.path.starts_with(DB_VALUES);
    const std::string path = FolderOf(value.path);
    int error = ENOENT;
    for (int attempt = 0; error == ENOENT && attempt < ATTEMPTS; ++attempt) {
        FileDescriptor folder = tree.OpenFolder(path);
        if (!folder && errno == ENOENT && value.topic != ZONE_ROUTES) {
            error = tree.MakeFolders(path);
            if (error != 0) {
                return error;
            }
            folder = tree.OpenFolder(path);
        }
        if (!folder) {
            return errno;
        }
        error = Write(tree, {folder.Get(), NameIn(value.path), isSynced, isReplaced}, text);
    }
    return error;
}

/** S_IFREG and the like, also of a link; 0 if nothing has this name. */
mode_t TypeOf(const FileDescriptor& folder, const std::string& name) {
    struct stat status {};
    const bool isThere = fstatat(folder.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    return isThere ? status.st_mode & S_IFMT : 0;
}

/** Takes off one newline. @return the errno, or 0 */
int ReadText(const FileDescriptor& file, std::string& text, Empty empty) {
    if (!file) {
        return errno;
    }
    if (const int error = ReadBytes(file, text)) {
        return error;
    }
    if (text.empty() && !IsRegular(file)) {
        return EINVAL;
    }
    if (text.empty() && empty == Empty::UNFINISHED) {
        return ENODATA;
    }
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    if (text.size() > MAX_VALUE_SIZE) {
        return EFBIG;
    }
    // The seam's strings end at a NUL: half a text would be a made-up value.
    return text.find('\0') == std::string::npos ? 0 : EINVAL;
}

}  // namespace

int ReadFile(const FileDescriptor& file, const Value& value, std::string& text, Empty empty) {
    int error = ReadText(file, text, empty);
    if (error == 0 && value.range) {
        int number = 0;
        error = ParseInteger(text, *value.range, number);
        if (error == 0) {
            text = std::to_string(number);
        }
    }
    return error;
}

int ReplaceValue(Tree& tree, const Value& value, std::string_view text) {
    return WriteByPath(tree, value, text, true);
}

int MakeValue(Tree& tree, const std::string& path, std::string_view text) {
    return WriteByPath(tree, {path, TEXT}, text, false);
}

std::shared_ptr<const KeptFolder> KeepFolder(const Value& value) {
    std::shared_ptr<Tree> tree = value.path.starts_with(DB_VALUES) ? nullptr : Tree::Current();
    FileDescriptor folder = tree ? tree->OpenKeptFolder(FolderOf(value.path)) : FileDescriptor();
    return folder && TypeOf(folder, NameIn(value.path)) == S_IFREG
               ? std::make_shared<KeptFolder>(KeptFolder{std::move(tree), std::move(folder)})
               : nullptr;
}

Exchange::Exchange(std::shared_ptr<const KeptFolder> kept, const Value& value)
    : m_kept(std::move(kept)), m_value(value), m_own(m_kept->tree->GetOwnFolder()), m_ownName(NextName()) {}

Exchange::~Exchange() {
    if (m_isMade) {
        unlinkat(m_own->folder.Get(), m_ownName.c_str(), 0);
    }
}

int Exchange::Make(std::string_view text) {
    if (!m_own) {
        return EXDEV;
    }
    if (text.size() > MAX_VALUE_SIZE) {
        return EFBIG;
    }
    // That the own folder is found by its path shows that the tree is in its place.
    FileDescriptor file = OpenWithoutLinks(m_own->path + '/' + m_ownName, TO_MAKE);
    if (!file) {
        return errno;
    }
    m_isMade = true;
    const int error = WriteText(file, text, false);
    file.Close();  // before it has the value's name: closing it then would be another notification
    return error == 0 ? Swap() : error;
}

int Exchange::ReadReplaced(std::string& text) const {
    if (TypeOf(m_own->folder, m_ownName) == S_IFDIR) {
        return EISDIR;  // whether it can be read or not
    }
    const FileDescriptor file(openat(m_own->folder.Get(), m_ownName.c_str(), TO_READ));
    return ReadFile(file, m_value, text, Empty::UNFINISHED);
}

int Exchange::Swap() const {
    return renameat2(m_own->folder.Get(), m_ownName.c_str(), m_kept->folder.Get(),
                     NameIn(m_value.path).c_str(), RENAME_EXCHANGE) == 0
               ? 0
               : errno;
}

}  // namespace host
