// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "CommandLine.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <csignal>
#include <sstream>
#include <utility>

#include "Errors.h"
#include "GLibPtr.h"
#include "Print.h"

namespace tools {

namespace {

constexpr size_t NAME_COLUMN = 22;

/** Help pages for a terminal of 80 columns. The list of commands shows the first line of each description. */
class HelpPage : public CLI::Formatter {
public:
    HelpPage() {
        column_width(NAME_COLUMN);
        label("Positionals", "Arguments");
        label("SUBCOMMAND", "COMMAND");
        label("OPTIONS", "options");
    }

    std::string make_usage(const CLI::App* app, std::string name) const override {
        return "\n" + CLI::Formatter::make_usage(app, std::move(name));
    }

    std::string make_subcommand(const CLI::App* command) const override {
        const std::string description = command->get_description();
        std::ostringstream line;
        CLI::detail::format_help(line, command->get_name(), description.substr(0, description.find('\n')),
                                 NAME_COLUMN);
        return line.str();
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_positional() || option->get_type_size() == 0 ? "" : " " + option->get_type_name();
    }

    /** Puts the words that OneOf() lists in front: CLI11 appends them to the type as "TEXT:on|off". */
    std::string make_option_desc(const CLI::Option* option) const override {
        const std::string type = option->get_type_name();
        const size_t colon = type.find(':');
        const std::string words = colon == std::string::npos ? "" : type.substr(colon + 1);
        const std::string& description = option->get_description();
        return words + (words.empty() || description.empty() ? "" : "; ") + description;
    }
};

std::string AsFooter(const std::string& examples) {
    const bool isOne = examples.find('\n') == std::string::npos;
    return (isOne ? "Example:\n  " : "Examples:\n  ") + CLI::detail::find_and_replace(examples, "\n", "\n  ");
}

/** The number of letters to add, leave out, replace or swap with the next one that make `from` the other word. */
size_t Distance(const std::string& from, const std::string& to) {
    std::vector<std::vector<size_t>> distances(from.size() + 1, std::vector<size_t>(to.size() + 1));
    for (size_t i = 0; i <= from.size(); ++i) {
        for (size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                distances[i][j] = i + j;
                continue;
            }
            const size_t replaced = from[i - 1] == to[j - 1] ? 0 : 1;
            distances[i][j] = std::min(
                {distances[i - 1][j] + 1, distances[i][j - 1] + 1, distances[i - 1][j - 1] + replaced});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                distances[i][j] = std::min(distances[i][j], distances[i - 2][j - 2] + 1);
            }
        }
    }
    return distances[from.size()][to.size()];
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& parent) {
    return parent.get_subcommands([](const CLI::App*) { return true; });
}

/** The command that the word in lower case begins, or the one that it most resembles; empty if there is none. Of two
 *  that resemble it as much it is the longer one: "umute" lacks a letter of "unmute", and has none too many. */
std::string NearestCommand(const CLI::App& parent, const std::string& word) {
    size_t limit = word.size() / 3;
    std::string nearest;
    for (const CLI::App* command : CommandsOf(parent)) {
        const std::string& name = command->get_name();
        if (word.size() > 1 && name.starts_with(word)) {
            return name;
        }
        const size_t distance = Distance(word, name);
        if (distance < limit || (distance == limit && name.size() > nearest.size())) {
            limit = distance;
            nearest = name;
        }
    }
    return nearest;
}

std::string NoSuchCommand(const CLI::App& parent, const std::string& word) {
    const GLibPtr<char> lower(g_ascii_strdown(word.c_str(), -1));
    const std::string nearest = NearestCommand(parent, lower.get());
    return "no such command: " + Quoted(word) +
           (nearest.empty() ? "" : " (did you mean " + Quoted(nearest) + "?)");
}

std::string InOneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return Printable(text);
}

}  // namespace

std::string Version() {
    return KAVREL_VERSION;
}

CommandLine::CommandLine(const std::string& name, const std::string& description, const std::string& footer)
    : m_app(description, name) {
    m_app.formatter(std::make_shared<HelpPage>());
    m_app.set_help_flag("-h,--help", "Show this help");
    m_app.set_version_flag("--version", name + " " + Version(), "Show the version");
    m_app.require_subcommand(0, 1);
    m_app.footer(footer);
}

CLI::App& CommandLine::AddCommand(const std::string& name, const std::string& description,
                                  const std::string& example, Action action, CLI::App* group) {
    CLI::App& parent = group == nullptr ? m_app : *group;
    CLI::App* command = parent.add_subcommand(name, description)->group("Commands");
    command->footer(AsFooter(example));
    command->callback([this, action = std::move(action)] { m_action = action; });
    return *command;
}

CLI::App& CommandLine::AddGroup(const std::string& name, const std::string& description,
                                const std::string& example) {
    CLI::App* group = m_app.add_subcommand(name, description)->group("Commands");
    group->footer(AsFooter(example));
    group->require_subcommand(0, 1);
    return *group;
}

void CommandLine::AddHelp() {
    const auto names = std::make_shared<std::vector<std::string>>();
    const std::string example = m_app.get_name() + " help " + CommandsOf(m_app).front()->get_name();
    CLI::App& help = AddCommand("help", "Show the help page of a command, or this list", example,
                                [this, names] { return ShowHelp(*names); });
    help.add_option("COMMAND", *names, "The command; without it: the list of commands");
}

int CommandLine::ShowHelp(const std::vector<std::string>& names) const {
    const CLI::App* shown = &m_app;
    std::string path = m_app.get_name();
    for (const std::string& name : names) {
        const auto commands = CommandsOf(*shown);
        const auto named = std::find_if(commands.begin(), commands.end(), [&name](const CLI::App* command) {
            return command->get_name() == name;
        });
        if (named == commands.end()) {
            throw UsageError(NoSuchCommand(*shown, name));
        }
        shown = *named;
        path += " " + name;
    }
    Print(shown->get_formatter()->make_help(shown, path, CLI::AppFormatMode::Normal));
    return EXIT_DONE;
}

int CommandLine::Run(int argc, char** argv) {
    g_set_prgname(m_app.get_name().c_str());
    std::signal(SIGPIPE, SIG_IGN);
    AddHelp();
    try {
        return ParseAndAct(argc, argv);
    } catch (const ReaderGone&) {
        return EXIT_DONE;
    } catch (const ToolError& error) {
        const bool isUsage = error.code == EXIT_USAGE;
        Complain(InOneLine(error.what()) + (isUsage ? "; see " + CommandPath() + " --help" : ""));
        return error.code;
    } catch (const std::exception& error) {
        Complain(InOneLine(error.what()));
        return EXIT_REFUSED;
    }
}

int CommandLine::ParseAndAct(int argc, char** argv) {
    try {
        m_app.parse(argc, argv);
    } catch (const CLI::Success& helpOrVersion) {
        std::ostringstream page;
        m_app.exit(helpOrVersion, page, page);
        Print(page.str());
        return EXIT_DONE;
    } catch (const CLI::ParseError& error) {
        if (!HelpIsAsked()) {
            throw UsageError(Explained(error));
        }
        Print(m_app.help());
        return EXIT_DONE;
    }
    const Action& action = m_action ? m_action : m_default;
    if (!action) {
        throw UsageError("a command is missing");
    }
    return action();
}

std::vector<const CLI::App*> CommandLine::Given() const {
    std::vector<const CLI::App*> given = {&m_app};
    for (auto next = m_app.get_subcommands(); !next.empty(); next = next.back()->get_subcommands()) {
        given.push_back(next.back());
    }
    return given;
}

/** A wrong argument ends CLI11's parsing before it looks at --help. */
bool CommandLine::HelpIsAsked() const {
    const auto given = Given();
    return std::any_of(given.begin(), given.end(),
                       [](const CLI::App* app) { return app->get_help_ptr()->count() > 0; });
}

std::string CommandLine::CommandPath() const {
    std::vector<std::string> names;
    for (const CLI::App* app : Given()) {
        names.push_back(app->get_name());
    }
    return Joined(names);
}

std::string CommandLine::Explained(const CLI::ParseError& error) const {
    const auto unexpected = m_app.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !unexpected.empty()) {
        const CLI::App& last = *Given().back();
        const bool isCommand = !unexpected.front().starts_with('-') && !CommandsOf(last).empty();
        return isCommand ? NoSuchCommand(last, unexpected.front())
                         : "unexpected argument " + Quoted(unexpected.front());
    }
    return InOneLine(error.what());
}

bool IsSameWord(std::string_view first, std::string_view second) {
    return first.size() == second.size() &&
           g_ascii_strncasecmp(first.data(), second.data(), first.size()) == 0;
}

CLI::Validator WholeNumber(int least, int most) {
    const bool isAny = least == std::numeric_limits<int>::min() && most == std::numeric_limits<int>::max();
    const std::string range =
        isAny ? "of 32 bits" : "from " + std::to_string(least) + " to " + std::to_string(most);
    const auto check = [=](std::string& text) -> std::string {
        const auto number = Parsed<int>(text);
        if (!number || *number < least || *number > most) {
            return Quoted(text) + " is not a whole number " + range;
        }
        text = std::to_string(*number);  // CLI11 would read "010" as an octal number
        return {};
    };
    return {check, ""};
}

CLI::Validator DecimalNumber(double least, double most) {
    const std::string range = Formatted("from %.9g", least) + Formatted(" to %.9g", most);
    const auto check = [=](const std::string& text) {
        const auto number = Parsed<double>(text);
        const bool isValid = number && *number >= least && *number <= most;
        return isValid ? "" : Quoted(text) + " is not a number " + range;
    };
    return {check, ""};
}

const Choices SWITCH_SYNONYMS = {{"1", 1}, {"0", 0}, {"true", 1}, {"false", 0}, {"yes", 1}, {"no", 0}};

CLI::Validator OneOf(const Choices& choices, const Choices& synonyms) {
    std::vector<std::string> words;
    words.reserve(choices.size());
    for (const auto& [word, value] : choices) {
        words.push_back(word);
    }
    Choices accepted = choices;
    accepted.insert(accepted.end(), synonyms.begin(), synonyms.end());
    const auto check = [=](std::string& text) -> std::string {
        const auto chosen = std::find_if(accepted.begin(), accepted.end(), [&text](const auto& choice) {
            return IsSameWord(choice.first, text);
        });
        if (chosen == accepted.end()) {
            return Quoted(text) + " is not one of " + Joined(words, ", ");
        }
        text = std::to_string(chosen->second);
        return {};
    };
    return {check, Joined(words, "|")};
}

CLI::Validator Utf8Text() {
    const auto check = [](const std::string& text) {
        const bool isValid = g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == TRUE;
        return isValid ? "" : Quoted(text) + " is not UTF-8 text";
    };
    return {check, ""};
}

void AddSeconds(CLI::App& command, std::optional<double>& seconds) {
    command.add_option("--seconds", seconds, "End after 0.001 to 86400 seconds (default: at Ctrl-C)")
        ->type_name("S")
        ->transform(DecimalNumber(0.001, 86400));
}

}  // namespace tools
