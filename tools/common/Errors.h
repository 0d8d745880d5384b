// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** How the tools end, and the exceptions that make them end. */
#ifndef KAVREL_TOOLS_ERRORS_H
#define KAVREL_TOOLS_ERRORS_H

#include <stdexcept>
#include <string>

namespace tools {

/** The exit statuses of all tools. Scripts rely on them. */
enum ExitCode : int {
    EXIT_DONE = 0,
    /** The daemon or the TV refused the request, or an expectation was not met. */
    EXIT_REFUSED = 1,
    /** No bus, no daemon, or no answer in time. */
    EXIT_UNREACHABLE = 2,
    /** Wrong usage; nothing was done. */
    EXIT_USAGE = 64,
    /** The bus or the daemon had too much to do; nothing was done. */
    EXIT_BUSY = 75,
    /** The bus, or the mode of a file of the TV, does not allow it to this user; nothing was done. */
    EXIT_NOT_ALLOWED = 77,
    // A signal ended the command early: 128 plus the signal's number.
    EXIT_HUNG_UP = 129,
    EXIT_INTERRUPTED = 130,
    EXIT_TERMINATED = 143,
};

/** Ends the tool: `what()` is the one line for standard error, without the program's name and a newline. */
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode exitCode, const std::string& line) : std::runtime_error(line), code(exitCode) {}

    ExitCode code;
};

/** A wrong argument that the command line's grammar accepted. The line ends with a hint at the command's --help. */
class UsageError : public ToolError {
public:
    explicit UsageError(const std::string& line) : ToolError(EXIT_USAGE, line) {}
};

/** The reader of standard output has gone: the tool ends silently and with success. */
class ReaderGone : public std::exception {};

}  // namespace tools

#endif
