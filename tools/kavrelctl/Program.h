// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_PROGRAM_H
#define KAVRELCTL_PROGRAM_H

#include <string>
#include <vector>

#include "Deadline.h"

namespace ctl {

/** The output of a program that has ended, without newlines at the end. */
struct Written {
    std::string output;
    std::string errors;
};

/** Runs a program. @throws std::runtime_error if there is no such program, or it fails, or does not end in time */
Written RunProgram(const std::vector<const char*>& command, tools::Timeout timeout);
/** Runs a program, and throws as RunProgram() does.
 *  @return what it has written to standard output or, if that is nothing, to standard error */
std::string OutputOf(const std::vector<const char*>& command, tools::Timeout timeout);

}  // namespace ctl

#endif
