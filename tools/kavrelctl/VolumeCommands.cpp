// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <memory>
#include <optional>

#include "Errors.h"
#include "Print.h"
#include "State.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr int MOST_VOLUME = 100;

int Current(const tools::KavrelClient& client, Item item) {
    const tools::Reading reading = client.Read(InfoOf(item).getter);
    Require(reading.status, std::string("the ") + InfoOf(item).name + " cannot be read");
    return reading.value;
}

void PrintAsJson(Item item, int value) {
    Json::Value object;
    AddTo(object, item, {value, 0});
    tools::PrintJson(object);
}

int Show(const Tool& tool, Item item) {
    const tools::KavrelClient client(tool.Timeout());
    const int value = Current(client, item);
    if (tool.Json()) {
        PrintAsJson(item, value);
    } else {
        tools::PrintLine(InWords(item, {value, 0}));
    }
    return tools::EXIT_DONE;
}

/** Words would only repeat what was asked for; an object is what asking with --json is for. */
int TellSet(const Tool& tool, Item item, int value) {
    if (tool.Json()) {
        PrintAsJson(item, value);
    }
    return tools::EXIT_DONE;
}

struct VolumeChange {
    bool isRelative;
    int number;
};

VolumeChange ParseVolume(const std::string& text) {
    const bool isRelative = text.starts_with('+') || text.starts_with('-');
    const std::string digits = isRelative ? text.substr(1) : text;
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        throw tools::UsageError("VOLUME must be N, +N or -N, not \"" + tools::Printable(text) + "\"");
    }
    const int number = tools::Number("N of VOLUME", digits, 0);
    return {isRelative, text.starts_with('-') ? -number : number};
}

int SetVolume(const Tool& tool, const std::string& text) {
    const VolumeChange change = ParseVolume(text);
    const tools::KavrelClient client(tool.Timeout());
    int volume = change.number;
    if (change.isRelative) {
        const long sum = long{Current(client, Item::VOLUME)} + change.number;
        volume = static_cast<int>(std::clamp(sum, 0L, long{MOST_VOLUME}));
    }
    Require(client.Command("SetSpeakerVolume", g_variant_new("(i)", volume)), "the volume was not set");
    return TellSet(tool, Item::VOLUME, volume);
}

int SetMute(const Tool& tool, const std::string& text) {
    enum { ON, OFF, TOGGLE };
    const int choice = tools::Choice("STATE", text, {"on", "off", "toggle"});
    const tools::KavrelClient client(tool.Timeout());
    const bool mute = choice == TOGGLE ? Current(client, Item::MUTE) == 0 : choice == ON;
    const gboolean argument = mute ? TRUE : FALSE;
    Require(client.Command("SetSpeakerMute", g_variant_new("(b)", argument)), "mute was not set");
    return TellSet(tool, Item::MUTE, argument);
}

}  // namespace

void AddVolumeCommands(Tool& tool) {
    const auto volume = std::make_shared<std::optional<std::string>>();
    CLI::App& volumeCommand = tool.AddCommand(
        "volume",
        "Show or set the volume\n"
        "Setting it unmutes first. +N and -N start from the present volume and stop at 0\n"
        "and 100; N is handed on as it is, and the daemon refuses what is above 100.",
        "kavrelctl volume\nkavrelctl volume 30\nkavrelctl volume -5",
        [&tool, volume] { return *volume ? SetVolume(tool, **volume) : Show(tool, Item::VOLUME); });
    volumeCommand.add_option("VOLUME", *volume, "N, 0 to 100; +N louder; -N softer; none: show it");
    tool.OfferJson(volumeCommand);

    const auto mute = std::make_shared<std::optional<std::string>>();
    CLI::App& muteCommand =
        tool.AddCommand("mute",
                        "Show or set mute\n"
                        "While the TV's own speaker is in use, the end of mute is a fade-in.",
                        "kavrelctl mute\nkavrelctl mute toggle",
                        [&tool, mute] { return *mute ? SetMute(tool, **mute) : Show(tool, Item::MUTE); });
    muteCommand.add_option("STATE", *mute, "on, off or toggle; none: show it");
    tool.OfferJson(muteCommand);
}

}  // namespace ctl
