// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <system_error>
#include <utility>

#include "default_tv.h"
#include "tree.h"
#include "value_file.h"

namespace fs = std::filesystem;

namespace host {
namespace {

/** Neither does a FIFO make the reader wait, nor does a terminal become the process's own. */
constexpr int TO_READ = O_RDONLY | O_NONBLOCK | O_NOCTTY;

std::string Describe(int number) {
    switch (number) {
        case EINVAL:
            return "not a valid value";
        case ERANGE:
            return "out of range";
        case EXDEV:
            return "a link leads out of the TV directory";
        default:
            return std::generic_category().message(number);
    }
}

Error PathError(const char* action, std::string_view path, int number) {
    return MakeError(action, (Root() / path).native(), number);
}

// --- The open TV

bool IsGroupAudio(gid_t group) {
    std::array<char, 4096> buffer;
    ::group found{};
    ::group* audio = nullptr;
    return getgrnam_r("audio", &found, buffer.data(), buffer.size(), &audio) == 0 && audio != nullptr &&
           audio->gr_gid == group;
}

std::string WarningAbout(const Tree& tree) {
    struct stat status {};
    if (fstat(tree.Folder(), &status) != 0) {
        return {};
    }
    const bool isOpenToAll = (status.st_mode & S_IWOTH) != 0;
    const bool isOpenToGroup = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    return isOpenToAll || (isOpenToGroup && !IsGroupAudio(status.st_gid))
               ? "Others than its owner and the group audio may write to " + TreePath()
               : "";
}

struct OpenedTv {
    OpenedTv() {
        std::error_code made;
        fs::create_directories(TreePath(), made);
        const std::shared_ptr<Tree> tree = made ? nullptr : Tree::Current();
        if (!tree) {
            error = MakeError("make the TV in", TreePath(), made ? made.value() : errno);
            return;
        }
        warning = WarningAbout(*tree);
        error = FillIfEmpty(*tree);
        tree->RemoveLeftovers();
    }

    Error error;
    std::string warning;
};

/** Never destroyed: the platform thread may outlive main(). */
const OpenedTv& Opened() {
    static const OpenedTv& tv = *std::make_unique<OpenedTv>().release();
    return tv;
}

/** Null, with errno, while the directory is missing or unusable. */
std::shared_ptr<Tree> OpenedTree() {
    Opened();
    return Tree::Current();
}

/** Makes the directory again if somebody has removed it. */
std::shared_ptr<Tree> OpenedOrNewTree() {
    std::shared_ptr<Tree> tree = OpenedTree();
    if (!tree && errno == ENOENT) {
        std::error_code ignored;  // what matters is whether it is there now
        fs::create_directories(TreePath(), ignored);
        tree = Tree::Current();
    }
    return tree;
}

/** Looks for the TV directory by itself only where a link is on the way. */
FileDescriptor OpenToRead(const std::string& path) {
    Opened();
    FileDescriptor file = OpenWithoutLinks(TreePath() + '/' + path, TO_READ);
    if (file || errno == ENOENT) {
        return file;
    }
    const std::shared_ptr<Tree> tree = Tree::Current();
    return tree ? tree->Open(path, TO_READ) : FileDescriptor();
}

bool IsZoneName(const std::string& name, int& zone) {
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), zone);
    return error == std::errc() && std::to_string(zone) == name && *end == '\0';
}

bool IsZone(const Tree& tree, int zone) {
    return static_cast<bool>(tree.OpenFolder(ZoneFolder(zone)));
}

}  // namespace

Error MakeError(std::string_view action, std::string_view subject, int number) {
    std::string text = "Cannot ";
    text.append(action).append(" ").append(subject).append(": ").append(Describe(number));
    return {number, std::move(text)};
}

const fs::path& Root() {
    Opened();
    static const fs::path& root = *std::make_unique<fs::path>(TreePath()).release();
    return root;
}

const Error& OpenTv() {
    return Opened().error;
}

const std::string& TvWarning() {
    return Opened().warning;
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
    const std::shared_ptr<Tree> tree = OpenedTree();
    const auto entries = tree ? List(tree->Open(ZONES, O_RDONLY | O_DIRECTORY)) : std::nullopt;
    if (!entries) {
        return errno == ENOENT ? Error{} : PathError("list", ZONES, errno);
    }
    for (const auto& [name, type] : *entries) {
        int zone = 0;
        const bool mayBeFolder = type == DT_DIR || type == DT_LNK || type == DT_UNKNOWN;
        if (mayBeFolder && IsZoneName(name, zone) && (type == DT_DIR || IsZone(*tree, zone))) {
            zones.push_back(zone);
        }
    }
    std::sort(zones.begin(), zones.end());
    return {};
}

bool HasZone(int zone) {
    const std::shared_ptr<Tree> tree = OpenedTree();
    return tree && IsZone(*tree, zone);
}

Error Read(const Value& value, std::string& text, Empty empty) {
    const int error = ReadFile(OpenToRead(value.path), value, text, empty);
    return error == 0 || error == ENOENT ? Error{error, {}} : PathError("read", value.path, error);
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
    if (text.size() > MAX_VALUE_SIZE) {
        return PathError("write", value.path, EFBIG);
    }
    const std::shared_ptr<Tree> tree = OpenedOrNewTree();
    const int error = tree ? ReplaceValue(*tree, value, text) : errno;
    return error == 0 ? Error{} : PathError("write", value.path, error);
}

Error Exists(const Value& value, bool& exists) {
    const std::shared_ptr<Tree> tree = OpenedTree();
    exists = tree && tree->Open(value.path, O_PATH);
    return exists || errno == ENOENT ? Error{} : PathError("look for", value.path, errno);
}

Error Remove(const Value& value) {
    const std::shared_ptr<Tree> tree = OpenedTree();
    const FileDescriptor folder = tree ? tree->OpenFolder(FolderOf(value.path)) : FileDescriptor();
    if (folder && unlinkat(folder.Get(), NameIn(value.path).c_str(), 0) == 0) {
        return {};
    }
    return errno == ENOENT ? Error{} : PathError("remove", value.path, errno);
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
