// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <optional>

#include "Errors.h"
#include "Print.h"
#include "Property.h"
#include "Terminal.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr size_t TITLE_WIDTH = 9;
constexpr int MOST_VOLUME = 100;

int Current(const tools::KavrelClient& daemon, Property property) {
    const tools::Reading reading = daemon.Read(GetterOf(property));
    ThrowIfFailed(reading.status, std::string("the ") + NameOf(property) + " cannot be read");
    return reading.value;
}

/** Prints the new value as JSON only: in words it would repeat what the user has just typed. */
int ReportChange(Property property, int value, bool asJson) {
    if (asJson) {
        Json::Value object;
        AddTo(object, property, {value, 0});
        tools::PrintJson(object);
    }
    return tools::EXIT_DONE;
}

int Show(const tools::KavrelClient& daemon, Property property, bool asJson) {
    const int value = Current(daemon, property);
    if (!asJson) {
        tools::PrintLine(InWords(property, {value, 0}));
    }
    return ReportChange(property, value, asJson);
}

struct Status {
    bool asJson = false;

    void AddArguments(CLI::App& command) { AddJson(command, asJson); }
    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        const tools::Style style;
        bool isComplete = true;
        Json::Value object;
        std::string screen;
        for (const Property property : PROPERTIES) {
            const tools::Reading reading = daemon.Read(GetterOf(property));
            isComplete = isComplete && reading.status >= 0;
            AddTo(object, property, reading);
            std::string title = NameOf(property);
            title.resize(TITLE_WIDTH, ' ');
            const std::string words = InWords(property, reading);
            screen += style.Bold(title) + (reading.status < 0 ? style.Red(words) : words) + "\n";
        }
        tools::Print(asJson ? tools::JsonLine(object) + "\n" : screen);
        return isComplete ? tools::EXIT_DONE : tools::EXIT_REFUSED;
    }
};

struct Support {
    bool asJson = false;

    void AddArguments(CLI::App& command) { AddJson(command, asJson); }
    int Run(const Tool& tool) const { return Show(tool.Connect(), Property::SUPPORT, asJson); }
};

struct Volume {
    std::optional<int> number;
    bool isRelative = false;
    bool asJson = false;

    void AddArguments(CLI::App& command) {
        const auto parse = [this](const std::string& text) { Parse(text); };
        command.add_option_function<std::string>("VOLUME", parse,
                                                 "N, 0 to 100; +N: louder; -N: softer; without it: show");
        AddJson(command, asJson);
    }

    void Parse(const std::string& text) {
        isRelative = text.starts_with('+') || text.starts_with('-');
        std::string digits = text.substr(isRelative ? 1 : 0);
        if (!tools::WholeNumber(0)(digits).empty()) {
            throw CLI::ValidationError(
                "VOLUME", tools::Quoted(text) + " is not N, +N or -N with N from 0 to 2147483647");
        }
        number = text.starts_with('-') ? -std::stoi(digits) : std::stoi(digits);
    }

    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        if (!number) {
            return Show(daemon, Property::VOLUME, asJson);
        }
        int volume = *number;
        if (isRelative) {
            const long sum = long{Current(daemon, Property::VOLUME)} + volume;
            volume = static_cast<int>(std::clamp(sum, 0L, long{MOST_VOLUME}));
        }
        ThrowIfFailed(daemon.Command("SetSpeakerVolume", g_variant_new("(i)", volume)),
                      "the volume was not set");
        return ReportChange(Property::VOLUME, volume, asJson);
    }
};

struct Mute {
    enum State { OFF, ON, TOGGLE };
    std::optional<State> state;
    bool asJson = false;

    void AddArguments(CLI::App& command) {
        command.add_option("STATE", state, "without it: show")
            ->transform(tools::OneOf({{"on", ON}, {"off", OFF}, {"toggle", TOGGLE}}));
        AddJson(command, asJson);
    }

    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        if (!state) {
            return Show(daemon, Property::MUTE, asJson);
        }
        const bool isToggled = *state == TOGGLE;
        const gboolean mute =
            (isToggled ? Current(daemon, Property::MUTE) == 0 : *state == ON) ? TRUE : FALSE;
        ThrowIfFailed(daemon.Command("SetSpeakerMute", g_variant_new("(b)", mute)), "mute was not set");
        return ReportChange(Property::MUTE, mute, asJson);
    }
};

}  // namespace

void AddPropertyCommands(Tool& tool) {
    tool.Add<Status>("status",
                     "Show volume, mute, and what the output in use supports\n"
                     "Exits with 1 if one of them cannot be read. The bus does not say which output\n"
                     "is in use.",
                     "kavrelctl status --json");
    tool.Add<Support>("support", "Show what the output in use supports, in words", "kavrelctl support");
    tool.Add<Volume>("volume",
                     "Show or set the volume\n"
                     "Setting it unmutes first. +N and -N start from the present volume and stop at 0\n"
                     "and 100. N is sent as it is: the daemon refuses a volume above 100.",
                     "kavrelctl volume\nkavrelctl volume 30\nkavrelctl volume -5");
    tool.Add<Mute>("mute",
                   "Show or set mute\n"
                   "While the TV's own speaker is in use, unmuting fades the sound in.",
                   "kavrelctl mute\nkavrelctl mute toggle");
}

}  // namespace ctl
