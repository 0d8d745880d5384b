// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_CALLER_H
#define KAVRELCTL_CALLER_H

#include <optional>
#include <string>
#include <vector>

#include "KavrelClient.h"

namespace ctl {

/** A connection to the bus and the program behind it, as far as the kernel knows the process. */
struct Caller {
    /** Unique name on the bus. */
    std::string name;
    /** Nothing if the connection had gone before it could be looked up. */
    std::optional<unsigned> process;
    /** Program and arguments; empty if the process had gone, or hides them. */
    std::vector<std::string> command;
};

Caller FindCaller(const tools::KavrelClient& client, const std::string& name);
/** The program's name without its folder, if it is known. */
std::optional<std::string> ProgramOf(const Caller& caller);
/** "kavrelctl volume 30 (pid 4711)". */
std::string InWords(const Caller& caller);

}  // namespace ctl

#endif
