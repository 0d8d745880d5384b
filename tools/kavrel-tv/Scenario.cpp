// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Scenario.h"

#include <directory.h>
#include <glib.h>

#include <algorithm>
#include <map>
#include <utility>

#include "CommandLine.h"
#include "Errors.h"
#include "Print.h"

/** The D-Bus description of the daemon's methods, compiled in. */
extern "C" const char kavrel_interface_xml[];

namespace tv {

namespace {

constexpr double LONGEST = 86400;  // seconds
constexpr int HIGHEST_GAIN = 100;

/** Splits as a shell does, with quotes and with comments behind "#". */
Words Split(const std::string& line) {
    char** words = nullptr;
    int count = 0;
    tools::GLibError error;
    if (!g_shell_parse_argv(line.c_str(), &count, &words, error)) {
        if (g_error_matches(error.Get(), G_SHELL_ERROR, G_SHELL_ERROR_EMPTY_STRING)) {
            return {};
        }
        throw tools::UsageError(error->message);
    }
    const tools::GLibPtr<char*> owner(words);
    return {words, words + count};
}

/** Takes the time off the front, if there is one. */
std::optional<Seconds> TakeTime(Words& words) {
    const auto seconds = tools::Parsed<double>(words.front());
    if (!seconds || !(*seconds >= 0 && *seconds <= LONGEST)) {
        return std::nullopt;
    }
    words.erase(words.begin());
    return Seconds(*seconds);
}

// --- Methods and signals

struct Member {
    std::string arguments;      // a letter for the type of each
    std::size_t answers = 0;    // values of a method's reply
    bool isForKavreld = false;  // a signal that kavreld listens to
};

using Members = std::map<std::string, Member>;

const Members SIGNALS = {
    {"BudsConnected", {"i", 0, true}},    {"BudsDisconnected", {"i", 0, true}},
    {"SpkDisconnected", {"is", 0, true}}, {"ApplyPulseAudioGain", {"ii", 0, true}},
    {"SpeakerVolumeChanged", {"ii"}},     {"SpeakerMuteChanged", {"ib"}},
    {"SpeakerChangeRequest", {"ii"}},     {"SpkVolumeChanged", {"iii"}},
};

std::string Types(GDBusArgInfo** arguments) {
    std::string types;
    for (; *arguments != nullptr; ++arguments) {
        types += (*arguments)->signature;
    }
    return types;
}

Members ReadMethods() {
    Members methods;
    const tools::GLibPtr<GDBusNodeInfo> node(g_dbus_node_info_new_for_xml(kavrel_interface_xml, nullptr));
    for (GDBusMethodInfo** method = node->interfaces[0]->methods; *method != nullptr; ++method) {
        methods[(*method)->name] = {Types((*method)->in_args), Types((*method)->out_args).size()};
    }
    return methods;
}

/** @param words the member's name and its arguments, or the name alone where that is allowed */
const Member& FindMember(const Members& members, const std::string& kind, const Words& words,
                         bool nameMaySuffice = false) {
    if (words.empty()) {
        throw tools::UsageError("the name of the " + kind + " is missing");
    }
    const auto found = members.find(words[0]);
    if (found == members.end()) {
        throw tools::UsageError("there is no such " + kind + ": " + tools::Quoted(words[0]));
    }
    const std::size_t count = found->second.arguments.size();
    if (words.size() != count + 1 && !(nameMaySuffice && words.size() == 1)) {
        throw tools::UsageError(words[0] + " takes " + std::to_string(count) +
                                (count == 1 ? " argument" : " arguments"));
    }
    return found->second;
}

/** @return the word, as the validator changes it */
std::string Checked(const CLI::Validator& validator, std::string word) {
    if (const std::string error = validator(word); !error.empty()) {
        throw tools::UsageError(error);
    }
    return word;
}

GVariant* Argument(char type, const std::string& word) {
    switch (type) {
        case 'i':
            return g_variant_new_int32(std::stoi(Checked(tools::WholeNumber(), word)));
        case 'b':
            return g_variant_new_boolean(std::stoi(Checked(tools::OneOf({{"false", 0}, {"true", 1}}), word)));
        default:
            return g_variant_new_string(Checked(tools::Utf8Text(), word).c_str());
    }
}

/** The arguments behind the member's name, as a tuple. */
std::shared_ptr<GVariant> Arguments(const Member& member, const Words& words) {
    std::vector<GVariant*> arguments;
    for (std::size_t i = 0; i < member.arguments.size(); ++i) {
        arguments.push_back(Argument(member.arguments[i], words[i + 1]));
    }
    return {g_variant_ref_sink(g_variant_new_tuple(arguments.data(), arguments.size())), g_variant_unref};
}

// --- The lines: AddOptions() binds what a line holds; Finish() gets the words of a line without a fixed form

CLI::Option* AddTime(CLI::App& line, const std::string& name, Seconds& time) {
    return line.add_option_function<double>(name, [&time](double seconds) { time = Seconds(seconds); })
        ->check(tools::DecimalNumber(0, LONGEST));
}

void AddGainOutput(CLI::App& line, GainOutput& output) {
    line.add_option("OUTPUT", output)->required()->transform(tools::OneOf({{"main", 0}, {"sub", 1}}));
}

template <typename FreeLine>
void AddOptions(CLI::App& line, FreeLine& /*step*/) {
    line.allow_extras();
}

void AddOptions(CLI::App& line, Pause& step) {
    AddTime(line, "SECONDS", step.time)->required();
}

void AddOptions(CLI::App& line, ExpectValue& step) {
    const auto check = [](const std::string& path) {
        return host::IsKey(path) ? "" : tools::Quoted(path) + " is not a path below the TV directory";
    };
    line.add_option("PATH", step.path)->required()->check(CLI::Validator(check, ""));
    line.add_option("TEXT", step.text)->required();
}

void AddOptions(CLI::App& line, ExpectOutput& step) {
    const auto find = [&step](int code) {
        step.route = FindRoute(code);
        if (!VolumeOf(*step.route)) {
            throw tools::UsageError("the output " + std::string(step.route->name) +
                                    " has no volume, whose changes would show that kavreld follows it");
        }
    };
    line.add_option_function<int>("ROUTE", find)->required()->transform(RouteCode());
}

void AddOptions(CLI::App& line, ExpectGain& step) {
    AddGainOutput(line, step.output);
    line.add_option("PERCENT", step.gain)->required()->transform(tools::WholeNumber(0, HIGHEST_GAIN));
}

void AddOptions(CLI::App& line, ExpectFade& step) {
    AddGainOutput(line, step.output);
}

template <typename FixedLine>
void Finish(FixedLine& /*step*/, const Words& /*words*/) {}

void Finish(Say& step, const Words& words) {
    step.text = tools::Joined(words);
}

void Finish(Call& step, const Words& words) {
    const auto arrow = std::find(words.begin(), words.end(), "->");
    const Words call(words.begin(), arrow);
    static const Members METHODS = ReadMethods();
    const Member& method = FindMember(METHODS, "method", call);
    step.method = call[0];
    step.arguments = Arguments(method, call);
    step.answer.assign(arrow == words.end() ? arrow : arrow + 1, words.end());
    if (arrow != words.end() && step.answer.size() != method.answers) {
        throw tools::UsageError(
            step.method + " answers " + std::to_string(method.answers) +
            (method.answers == 1 ? " number, its status" : " numbers, a value and a status"));
    }
}

void Finish(Emit& step, const Words& words) {
    const Member& signal = FindMember(SIGNALS, "signal", words);
    if (!signal.isForKavreld) {
        throw tools::UsageError("kavreld does not listen to the signal " + words[0]);
    }
    step.arguments = Arguments(signal, words);
    step.signal = words[0];
}

void Finish(ExpectSignal& step, const Words& words) {
    FindMember(SIGNALS, "signal", words, true);
    step.signal = words;
}

template <typename Step>
concept HasWithin = requires(Step step) {
    step.within;
};

/** The language: a CLI::App for each kind of line, by the words that it begins with. */
class Language {
public:
    Language() {
        AddVerbs([this](const About& about, const std::function<Change()>& parsed) -> CLI::App& {
            CLI::App& line = m_lines[about.name];
            line.callback([this, parsed] { m_action = parsed(); });
            return line;
        });
        Add("say", Say());
        Add("pause", Pause());
        Add("settle", Pause{.isKeptIfFast = true});
        Add("call", Call());
        Add("emit", Emit());
        Add("expect signal", ExpectSignal());
        Add("expect no signal", ExpectSignal{.isExpected = false, .within = Seconds(0.5)});
        Add("expect value", ExpectValue());
        Add("expect output", ExpectOutput());
        Add("expect gain", ExpectGain());
        Add("expect fade", ExpectFade());
    }

    /** @throws tools::UsageError */
    Action Parse(Words words) {
        CLI::App& line = TakeLine(words);
        Words arguments = TakeWithin(line, words);
        arguments.push_back("--");  // nothing behind it is an option
        arguments.insert(arguments.end(), words.begin(), words.end());
        std::reverse(arguments.begin(), arguments.end());
        try {
            line.parse(arguments);
        } catch (const CLI::ExtrasError&) {
            throw tools::UsageError("unexpected word " + tools::Quoted(WordsOf(line).front()));
        } catch (const CLI::ParseError& error) {
            throw tools::UsageError(error.what());
        }
        return std::exchange(m_action, {});
    }

private:
    template <typename Step>
    void Add(const std::string& name, const Step& initial) {
        CLI::App& line = m_lines[name];
        const auto step = std::make_shared<Step>(initial);
        AddOptions(line, *step);
        if constexpr (HasWithin<Step>) {
            AddTime(line, "--within", step->within);
        }
        line.callback([this, step, initial, &line] {
            Finish(*step, WordsOf(line));
            m_action = std::exchange(*step, initial);
        });
    }

    /** Takes the words off that the line begins with. */
    CLI::App& TakeLine(Words& words) {
        std::string name;
        for (std::size_t count = 0; count < std::min<std::size_t>(words.size(), 3); ++count) {
            name += (count > 0 ? " " : "") + words[count];
            if (const auto found = m_lines.find(name); found != m_lines.end()) {
                words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(count) + 1);
                return found->second;
            }
        }
        throw tools::UsageError(words[0] == "expect"
                                    ? "expect is followed by signal, no signal, value, output, gain or fade"
                                    : "there is no such verb: " + tools::Quoted(words[0]));
    }

    /** Takes "within SECONDS" off the end. @return the option in its place */
    static Words TakeWithin(const CLI::App& line, Words& words) {
        const std::size_t count = words.size();
        if (count < 2 || words[count - 2] != "within" || line.get_option_no_throw("--within") == nullptr) {
            return {};
        }
        const std::string seconds = words.back();
        words.resize(count - 2);
        return {"--within=" + seconds};
    }

    /** The words of a line without a fixed form, and the unexpected ones of another. */
    static Words WordsOf(const CLI::App& line) {
        Words words = line.remaining();
        words.erase(std::find(words.begin(), words.end(), "--"));
        return words;
    }

    std::map<std::string, CLI::App> m_lines;
    Action m_action;
};

/** @return the step, without its place; nothing for a line without words
 *  @throws tools::UsageError */
std::optional<Step> ParseLine(Language& language, const std::string& line) {
    Words words = Split(line);
    if (words.empty()) {
        return std::nullopt;
    }
    const auto at = TakeTime(words);
    if (words.empty()) {
        throw tools::UsageError("a time must be followed by a verb");
    }
    return Step{"", tools::Printable(tools::Joined(words)), at, language.Parse(words)};
}

/** Prints all errors but the last, which it throws for the tool to print. */
void ThrowIfAny(const std::vector<std::string>& errors) {
    for (std::size_t i = 0; i + 1 < errors.size(); ++i) {
        tools::Complain(tools::Printable(errors[i]));
    }
    if (!errors.empty()) {
        throw tools::UsageError(errors.back());
    }
}

}  // namespace

Scenario ParseScenario(const std::string& name, std::string_view text) {
    Language language;
    Scenario scenario;
    std::vector<std::string> errors;
    for (int line = 1; !text.empty(); ++line) {
        const std::string_view row = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(row.size() + 1, text.size()));
        const std::string place = name + ":" + std::to_string(line);
        try {
            if (auto step = ParseLine(language, std::string(row))) {
                step->place = place;
                scenario.push_back(std::move(*step));
            }
        } catch (const tools::UsageError& error) {
            errors.push_back(place + ": " + error.what());
        }
    }
    ThrowIfAny(errors);
    return scenario;
}

}  // namespace tv
