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

/** The errno, or 0. The text comes without its newline, that of an integer without blanks. */
int ReadFile(const FileDescriptor& file, const Value& value, std::string& text, Empty empty);

/** Replaces the value, and makes missing folders but those of zones. @return the errno, or 0 */
int ReplaceValue(Tree& tree, const Value& value, std::string_view text);

/** The folder of a value, kept open so that a write need not look for it. */
struct KeptFolder {
    std::shared_ptr<Tree> tree;
    FileDescriptor folder;
};

/** Null if each write has to look for the folder, and if anything but a file is in the place of the value. */
std::shared_ptr<const KeptFolder> KeepFolder(const Value& value);

/**
 * A write that changes places: the new file gets the value's name, and the old one moves to the own folder. So
 * the writer can read exactly what it replaced, and the kernel notifies of the file that came and, right after
 * it, of the one that went.
 */
class Exchange {
public:
    /** @param kept the value's folder; it is certain to be in its place */
    Exchange(std::shared_ptr<const KeptFolder> kept, const Value& value);
    /** Removes the replaced file. */
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /** @return the errno, or 0; on failure the value has not changed */
    int Make(std::string_view text);
    /** Reads the replaced file. @return the errno, or 0; EISDIR: it is a folder */
    int ReadReplaced(std::string& text) const;
    /** Puts the replaced file back. */
    void Undo() const { Swap(); }

private:
    int Swap() const;

    const std::shared_ptr<const KeptFolder> m_kept;
    const Value& m_value;
    const std::shared_ptr<const OwnFolder> m_own;
    const std::string m_ownName;  // of the new file, then of the old one, in the own folder
    bool m_isMade = false;        // there is a file of that name
};

/** Writes the value unless it exists. @return the errno, or 0; EEXIST if it exists */
int MakeValue(Tree& tree, const std::string& path, std::string_view text);

}  // namespace host

#endif
