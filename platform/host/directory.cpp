// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "write_all.h"

namespace fs = std::filesystem;

namespace host {
namespace {

constexpr std::size_t SUFFIX_SIZE = 6;

class File {
public:
    File(const fs::path& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC, 0666)) {}
    ~File() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    explicit operator bool() const { return m_fd >= 0; }
    int Get() const { return m_fd; }

private:
    const int m_fd;
};

const char* Describe(int error) {
    switch (error) {
        case EINVAL:
            return "not a valid value";
        case ERANGE:
            return "out of range";
        default:
            return std::strerror(error);  // NOLINT(concurrency-mt-unsafe): glibc has a buffer for each thread
    }
}

Error PathError(const char* action, const fs::path& path, int number) {
    return MakeError(action, path.native(), number);
}

// --- Reading

int ReadFile(const fs::path& path, std::string& text, Empty empty) {
    const File file(path, O_RDONLY | O_NONBLOCK);  // a FIFO must not make the reader wait
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }

    text.clear();
    std::array<char, 4096> chunk;
    while (text.size() <= MAX_VALUE_SIZE + 1) {
        const ssize_t count = read(file.Get(), chunk.data(), chunk.size());
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        text.append(chunk.data(), static_cast<std::size_t>(count));
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

// --- Writing

/** Temporary names need only be unlike those of other live writers: a clash is tried again. */
std::string RandomSuffix() {
    constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::array<unsigned char, SUFFIX_SIZE> bytes{};
    if (getentropy(bytes.data(), bytes.size()) != 0) {
        std::abort();  // cannot happen: the kernel has the call, and six bytes are few
    }
    std::string suffix;
    for (const unsigned char byte : bytes) {
        suffix += LETTERS[byte % LETTERS.size()];
    }
    return suffix;
}

/**
 * A live writer holds a lock on its temporary file, which the kernel drops with the process; a file that can
 * be locked is a leftover. Between making and locking its file a live writer can lose it to this: it makes
 * another.
 */
void RemoveLeftovers(const fs::path& folder, const std::string& prefix) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (!name.starts_with(prefix) || name.size() != prefix.size() + SUFFIX_SIZE) {
            continue;
        }
        const File leftover(entry->path(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
        if (leftover && flock(leftover.Get(), LOCK_EX | LOCK_NB) == 0) {
            unlink(entry->path().c_str());
        }
    }
}

enum class Replace { YES, NO };
enum class Sync { YES, NO };

/** One attempt. EEXIST, EWOULDBLOCK and ENOENT may mean that the temporary file met another writer. */
int WriteOnce(const fs::path& path, const fs::path& temporary, std::string_view text, Replace replace,
              Sync sync) {
    const File file(temporary, O_WRONLY | O_CREAT | O_EXCL);
    if (!file || flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return errno;
    }
    int error = WriteAll(file.Get(), text);
    if (error == 0 && sync == Sync::YES && fsync(file.Get()) != 0) {
        error = errno;
    }
    const unsigned int how = replace == Replace::YES ? 0 : RENAME_NOREPLACE;
    if (error == 0 && renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), how) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(temporary.c_str());
    }
    return error;
}

int WriteFile(const fs::path& path, std::string text, Replace replace, Sync sync) {
    constexpr int ATTEMPTS = 100;
    text += '\n';
    const fs::path folder = path.parent_path();
    const std::string prefix = '.' + path.filename().string() + '.';
    RemoveLeftovers(folder, prefix);
    int error = 0;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        error = WriteOnce(path, folder / (prefix + RandomSuffix()), text, replace, sync);
        const bool metAnother = error == EWOULDBLOCK || error == ENOENT;
        if (!metAnother && !(error == EEXIST && replace == Replace::YES)) {
            break;
        }
    }
    if (error == 0 && sync == Sync::YES) {
        fsync(File(folder, O_RDONLY | O_DIRECTORY).Get());
    }
    return error;
}

// --- The default TV

bool HasValues(const fs::path& folder) {
    const auto isValue = [](const fs::directory_entry& entry) {
        return !entry.path().filename().string().starts_with('.');
    };
    return std::any_of(fs::directory_iterator(folder), fs::directory_iterator(), isValue);
}

/**
 * Several processes may start at once, and none waits for another. Each process that finds the directory empty,
 * or marked by a process that is still filling it (or was killed), adds the missing files and replaces none. So
 * no process goes on with half a TV, and none overwrites a value that another has set since.
 */
void FillIfEmpty(const fs::path& root) {
    const fs::path mark = root / ".filling";
    if (HasValues(root) && !fs::exists(mark)) {  // in this order: the mark is there before the first value
        return;
    }
    if (!File(mark, O_WRONLY | O_CREAT)) {
        throw fs::filesystem_error("open", mark, std::error_code(errno, std::generic_category()));
    }
    for (const char* const folder : DEFAULT_FOLDERS) {
        fs::create_directories(root / folder);
    }
    for (const NamedValue& value : NAMED_VALUES) {
        if (value.initial == nullptr) {
            continue;
        }
        const fs::path path = root / value.path;
        fs::create_directories(path.parent_path());
        const int error = WriteFile(path, value.initial, Replace::NO, Sync::NO);
        if (error != 0 && error != EEXIST) {
            throw fs::filesystem_error("write", path, std::error_code(error, std::generic_category()));
        }
    }
    fs::remove(mark);
}

fs::path FindRoot() {
    const char* const name = std::getenv("KAVREL_TV_DIR");
    std::error_code ignored;  // then the working directory is gone, and nothing can be read
    return fs::absolute(name != nullptr && *name != '\0' ? name : "/run/kavrel", ignored);
}

Error Open(const fs::path& root) {
    try {
        fs::create_directories(root);
        FillIfEmpty(root);
    } catch (const fs::filesystem_error& error) {
        return PathError("make the TV in", error.path1(), error.code().value());
    }
    return {};
}

struct OpenedTv {
    fs::path root = FindRoot();
    Error error = Open(root);
};

/** Never destroyed: the platform thread may outlive main(). */
const OpenedTv& Tv() {
    static const OpenedTv& tv = *std::make_unique<OpenedTv>().release();
    return tv;
}

bool IsZoneName(const std::string& name, int& zone) {
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), zone);
    return error == std::errc() && std::to_string(zone) == name && *end == '\0';
}

}  // namespace

Error MakeError(std::string_view action, std::string_view subject, int number) {
    std::string text = "Cannot ";
    text.append(action).append(" ").append(subject).append(": ").append(Describe(number));
    return {number, std::move(text)};
}

const fs::path& Root() {
    return Tv().root;
}

const Error& OpenTv() {
    return Tv().error;
}

bool IsKey(std::string_view key) {
    const std::string wrapped = '/' + std::string(key) + '/';
    return wrapped.find("//") == std::string::npos && wrapped.find("/.") == std::string::npos;
}

Error RefuseKey(std::string_view folder, std::string_view key) {
    std::string text = "Refused the key \"";
    text.append(key).append("\" of ").append((Root() / folder).native());
    return {EINVAL, std::move(text)};
}

Error GetZones(std::vector<int>& zones) {
    zones.clear();
    std::error_code error;
    const fs::path folder = Root() / ZONES;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        int zone = 0;
        std::error_code ignored;
        if (IsZoneName(entry->path().filename(), zone) && entry->is_directory(ignored)) {
            zones.push_back(zone);
        }
    }
    std::sort(zones.begin(), zones.end());
    if (!error || error == std::errc::no_such_file_or_directory) {
        return {};
    }
    zones.clear();
    return PathError("list", folder, error.value());
}

bool HasZone(int zone) {
    std::error_code ignored;
    return fs::is_directory(Root() / ZoneFolder(zone), ignored);
}

Error Read(const Value& value, std::string& text, Empty empty) {
    const fs::path path = Root() / value.path;
    int error = ReadFile(path, text, empty);
    if (error == 0 && value.range) {
        int number = 0;
        error = ParseInteger(text, *value.range, number);
        if (error == 0) {
            text = std::to_string(number);
        }
    }
    if (error == 0 || error == ENOENT) {
        return {error, {}};
    }
    return PathError("read", path, error);
}

Error Read(const Value& value, int& number) {
    std::string text;
    Error error = Read({value.path, value.range.value_or(ANY_INTEGER)}, text);
    if (!error) {
        ParseInteger(text, ANY_INTEGER, number);
    }
    return error;
}

Error Write(const Value& value, std::string_view text) {
    const fs::path path = Root() / value.path;
    if (text.size() > MAX_VALUE_SIZE) {
        return PathError("write", path, EFBIG);
    }
    if (value.topic != ZONE_ROUTES) {
        std::error_code ignored;  // what matters is whether the file can be made
        fs::create_directories(path.parent_path(), ignored);
    }
    const Sync sync = value.path.starts_with("settings/db/") ? Sync::YES : Sync::NO;
    const int error = WriteFile(path, std::string(text), Replace::YES, sync);
    return error == 0 ? Error{} : PathError("write", path, error);
}

Error Exists(const Value& value, bool& exists) {
    const fs::path path = Root() / value.path;
    exists = access(path.c_str(), F_OK) == 0;
    return exists || errno == ENOENT ? Error{} : PathError("look for", path, errno);
}

Error Remove(const Value& value) {
    const fs::path path = Root() / value.path;
    return unlink(path.c_str()) == 0 || errno == ENOENT ? Error{} : PathError("remove", path, errno);
}

int ParseInteger(std::string_view text, Range range, int& number) {
    constexpr std::string_view BLANKS = " \t";
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    text = text.substr(0, text.find_last_not_of(BLANKS) + 1);
    int parsed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
        return EINVAL;
    }
    if (error == std::errc::result_out_of_range || parsed < range.min || parsed > range.max) {
        return ERANGE;
    }
    number = parsed;
    return 0;
}

}  // namespace host
