// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_HOST_FILE_DESCRIPTOR_H
#define KAVREL_HOST_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace host {

/** Owns an open file. Empty, it may carry in errno why the file could not be opened: closing keeps errno. */
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : m_number(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~FileDescriptor() { Close(); }

    explicit operator bool() const { return m_number >= 0; }
    int Get() const { return m_number; }

    void Close() {
        if (m_number >= 0) {
            const int savedErrno = errno;
            close(std::exchange(m_number, -1));
            errno = savedErrno;
        }
    }

private:
    int m_number = -1;
};

}  // namespace host

#endif
