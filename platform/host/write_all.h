// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_HOST_WRITE_ALL_H
#define KAVREL_HOST_WRITE_ALL_H

#include <string_view>

namespace host {

/**
 * Writes everything, on any thread. A file that may not grow is an error like any other: the first call makes
 * the process ignore the signal that comes with it, unless the process does something about that signal.
 * @return 0 or the errno
 */
int WriteAll(int fd, std::string_view text);

/** Makes the process ignore the signal of a write to a pipe without a reader, unless it handles that signal. */
void IgnorePipeSignal();

}  // namespace host

#endif
