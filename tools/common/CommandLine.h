// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_COMMANDLINE_H
#define KAVREL_TOOLS_COMMANDLINE_H

#include <CLI/App.hpp>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

/**
 * The command line of a tool made of commands. Brings what all tools have in common: --help and --version, an
 * example on every help page, one line and a hint on wrong usage, and the exit codes.
 *
 * Arguments are best taken as text and read in the command's action with the functions below, so that wrong
 * ones are told in the same words everywhere.
 */
class CommandLine {
public:
    /** What a command does; gives its exit code, or throws ToolError. */
    using Action = std::function<int()>;

    /** @param description one line
     *  @param footer the lines below the help, such as examples and the environment */
    CommandLine(const std::string& name, const std::string& description, const std::string& footer);

    /** For the options that stand before the command. */
    CLI::App& App() { return m_app; }

    /** @param description its first line stands in the list of commands, all of it on the command's own help
     * page
     *  @param example a command line, without a prompt; several, each on a line of its own
     *  @return for its arguments */
    CLI::App& AddCommand(const std::string& name, const std::string& description, const std::string& example,
                         Action action);
    /** A command within a group. */
    CLI::App& AddCommand(CLI::App& group, const std::string& name, const std::string& description,
                         const std::string& example, Action action);
    /** A command that does nothing without another one after it. */
    CLI::App& AddGroup(const std::string& name, const std::string& description, const std::string& example);

    /** Parses, runs the one action, and reports whatever goes wrong. @return the exit code */
    int Run(int argc, char** argv);

private:
    int ParseAndAct(int argc, char** argv);
    /** The tool and the commands that were recognised, the outermost first. */
    std::vector<const CLI::App*> Given() const;
    bool HelpIsAsked() const;
    /** "kavrelctl gain reset". */
    std::string CommandPath() const;
    std::string Explained(const CLI::ParseError& error) const;

    CLI::App m_app;
    Action m_action;
};

// Validators for CLI::Option::transform(). What they accept, CLI11 can convert to the type of the argument.

/** Accepts a whole number in decimal digits. */
CLI::Validator WholeNumber(int least = std::numeric_limits<int>::min(),
                           int most = std::numeric_limits<int>::max());
/** Accepts a number, with or without decimals. */
CLI::Validator DecimalNumber(double least, double most);
/** Accepts one of the words, which the help shows, and stores its number in an int, bool or enum. */
CLI::Validator OneOf(const std::vector<std::pair<std::string, int>>& choices);
/** Accepts UTF-8, without which text cannot be sent over the bus. */
CLI::Validator Utf8Text();

/** The integer in a decimal text.
 *  @throws UsageError, which names the argument, if it is none or out of range */
int Number(std::string_view argument, const std::string& text, int least = std::numeric_limits<int>::min(),
           int most = std::numeric_limits<int>::max());
/** The same for a number with decimals. */
double Decimal(std::string_view argument, const std::string& text, double least, double most);
/** The position of the text in the list. @throws UsageError, which names the argument, if it is not there */
int Choice(std::string_view argument, const std::string& text,
           std::initializer_list<std::string_view> choices);
/** The text, which the bus takes only as UTF-8. @throws UsageError, which names the argument, if it is not */
const std::string& Utf8(std::string_view argument, const std::string& text);

}  // namespace tools

#endif
