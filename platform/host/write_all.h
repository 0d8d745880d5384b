// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_HOST_WRITE_ALL_H
#define KAVREL_HOST_WRITE_ALL_H

#include <string_view>

namespace host {

/**
 * Writes everything, on any thread. A reader that has gone and a file that may not grow are errors like any
 * other: neither's signal reaches the process, whatever it does about it.
 * @return 0 or the errno
 */
int WriteAll(int fd, std::string_view text);

}  // namespace host

#endif
