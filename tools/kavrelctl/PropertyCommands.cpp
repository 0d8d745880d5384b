// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstdint>
#include <optional>

#include "Errors.h"
#include "Output.h"
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

/** Outputs without volume control accept every request and carry none out.
 *  @throws tools::ToolError if a set failed, or nothing can be set */
void ThrowIfNotSet(const tools::KavrelClient& daemon, int status, const std::string& complaint) {
    if (status >= 0 || status == tools::NOT_SUPPORTED) {
        const tools::Reading support = daemon.Read(GetterOf(Property::SUPPORT));
        if (support.status >= 0 && support.value == 0) {
            throw tools::ToolError(tools::EXIT_REFUSED,
                                   complaint + ": the output in use supports " + tools::SupportInWords(0));
        }
    }
    ThrowIfFailed(status, complaint);
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
        const auto add = [&](std::string title, const std::string& words) {
            title.resize(TITLE_WIDTH, ' ');
            screen += style.Bold(title) + words + "\n";
        };
        for (const Property property : PROPERTIES) {
            const tools::Reading reading = daemon.Read(GetterOf(property));
            isComplete = isComplete && reading.status >= 0;
            AddTo(object, property, reading);
            const std::string words = InWords(property, reading);
            add(NameOf(property), reading.status < 0 ? style.Red(words) : words);
        }
        const auto output = OutputOfTv();
        AddTo(object, output);
        if (output) {
            add("output", InWords(*output));
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
        command.add_option_function<std::string>(
            "VOLUME", parse, "N or N%, 0 to 100; +N, N%+: louder; -N, N%-: softer;\nwithout it: show");
        AddJson(command, asJson);
    }

    /** The sign of a change is in front, or at the end as in "5%+". */
    void Parse(const std::string& text) {
        std::string digits = text;
        const auto isSign = [](char letter) { return letter == '+' || letter == '-'; };
        char sign = '\0';
        if (!text.empty() && isSign(text.front())) {
            sign = text.front();
            digits.erase(0, 1);
        } else if (!text.empty() && isSign(text.back())) {
            sign = text.back();
            digits.pop_back();
        }
        if (digits.ends_with('%')) {
            digits.pop_back();
        }
        if (!tools::WholeNumber(0)(digits).empty()) {
            throw CLI::ValidationError("VOLUME", tools::Quoted(text) +
                                                     " is not N, N%, +N, -N, N%+ or N%- with N from 0 to "
                                                     "2147483647");
        }
        isRelative = sign != '\0';
        number = sign == '-' ? -std::stoi(digits) : std::stoi(digits);
    }

    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        if (!number) {
            return Show(daemon, Property::VOLUME, asJson);
        }
        int volume = *number;
        if (isRelative) {
            const std::int64_t sum = std::int64_t{Current(daemon, Property::VOLUME)} + volume;
            volume = static_cast<int>(std::clamp<std::int64_t>(sum, 0, MOST_VOLUME));
        }
        ThrowIfNotSet(daemon, daemon.Command("SetSpeakerVolume", g_variant_new("(i)", volume)),
                      "the volume was not set");
        return ReportChange(Property::VOLUME, volume, asJson);
    }
};

int SetMute(const tools::KavrelClient& daemon, bool mute, bool asJson) {
    const gboolean argument = mute ? TRUE : FALSE;
    ThrowIfNotSet(daemon, daemon.Command("SetSpeakerMute", g_variant_new("(b)", argument)),
                  "mute was not set");
    return ReportChange(Property::MUTE, argument, asJson);
}

struct Mute {
    enum State { OFF, ON, TOGGLE };
    std::optional<State> state;
    bool asJson = false;

    void AddArguments(CLI::App& command) {
        command.add_option("STATE", state, "without it: show")
            ->transform(tools::OneOf({{"on", ON}, {"off", OFF}, {"toggle", TOGGLE}}, tools::SWITCH_SYNONYMS));
        AddJson(command, asJson);
    }

    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        if (!state) {
            return Show(daemon, Property::MUTE, asJson);
        }
        const bool isToggled = *state == TOGGLE;
        return SetMute(daemon, isToggled ? Current(daemon, Property::MUTE) == 0 : *state == ON, asJson);
    }
};

struct Unmute {
    bool asJson = false;

    void AddArguments(CLI::App& command) { AddJson(command, asJson); }
    int Run(const Tool& tool) const { return SetMute(tool.Connect(), false, asJson); }
};

}  // namespace

void AddPropertyCommands(Tool& tool) {
    tool.Add<Status>("status",
                     "Show volume, mute, and the output and its abilities\n"
                     "Exits with 1 if volume, mute or support cannot be read. The bus does not say\n"
                     "which output plays: the TV directory does (KAVREL_TV_DIR or /run/kavrel).\n"
                     "Without one, that line is left out.",
                     "kavrelctl status --json");
    tool.Add<Support>("support", "Show what the output in use supports, in words", "kavrelctl support");
    tool.Add<Volume>("volume",
                     "Show or set the volume\n"
                     "Setting it unmutes first. A change by N starts from the present volume and stops\n"
                     "at 0 and 100. N is sent as it is: the daemon refuses a volume above 100. A %\n"
                     "changes nothing, since 100 is the loudest.",
                     "kavrelctl volume\nkavrelctl volume 30\nkavrelctl volume -5\nkavrelctl volume 5%+");
    tool.Add<Mute>("mute",
                   "Show or set mute\n"
                   "STATE may be in any case; 1, true and yes are on; 0, false and no are off. While\n"
                   "the TV's own speaker is in use, unmuting fades the sound in.",
                   "kavrelctl mute\nkavrelctl mute toggle");
    tool.Add<Unmute>("unmute", "Unmute, as mute off does", "kavrelctl unmute");
}

}  // namespace ctl
