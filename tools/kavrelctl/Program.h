// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_PROGRAM_H
#define KAVRELCTL_PROGRAM_H

#include <string>
#include <vector>

#include "Deadline.h"

namespace ctl {

/** Runs a program and returns what it has written: to standard output or, if that is nothing, to standard error.
 *  @throws std::runtime_error if there is no such program, or it fails, or does not end in time */
std::string OutputOf(const std::vector<const char*>& command, tools::Timeout timeout);

}  // namespace ctl

#endif
