// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <map>
#include <memory>

#include "Errors.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr int MOST_GAIN = 100;

struct Arguments {
    std::string source;
    std::string output = "both";
    std::string gain;
    std::string duration;
};

/** For the player's gain, whose path 3 writes both outputs and keeps the gain of the main one alone: both
 * outputs are two calls. The second is made even if the first has failed, which is told. */
void CommandEachOutput(const tools::KavrelClient& client, const char* method, AudioPath path,
                       const std::string& complaint) {
    std::map<AudioPath, int> statuses;
    for (const AudioPath one : {MAIN_OUT, SUB_OUT}) {
        if ((path & one) != 0) {
            statuses[one] = client.Command(method, g_variant_new("(i)", int{one}));
        }
    }
    for (const auto& [one, status] : statuses) {
        Require(status, complaint + (one == MAIN_OUT ? " (main output)" : " (sub output)"));
    }
}

int Fade(const Tool& tool, const Arguments& arguments) {
    enum { PLAYER, UNMUTE };
    const int source = tools::Choice("SOURCE", arguments.source, {"player", "unmute"});
    const AudioPath path = PathOf(arguments.output);
    const tools::KavrelClient client(tool.Timeout());
    if (source == PLAYER) {
        CommandEachOutput(client, "ApplyPlayerFadeIn", path, "the player fade-in was not started");
    } else {
        Require(client.Command("ApplyUnmuteFadeIn", g_variant_new("(i)", int{path})),
                "the unmute fade-in was not started");
    }
    return tools::EXIT_DONE;
}

int ResetGain(const Tool& tool, const Arguments& arguments) {
    const AudioPath path = PathOf(arguments.output);
    const tools::KavrelClient client(tool.Timeout());
    CommandEachOutput(client, "ResetPlayerGain", path, "the player gain was not reset");
    return tools::EXIT_DONE;
}

int SetGainOnMute(const Tool& tool, const Arguments& arguments) {
    const int gain = tools::Number("GAIN", arguments.gain, 0, MOST_GAIN);
    const AudioPath path = PathOf(arguments.output);
    const tools::KavrelClient client(tool.Timeout());
    Require(client.Command("ApplyGainOnMute", g_variant_new("(ii)", int{path}, gain)),
            "the unmute gain was not set");
    return tools::EXIT_DONE;
}

int Pulse(const Tool& tool, const Arguments& arguments) {
    const int gain = tools::Number("GAIN", arguments.gain, 0, MOST_GAIN);
    const int duration = tools::Number("MS", arguments.duration, 0);
    const tools::KavrelClient client(tool.Timeout());
    client.Emit("ApplyPulseAudioGain", g_variant_new("(ii)", gain, duration));
    return tools::EXIT_DONE;
}

void OfferOutput(CLI::App& command, Arguments& arguments) {
    command.add_option("OUTPUT", arguments.output, "main, sub or both; none: both");
}

void AddFade(Tool& tool) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& command =
        tool.AddCommand("fade",
                        "Fade a gain in, from 0 to 100 in about 1.5 s\n"
                        "player  Fades the outputs asked for; both is two calls, main and then sub.\n"
                        "unmute  Acts on more than was asked for: without a sub Bluetooth zone, on both\n"
                        "        outputs whatever OUTPUT is. With one, both is main alone; sub is a call\n"
                        "        of its own. Unless the output is muted the gain is 100 at once. Nothing\n"
                        "        happens, without an error, on multi-output audio or TV-to-mobile.",
                        "kavrelctl fade player main\nkavrelctl fade unmute",
                        [&tool, arguments] { return Fade(tool, *arguments); });
    command.add_option("SOURCE", arguments->source, "player or unmute")->required();
    OfferOutput(command, *arguments);
}

void AddGain(Tool& tool) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& group = tool.AddGroup("gain", "Set a gain at once", "kavrelctl gain reset");
    CLI::App& reset = tool.AddCommand(group, "reset",
                                      "Put the player gain back to 100\n"
                                      "both is two calls, main and then sub.",
                                      "kavrelctl gain reset sub",
                                      [&tool, arguments] { return ResetGain(tool, *arguments); });
    OfferOutput(reset, *arguments);
    CLI::App& onMute = tool.AddCommand(
        group, "on-mute",
        "Set the unmute gain\n"
        "Acts on more than was asked for: without a sub Bluetooth zone, on both outputs\n"
        "whatever OUTPUT is. With one, both is main alone; sub is a call of its own.\n"
        "Nothing happens, without an error, on multi-output audio or TV-to-mobile.",
        "kavrelctl gain on-mute 40", [&tool, arguments] { return SetGainOnMute(tool, *arguments); });
    onMute.add_option("GAIN", arguments->gain, "0 to 100, in percent")->required();
    OfferOutput(onMute, *arguments);
}

void AddPulse(Tool& tool) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& command =
        tool.AddCommand("pulse",
                        "Ramp the pulse gain of both outputs, in ten steps\n"
                        "A signal: it is sent when the daemon is there, and nothing comes back.",
                        "kavrelctl pulse 20 1000", [&tool, arguments] { return Pulse(tool, *arguments); });
    command.add_option("GAIN", arguments->gain, "0 to 100, in percent")->required();
    command.add_option("MS", arguments->duration, "how long the ramp takes; 0: at once")->required();
}

}  // namespace

void AddGainCommands(Tool& tool) {
    AddFade(tool);
    AddGain(tool);
    AddPulse(tool);
}

}  // namespace ctl
