// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Caller.h"

#include <algorithm>
#include <fstream>

#include "Print.h"

namespace ctl {

namespace {

/** Program and arguments; the name alone of a process that has ended and that its parent has not waited for yet;
 *  empty if there is no such process. */
std::vector<std::string> CommandOf(unsigned process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::vector<std::string> command;
    std::ifstream arguments(folder + "/cmdline");
    for (std::string argument; std::getline(arguments, argument, '\0');) {
        command.push_back(argument);
    }
    std::ifstream comm(folder + "/comm");
    if (std::string name; command.empty() && std::getline(comm, name)) {
        command.push_back(name);
    }
    return command;
}

}  // namespace

Caller FindCaller(const tools::KavrelClient& client, const std::string& name) {
    Caller caller{name, client.ProcessOf(name), {}};
    if (caller.process) {
        caller.command = CommandOf(*caller.process);
    }
    return caller;
}

std::optional<std::string> ProgramOf(const Caller& caller) {
    if (caller.command.empty()) {
        return std::nullopt;
    }
    const std::string& path = caller.command.front();
    return path.substr(path.rfind('/') + 1);
}

std::string InWords(const Caller& caller) {
    if (!caller.process) {
        return caller.name + ", which has gone";
    }
    std::vector<std::string> command = caller.command;
    command.resize(std::max<size_t>(command.size(), 1));
    command.front() = ProgramOf(caller).value_or("a program that has gone");
    return tools::Printable(tools::Joined(command)) + " (pid " + std::to_string(*caller.process) + ")";
}

}  // namespace ctl
