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
 * The command line of a tool made of commands. All tools have the same --help and --version, an example on
 * every help page, one line and a hint on wrong usage, and the same exit codes.
 *
 * The validators and functions below read the arguments, so that the tools report wrong ones in the same words.
 */
class CommandLine {
public:
    /** Carries out a command. Returns the exit code, or throws ToolError. */
    using Action = std::function<int()>;

    /** @param description one line
     *  @param footer the lines below the help, such as examples and the environment */
    CommandLine(const std::string& name, const std::string& description, const std::string& footer);

    /** Returns the tool itself, to add options that come before the command. */
    CLI::App& App() { return m_app; }

    /** @param description the first line appears in the list of commands, all lines on the command's help page
     *  @param example one or more command lines, without prompts
     *  @param group of AddGroup(); null for a command outside of groups
     *  @return the command, to add arguments and options to */
    CLI::App& AddCommand(const std::string& name, const std::string& description, const std::string& example,
                         Action action, CLI::App* group = nullptr);
    /** Adds a command that does nothing without another one after it. */
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
 *  @throws UsageError, which names the argument, if the text is no integer or out of range */
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
