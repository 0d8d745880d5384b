// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_COMMANDLINE_H
#define KAVREL_TOOLS_COMMANDLINE_H

#include <CLI/App.hpp>
#include <charconv>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

/** The version of all tools, "1.2.3". */
std::string Version();

/**
 * The command line of a tool made of commands. All tools have the same --help and --version, an example on
 * every help page, one line and a hint on wrong usage, and the same exit codes.
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
    /** Sets what the tool does without a command; otherwise that is wrong usage. */
    void SetDefault(Action action) { m_default = std::move(action); }
    /** Adds a command that does nothing without another one after it. */
    CLI::App& AddGroup(const std::string& name, const std::string& description, const std::string& example);

    /** Parses, runs the one action, and reports whatever goes wrong. @return the exit code */
    int Run(int argc, char** argv);

private:
    /** Adds "help [COMMAND]" behind the other commands. */
    void AddHelp();
    /** @param names of a command, the outermost first; none for the tool itself */
    int ShowHelp(const std::vector<std::string>& names) const;
    int ParseAndAct(int argc, char** argv);
    /** The tool and the commands that were recognised, the outermost first. */
    std::vector<const CLI::App*> Given() const;
    bool HelpIsAsked() const;
    /** "kavrelctl gain reset". */
    std::string CommandPath() const;
    std::string Explained(const CLI::ParseError& error) const;

    CLI::App m_app;
    Action m_action;
    Action m_default;
};

/** The number that is the whole text, without a blank or a "+" in front. */
template <typename Number>
std::optional<Number> Parsed(std::string_view text) {
    Number number{};
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

/** Compares two words in any case of their ASCII letters. */
bool IsSameWord(std::string_view first, std::string_view second);

// Validators for CLI::Option::transform(): with them all tools report wrong arguments in the same words. CLI11 can
// convert every text that they accept to the type of the argument.

/** Accepts a whole number in decimal digits. */
CLI::Validator WholeNumber(int least = std::numeric_limits<int>::min(),
                           int most = std::numeric_limits<int>::max());
/** Accepts a number, with or without decimals. */
CLI::Validator DecimalNumber(double least, double most);
/** Words, each with its number. */
using Choices = std::vector<std::pair<std::string, int>>;
/** Accepts one of the words in any case, and stores its number in an int, bool or enum.
 *  @param choices the words that the help shows
 *  @param synonyms more words, which the help leaves out */
CLI::Validator OneOf(const Choices& choices, const Choices& synonyms = {});
/** The synonyms of on (1) and off (0). */
extern const Choices SWITCH_SYNONYMS;
/** Accepts UTF-8, without which text cannot be sent over the bus. */
CLI::Validator Utf8Text();

/** Adds "--seconds S" to a command that runs until Ctrl-C. */
void AddSeconds(CLI::App& command, std::optional<double>& seconds);

}  // namespace tools

#endif
