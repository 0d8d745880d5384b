// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** How the file of one value is read and written. */
#ifndef KAVREL_HOST_VALUE_FILE_H
#define KAVREL_HOST_VALUE_FILE_H

#include <memory>
#include <string>
#include <string_view>

#include "directory.h"
#include "tree.h"

namespace host {

/** The folder of a value, kept open so that the next write need not look for it. */
struct KeptFolder {
    std::shared_ptr<Tree> tree;  // null: nothing is kept
    FileDescriptor folder;
};

/** The errno, or 0. The text comes without its newline. */
int ReadFile(const FileDescriptor& file, std::string& text, Empty empty);

/** The errno, or 0. Refuses at once what could not be opened without waiting. */
int ReadFileIn(const FileDescriptor& folder, const std::string& name, std::string& text);

/**
 * Replaces the value, and makes missing folders but those of zones.
 * @param kept the value's folder, if it is certain that the folder is still in its place; set to the folder to
 *             keep, if it can be kept; may be null
 * @return the errno, or 0
 */
int ReplaceValue(const std::shared_ptr<Tree>& tree, const Value& value, std::string_view text,
                 KeptFolder* kept);

/** Writes the value unless it exists. @return the errno, or 0; EEXIST if it exists */
int MakeValue(Tree& tree, const std::string& path, std::string_view text);

}  // namespace host

#endif
