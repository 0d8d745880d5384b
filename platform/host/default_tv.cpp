// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "default_tv.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>

#include "value_file.h"

namespace host {
namespace {

constexpr const char* MARK = ".filling";

bool IsDotName(const Entry& entry) {
    return entry.name.starts_with('.');
}

bool IsLink(const FileDescriptor& folder, const Entry& entry) {
    struct stat status {};
    return fstatat(folder.Get(), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode);
}

/** Whether `settings` holds nothing but the link `db`, or nothing at all. */
bool HasNoSettings(const Tree& tree) {
    const FileDescriptor folder = tree.Open(SETTINGS, O_RDONLY | O_DIRECTORY);
    const auto entries = List(folder);
    return entries && std::ranges::all_of(*entries, [&](const Entry& entry) {
               return IsDotName(entry) || (entry.name == "db" && IsLink(folder, entry));
           });
}

/** @param isEmpty set on success only */
int LookIfEmpty(const Tree& tree, bool& isEmpty) {
    const auto entries = List(tree.Open(".", O_RDONLY | O_DIRECTORY));
    if (!entries) {
        return errno;
    }
    isEmpty = std::ranges::all_of(*entries, [&](const Entry& entry) {
        return IsDotName(entry) || (entry.name == SETTINGS && HasNoSettings(tree));
    });
    return 0;
}

/** A folder of that name is no mark: it may hold files, and then nobody could remove it. */
bool HasMark(const Tree& tree) {
    struct stat status {};
    return fstatat(tree.Folder(), MARK, &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(status.st_mode);
}

Error TreeError(const char* action, const std::string& path, int number) {
    return MakeError(action, TreePath() + '/' + path, number);
}

Error Fill(Tree& tree) {
    for (const char* const folder : DEFAULT_FOLDERS) {
        if (const int number = tree.MakeFolders(folder)) {
            return TreeError("make", folder, number);
        }
    }
    for (const NamedValue& value : NAMED_VALUES) {
        if (value.initial == nullptr) {
            continue;
        }
        const int number = MakeValue(tree, value.path, value.initial);
        if (number != 0 && number != EEXIST) {
            return TreeError("write", value.path, number);
        }
    }
    return {};
}

}  // namespace

/**
 * Several processes may start at once, and none waits for another: each that finds the directory empty, or the
 * mark of a process that is filling it or was killed meanwhile, makes what is missing and replaces nothing. So no
 * process goes on with half a TV, and none overwrites what another has set since.
 */
Error FillIfEmpty(Tree& tree) {
    bool isEmpty = false;
    if (const int number = LookIfEmpty(tree, isEmpty)) {
        return MakeError("list", TreePath(), number);
    }
    if (!isEmpty && !HasMark(tree)) {  // in this order: the mark is there before the first value
        return {};
    }
    // An existing mark, of whatever kind, is never opened.
    if (!FileDescriptor(openat(tree.Folder(), MARK, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) &&
        errno != EEXIST) {
        return TreeError("make", MARK, errno);
    }
    Error error = Fill(tree);
    if (!error) {
        unlinkat(tree.Folder(), MARK, 0);
    }
    return error;
}

}  // namespace host
