// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Errors.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr int MOST_GAIN = 100;

/** The outputs whose gain changes, as the daemon's bit mask. */
enum Path : int { MAIN = 1, SUB = 2, BOTH = 3 };

void AddGain(CLI::App& command, int& gain) {
    command.add_option("GAIN", gain, "0 to 100, in percent")
        ->required()
        ->transform(tools::WholeNumber(0, MOST_GAIN));
}

void AddOutput(CLI::App& command, Path& path) {
    command.add_option("OUTPUT", path, "default: both")
        ->transform(tools::OneOf({{"main", MAIN}, {"sub", SUB}, {"both", BOTH}}));
}

/**
 * Calls a method of the player gain for each output of the path, the second even if the first failed. One call
 * for both would write both outputs, but make the daemon remember the gain of the main output alone.
 */
void CommandEachOutput(const tools::KavrelClient& daemon, const char* method, Path path,
                       const std::string& complaint) {
    const auto command = [&](Path output) {
        return (path & output) == 0 ? 0 : daemon.Command(method, g_variant_new("(i)", int{output}));
    };
    const int mainStatus = command(MAIN);
    const int subStatus = command(SUB);
    ThrowIfFailed(mainStatus, complaint + " (main output)");
    ThrowIfFailed(subStatus, complaint + " (sub output)");
}

struct Fade {
    enum Source { PLAYER, UNMUTE } source = PLAYER;
    Path path = BOTH;

    void AddArguments(CLI::App& command) {
        command.add_option("SOURCE", source)
            ->required()
            ->transform(tools::OneOf({{"player", PLAYER}, {"unmute", UNMUTE}}));
        AddOutput(command, path);
    }

    int Run(const Tool& tool) const {
        const tools::KavrelClient daemon = tool.Connect();
        if (source == PLAYER) {
            CommandEachOutput(daemon, "ApplyPlayerFadeIn", path, "the player fade-in was not started");
        } else {
            ThrowIfFailed(daemon.Command("ApplyUnmuteFadeIn", g_variant_new("(i)", int{path})),
                          "the unmute fade-in was not started");
        }
        return tools::EXIT_DONE;
    }
};

struct GainReset {
    Path path = BOTH;

    void AddArguments(CLI::App& command) { AddOutput(command, path); }
    int Run(const Tool& tool) const {
        CommandEachOutput(tool.Connect(), "ResetPlayerGain", path, "the player gain was not reset");
        return tools::EXIT_DONE;
    }
};

struct GainOnMute {
    int gain = 0;
    Path path = BOTH;

    void AddArguments(CLI::App& command) {
        AddGain(command, gain);
        AddOutput(command, path);
    }

    int Run(const Tool& tool) const {
        ThrowIfFailed(tool.Connect().Command("ApplyGainOnMute", g_variant_new("(ii)", int{path}, gain)),
                      "the unmute gain was not set");
        return tools::EXIT_DONE;
    }
};

struct Pulse {
    int gain = 0;
    int milliseconds = 0;

    void AddArguments(CLI::App& command) {
        AddGain(command, gain);
        command.add_option("MS", milliseconds, "Duration of the ramp in milliseconds; 0: at once")
            ->required()
            ->transform(tools::WholeNumber(0));
    }

    int Run(const Tool& tool) const {
        tool.Connect().Emit("ApplyPulseAudioGain", g_variant_new("(ii)", gain, milliseconds));
        return tools::EXIT_DONE;
    }
};

}  // namespace

void AddGainCommands(Tool& tool) {
    tool.Add<Fade>("fade",
                   "Fade a gain in, from 0 to 100 in about 1.5 s\n"
                   "player  It fades OUTPUT; both is two calls, main and then sub.\n"
                   "unmute  Without a sub Bluetooth zone it fades both outputs whatever OUTPUT is.\n"
                   "        With one, both is main alone; sub needs a call of its own. If the output\n"
                   "        is not muted, the gain is 100 at once. With multi-output audio or\n"
                   "        TV-to-mobile the daemon does nothing and reports no error.",
                   "kavrelctl fade player main\nkavrelctl fade unmute");
    CLI::App& gain = tool.AddGroup("gain", "Set a gain at once", "kavrelctl gain reset");
    tool.Add<GainReset>("reset",
                        "Set the player gain back to 100\n"
                        "both is two calls, main and then sub.",
                        "kavrelctl gain reset sub", &gain);
    tool.Add<GainOnMute>("on-mute",
                         "Set the unmute gain\n"
                         "Without a sub Bluetooth zone it sets both outputs whatever OUTPUT is. With one,\n"
                         "both is main alone; sub needs a call of its own. With multi-output audio or\n"
                         "TV-to-mobile the daemon does nothing and reports no error.",
                         "kavrelctl gain on-mute 40", &gain);
    tool.Add<Pulse>("pulse",
                    "Ramp the pulse gain of both outputs in ten steps\n"
                    "It sends a signal, which the daemon does not answer. It fails without a daemon,\n"
                    "or if the bus refuses the signal.",
                    "kavrelctl pulse 20 1000");
}

}  // namespace ctl
