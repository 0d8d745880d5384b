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

#include <dlog.h>

#include "write_all.h"

namespace fs = std::filesystem;

namespace host {
namespace {

constexpr const char* TAG = "Kavrel";
constexpr std::size_t SUFFIX_SIZE = 6;

class File {
public:
    File(const fs::path& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC, 0666)) {}
    ~File() {
        if (m_fd >= 0)
            close(m_fd);
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
            return std::strerror(error);
    }
}

int Fail(const char* what, const fs::path& path, int error) {
    __dlog_print(DLOG_ERROR, TAG, "Cannot %s %s: %s\n", what, path.c_str(), Describe(error));
    return Failure(error);
}

// --- Reading

int ReadFile(const fs::path& path, std::string& text, Empty empty) {
    const File file(path, O_RDONLY | O_NONBLOCK);  // a FIFO must not make the reader wait
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;

    text.clear();
    std::array<char, 4096> chunk;
    while (text.size() <= MAX_VALUE_SIZE + 1) {
        const ssize_t count = read(file.Get(), chunk.data(), chunk.size());
        if (count < 0)
            return errno;
        if (count == 0)
            break;
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    if (text.empty() && empty == Empty::unfinished)
        return ENODATA;
    if (text.ends_with('\n'))
        text.pop_back();
    if (text.size() > MAX_VALUE_SIZE)
        return EFBIG;
    // The seam's strings end at a NUL: half a text would be a made-up value.
    return text.find('\0') == std::string::npos ? 0 : EINVAL;
}

// --- Writing

/** Temporary names need only be unlike those of other live writers: a clash is tried again. */
std::string RandomSuffix() {
    constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::array<unsigned char, SUFFIX_SIZE> bytes{};
    if (getentropy(bytes.data(), bytes.size()) != 0)
        std::abort();  // cannot happen: the kernel has the call, and six bytes are few
    std::string suffix;
    for (const unsigned char byte : bytes)
        suffix += LETTERS[byte % LETTERS.size()];
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
        if (!name.starts_with(prefix) || name.size() != prefix.size() + SUFFIX_SIZE)
            continue;
        const File leftover(entry->path(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
        if (leftover && flock(leftover.Get(), LOCK_EX | LOCK_NB) == 0)
            unlink(entry->path().c_str());
    }
}

enum class Replace { yes, no };
enum class Sync { yes, no };

/** One attempt. EEXIST, EWOULDBLOCK and ENOENT may mean that the temporary file met another writer. */
int WriteOnce(const fs::path& path, const fs::path& temporary, std::string_view text, Replace replace,
              Sync sync) {
    const File file(temporary, O_WRONLY | O_CREAT | O_EXCL);
    if (!file || flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
        return errno;
    int error = WriteAll(file.Get(), text);
    if (error == 0 && sync == Sync::yes && fsync(file.Get()) != 0)
        error = errno;
    const unsigned int how = replace == Replace::yes ? 0 : RENAME_NOREPLACE;
    if (error == 0 && renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), how) != 0)
        error = errno;
    if (error != 0)
        unlink(temporary.c_str());
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
        if (!metAnother && !(error == EEXIST && replace == Replace::yes))
            break;
    }
    if (error == 0 && sync == Sync::yes)
        fsync(File(folder, O_RDONLY | O_DIRECTORY).Get());
    return error;
}

// --- The default TV

constexpr std::array DEFAULT_FOLDERS = {"settings/memory", "settings/db", "features", "sound/zones",
                                        "zones",           "audio",       "events"};

constexpr std::array<std::pair<const char*, const char*>, 9> DEFAULT_VALUES = {{
    {"settings/memory/multiscreen/info", R"({"mode":"off"})"},
    {"features/com.norvik/featureconf/internal_speaker_supported", "true"},
    {"features/com.norvik/featureconf/multiview.support", "true"},
    {"features/com.norvik/featureconf/projector_feature_support", "false"},
    {"sound/route", "0"},
    {"audio/master_volume", "10"},
    {"audio/master_mute", "0"},
    {"audio/main_out_gain2", "100"},
    {"audio/sub_out_gain2", "100"},
}};

bool HasValues(const fs::path& folder) {
    const auto isValue = [](const fs::directory_entry& entry) {
        return !entry.path().filename().string().starts_with('.');
    };
    return std::any_of(fs::directory_iterator(folder), fs::directory_iterator(), isValue);
}

/**
 * Several processes may start at once, and none waits for another: whoever finds the directory empty, or the
 * mark of one that is still filling it (or was killed), fills in what is missing and replaces nothing. So no
 * process goes on with half a TV, and none overwrites what another has set since.
 */
void FillIfEmpty(const fs::path& root) {
    const fs::path mark = root / ".filling";
    if (HasValues(root) && !fs::exists(mark))  // in this order: the mark is there before the first value
        return;
    if (!File(mark, O_WRONLY | O_CREAT))
        throw fs::filesystem_error("open", mark, std::error_code(errno, std::generic_category()));
    for (const char* const folder : DEFAULT_FOLDERS)
        fs::create_directories(root / folder);
    for (const auto& [path, text] : DEFAULT_VALUES) {
        fs::create_directories((root / path).parent_path());
        const int error = WriteFile(root / path, text, Replace::no, Sync::no);
        if (error != 0 && error != EEXIST)
            throw fs::filesystem_error("write", root / path, std::error_code(error, std::generic_category()));
    }
    fs::remove(mark);
}

fs::path OpenRoot() {
    const char* const name = std::getenv("KAVREL_TV_DIR");
    std::error_code ignored;  // then the working directory is gone, and nothing can be read
    const fs::path root = fs::absolute(name != nullptr && *name != '\0' ? name : "/run/kavrel", ignored);
    try {
        fs::create_directories(root);
        FillIfEmpty(root);
    } catch (const fs::filesystem_error& error) {
        Fail("make the TV in", error.path1(), error.code().value());
    }
    return root;
}

bool IsZoneName(const std::string& name, int& zone) {
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), zone);
    return error == std::errc() && std::to_string(zone) == name && *end == '\0';
}

}  // namespace

const fs::path& Root() {
    // Never destroyed: the platform thread may outlive main().
    static const fs::path& root = *std::make_unique<fs::path>(OpenRoot()).release();
    return root;
}

bool IsKey(std::string_view key) {
    const std::string wrapped = '/' + std::string(key) + '/';
    return wrapped.find("//") == std::string::npos && wrapped.find("/.") == std::string::npos;
}

std::optional<Item> KeyItem(const char* folder, const char* key) {
    const std::string_view text = key != nullptr ? key : "";
    if (!IsKey(text)) {
        __dlog_print(DLOG_ERROR, TAG, "Refused the key \"%s\" of %s\n", text.data(),
                     (Root() / folder).c_str());
        return std::nullopt;
    }
    return Item{std::string(folder) + '/' + std::string(text), std::nullopt};
}

int GetZones(std::vector<int>& zones) {
    zones.clear();
    std::error_code error;
    const fs::path folder = Root() / "sound/zones";
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        int zone = 0;
        std::error_code ignored;
        if (IsZoneName(entry->path().filename(), zone) && entry->is_directory(ignored))
            zones.push_back(zone);
    }
    std::sort(zones.begin(), zones.end());
    if (!error || error == std::errc::no_such_file_or_directory)
        return 0;
    zones.clear();
    return Fail("list", folder, error.value());
}

bool HasZone(int zone) {
    std::error_code ignored;
    return fs::is_directory(Root() / "sound/zones" / std::to_string(zone), ignored);
}

Item ZoneRoute(int zone) {
    return {"sound/zones/" + std::to_string(zone) + "/route", Range{}, ZONE_ROUTES};
}

Item MasterMute() {
    return {"audio/master_mute", Range{0, 1}};
}

int TryRead(const Item& item, std::string& text, Empty empty) {
    const int error = ReadFile(Root() / item.path, text, empty);
    if (error != 0 || !item.range)
        return error;
    int value = 0;
    const int bad = ParseInteger(text, *item.range, value);
    if (bad == 0)
        text = std::to_string(value);
    return bad;
}

int Read(const Item& item, std::string& text, Empty empty) {
    const int error = TryRead(item, text, empty);
    if (error == 0)
        return 0;
    return error == ENOENT ? Failure(error) : Fail("read", Root() / item.path, error);
}

int Read(const Item& item, int& value) {
    std::string text;
    const int result = Read({item.path, item.range.value_or(Range{})}, text);
    if (result == 0)
        ParseInteger(text, Range{}, value);
    return result;
}

int Write(const Item& item, std::string_view text) {
    const fs::path path = Root() / item.path;
    if (text.size() > MAX_VALUE_SIZE)
        return Fail("write", path, EFBIG);
    if (item.topic != ZONE_ROUTES) {
        std::error_code ignored;  // what matters is whether the file can be made
        fs::create_directories(path.parent_path(), ignored);
    }
    const Sync sync = item.path.starts_with("settings/db/") ? Sync::yes : Sync::no;
    const int error = WriteFile(path, std::string(text), Replace::yes, sync);
    return error == 0 ? 0 : Fail("write", path, error);
}

int Exists(const Item& item) {
    const fs::path path = Root() / item.path;
    if (access(path.c_str(), F_OK) == 0)
        return 1;
    return errno == ENOENT ? 0 : Fail("look for", path, errno);
}

int Remove(const Item& item) {
    const fs::path path = Root() / item.path;
    return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : Fail("remove", path, errno);
}

int ParseInteger(std::string_view text, Range range, int& value) {
    constexpr std::string_view BLANKS = " \t";
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    text = text.substr(0, text.find_last_not_of(BLANKS) + 1);
    int parsed = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error == std::errc::invalid_argument || end != text.data() + text.size())
        return EINVAL;
    if (error == std::errc::result_out_of_range || parsed < range.min || parsed > range.max)
        return ERANGE;
    value = parsed;
    return 0;
}

}  // namespace host
