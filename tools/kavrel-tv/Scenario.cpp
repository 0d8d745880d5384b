// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Scenario.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <memory>
#include <span>

#include "CommandLine.h"
#include "Errors.h"
#include "Print.h"
#include "Stage.h"
#include "Verbs.h"

namespace tv {

namespace {

using std::chrono::milliseconds;
using Words = std::vector<std::string>;

constexpr milliseconds PATIENCE(5000);
constexpr milliseconds SILENCE(500);

struct FreeWords {
    void operator()(char** words) const { g_strfreev(words); }
};

/** As a shell reads them: quotes, and comments behind "#". */
Words Split(const std::string& line) {
    char** words = nullptr;
    int count = 0;
    tools::GLibError error;
    if (!g_shell_parse_argv(line.c_str(), &count, &words, error)) {
        if (g_error_matches(error.Get(), G_SHELL_ERROR, G_SHELL_ERROR_EMPTY_STRING)) {
            return {};
        }
        throw tools::UsageError(error.Get()->message);
    }
    const std::unique_ptr<char*, FreeWords> owner(words);
    return {words, words + count};
}

std::optional<milliseconds> Seconds(const std::string& word) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), seconds);
    if (error != std::errc() || end != word.data() + word.size() || !(seconds >= 0 && seconds <= 86400)) {
        return std::nullopt;
    }
    return milliseconds(std::lround(seconds * 1000));
}

milliseconds NeedSeconds(const std::string& word) {
    if (const auto time = Seconds(word)) {
        return *time;
    }
    throw tools::UsageError("\"" + tools::Printable(word) + "\" is no number of seconds");
}

/** Takes "within S" off the end. */
std::optional<milliseconds> TakeWithin(Words& words) {
    if (words.size() < 2 || words[words.size() - 2] != "within") {
        return std::nullopt;
    }
    const milliseconds time = NeedSeconds(words.back());
    words.resize(words.size() - 2);
    return time;
}

void NeedCount(const Words& words, std::size_t count, const char* form) {
    if (words.size() != count) {
        throw tools::UsageError(std::string("the form is: ") + form);
    }
}

int NumberOf(const std::string& word) {
    return tools::Number("each number", word);
}

// --- Methods and signals: their arguments' types

struct Member {
    std::string_view name;
    std::string_view types;
};

constexpr std::array<Member, 9> METHODS = {{
    {"GetSpeakerSupportType", ""},
    {"SetSpeakerVolume", "i"},
    {"GetSpeakerVolume", ""},
    {"SetSpeakerMute", "b"},
    {"GetSpeakerMute", ""},
    {"ApplyPlayerFadeIn", "i"},
    {"ApplyUnmuteFadeIn", "i"},
    {"ResetPlayerGain", "i"},
    {"ApplyGainOnMute", "ii"},
}};

/** What kavreld listens to. */
constexpr std::array<Member, 4> SIGNALS = {{
    {"BudsConnected", "i"},
    {"BudsDisconnected", "i"},
    {"SpkDisconnected", "is"},
    {"ApplyPulseAudioGain", "ii"},
}};

/** What else can be heard. */
constexpr std::array<Member, 4> NEWS = {{
    {"SpeakerVolumeChanged", "ii"},
    {"SpeakerMuteChanged", "ib"},
    {"SpeakerChangeRequest", "ii"},
    {"SpkVolumeChanged", "iii"},
}};

const std::string& Utf8(const std::string& word) {
    return tools::Utf8("each text", word);
}

bool IsTrue(const std::string& word) {
    return tools::Choice("a switch", word, {"false", "true"}) == 1;
}

tools::Variant Argument(char type, const std::string& word) {
    return tools::Variant(g_variant_ref_sink(type == 'i'   ? g_variant_new_int32(NumberOf(word))
                                             : type == 'b' ? g_variant_new_boolean(IsTrue(word))
                                                           : g_variant_new_string(Utf8(word).c_str())));
}

const Member* Find(std::span<const Member> members, const Words& words) {
    const auto found = std::find_if(members.begin(), members.end(), [&](const Member& member) {
        return !words.empty() && words[0] == member.name;
    });
    return found != members.end() ? &*found : nullptr;
}

[[noreturn]] void RefuseMember(const char* kind, const Words& words) {
    throw tools::UsageError(std::string("there is no such ") + kind + ": \"" +
                            tools::Printable(words.empty() ? "" : words[0]) + "\"");
}

void NeedArguments(const Member& member, const Words& words) {
    if (words.size() != member.types.size() + 1) {
        throw tools::UsageError(words[0] + " takes " + std::to_string(member.types.size()) + " arguments");
    }
}

/** A member's arguments, taken from the words behind its name. */
tools::Variant Arguments(std::span<const Member> members, const char* kind, const Words& words) {
    const Member* member = Find(members, words);
    if (member == nullptr) {
        RefuseMember(kind, words);
    }
    NeedArguments(*member, words);
    std::vector<tools::Variant> owners;
    std::vector<GVariant*> arguments;
    for (std::size_t i = 0; i < member->types.size(); ++i) {
        owners.push_back(Argument(member->types[i], words[i + 1]));
        arguments.push_back(owners.back().get());
    }
    return tools::Variant(g_variant_ref_sink(g_variant_new_tuple(arguments.data(), arguments.size())));
}

/** A signal to be heard: the name alone stands for any arguments. */
void NeedSignal(const Words& words) {
    const Member* member = Find(NEWS, words);
    if (member == nullptr) {
        member = Find(SIGNALS, words);
    }
    if (member == nullptr) {
        RefuseMember("signal", words);
    }
    if (words.size() > 1) {
        NeedArguments(*member, words);
    }
}

// --- What the lines do

using Act = std::function<void(Stage&)>;

Act Say(const Words& words) {
    return [text = tools::Joined(words)](Stage& stage) { stage.Say(text); };
}

Act Pause(const Words& words) {
    NeedCount(words, 1, "pause SECONDS");
    const milliseconds time = NeedSeconds(words[0]);
    return [=](Stage& stage) { stage.Pause(time); };
}

Act Settle(const Words& words) {
    NeedCount(words, 1, "settle SECONDS");
    const milliseconds time = NeedSeconds(words[0]);
    return [=](Stage& stage) { stage.Settle(time); };
}

Act Call(Words words) {
    const milliseconds patience = TakeWithin(words).value_or(milliseconds(0));
    const auto arrow = std::find(words.begin(), words.end(), "->");
    const bool isAnswerGiven = arrow != words.end();
    const Words answer(isAnswerGiven ? arrow + 1 : arrow, words.end());
    words.erase(arrow, words.end());
    const std::shared_ptr<GVariant> arguments(Arguments(METHODS, "method", words).release(), g_variant_unref);
    const std::size_t values =
        words[0].starts_with("Get") ? 2 : 1;  // a getter's value comes before its status
    if (isAnswerGiven && answer.size() != values) {
        throw tools::UsageError(words[0] + " answers " + std::to_string(values) +
                                (values == 1 ? " number" : " numbers, a value and a status"));
    }
    return [=](Stage& stage) { stage.Call(words[0], arguments.get(), answer, patience); };
}

Act Emit(const Words& words) {
    const std::shared_ptr<GVariant> arguments(Arguments(SIGNALS, "signal", words).release(), g_variant_unref);
    return [=](Stage& stage) { stage.Emit(words[0], arguments.get()); };
}

Act ExpectSignal(const Words& words, milliseconds patience) {
    if (words.empty()) {
        throw tools::UsageError("the form is: expect signal NAME [ARGUMENTS...] [within SECONDS]");
    }
    NeedSignal(words);
    return [=](Stage& stage) { stage.ExpectSignal(words, patience); };
}

Act ExpectNoSignal(const Words& words, milliseconds time) {
    if (words.size() < 2 || words[0] != "signal") {
        throw tools::UsageError("the form is: expect no signal NAME [ARGUMENTS...] [within SECONDS]");
    }
    const Words signal(words.begin() + 1, words.end());
    NeedSignal(signal);
    return [=](Stage& stage) { stage.ExpectNoSignal(signal, time); };
}

Act ExpectValue(const Words& words, milliseconds patience) {
    NeedCount(words, 2, "expect value PATH TEXT [within SECONDS]");
    return [=](Stage& stage) { stage.ExpectValue(words[0], words[1], patience); };
}

Act ExpectOutput(const Words& words, milliseconds patience) {
    NeedCount(words, 1, "expect output ROUTE [within SECONDS]");
    const Route* route = FindRoute(RouteIn(words[0]));
    if (route == nullptr) {
        throw tools::UsageError("there is no such output: " + words[0]);
    }
    return [=](Stage& stage) { stage.ExpectOutput(*route, patience); };
}

Out OutOf(const std::string& word) {
    return tools::Choice("the output", word, {"main", "sub"}) == 0 ? Out::MAIN : Out::SUB;
}

Act ExpectGain(const Words& words, milliseconds patience) {
    NeedCount(words, 2, "expect gain main|sub PERCENT [within SECONDS]");
    return [=, out = OutOf(words[0]), gain = NumberOf(words[1])](Stage& stage) {
        stage.ExpectGain(out, gain, patience);
    };
}

Act ExpectFade(const Words& words, milliseconds patience) {
    NeedCount(words, 1, "expect fade main|sub [within SECONDS]");
    return [=, out = OutOf(words[0])](Stage& stage) { stage.ExpectFade(out, patience); };
}

Act Expect(Words words) {
    const auto within = TakeWithin(words);
    const std::string what = words.empty() ? "" : words[0];
    const Words rest(words.empty() ? words.end() : words.begin() + 1, words.end());
    if (what == "no") {
        return ExpectNoSignal(rest, within.value_or(SILENCE));
    }
    static const std::map<std::string, Act (*)(const Words&, milliseconds)> EXPECTATIONS = {
        {"signal", ExpectSignal},
        {"value", ExpectValue},
        {"output", ExpectOutput},
        {"gain", ExpectGain},
        {"fade", ExpectFade}};
    const auto found = EXPECTATIONS.find(what);
    if (found == EXPECTATIONS.end()) {
        throw tools::UsageError("expect is followed by signal, no signal, value, output, gain or fade");
    }
    return found->second(rest, within.value_or(PATIENCE));
}

Act Understand(const Words& words) {
    static const std::map<std::string, std::function<Act(Words)>> LINES = {
        {"say", Say},   {"pause", Pause}, {"settle", Settle},
        {"call", Call}, {"emit", Emit},   {"expect", Expect}};
    if (const auto found = LINES.find(words[0]); found != LINES.end()) {
        return found->second({words.begin() + 1, words.end()});
    }
    return [deed = UnderstandVerb(words)](Stage& stage) { stage.Do(deed); };
}

}  // namespace

Scenario ParseScenario(const std::string& name, std::string_view text) {
    Scenario scenario;
    for (int line = 1; !text.empty(); ++line) {
        const std::string_view row = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(row.size() + 1, text.size()));
        const std::string place = name + ":" + std::to_string(line);
        try {
            Words words = Split(std::string(row));
            if (words.empty()) {
                continue;
            }
            const auto at = Seconds(words[0]);
            if (at) {
                words.erase(words.begin());
            }
            if (words.empty()) {
                throw tools::UsageError("a time needs something to do");
            }
            scenario.push_back({place, tools::Printable(tools::Joined(words)), at, Understand(words)});
        } catch (const tools::UsageError& error) {
            throw tools::UsageError(place + ": " + error.what());
        }
    }
    return scenario;
}

}  // namespace tv
