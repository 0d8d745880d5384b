// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Errors.h"
#include "MainLoop.h"
#include "Print.h"
#include "Routes.h"
#include "Tool.h"

namespace ctl {

namespace {

struct Buds {
    bool isConnected = false;
    int reason = 0;

    void AddArguments(CLI::App& command) {
        command.add_option("EVENT", isConnected)
            ->required()
            ->transform(tools::OneOf({{"connected", 1}, {"disconnected", 0}}));
        command.add_option("REASON", reason, "An integer for the log (default: 0)")
            ->transform(tools::WholeNumber());
    }

    int Run(const Tool& tool) const {
        tool.Connect().Emit(isConnected ? "BudsConnected" : "BudsDisconnected", g_variant_new("(i)", reason));
        return tools::EXIT_DONE;
    }
};

/** Accepts any code, and the names that kavrel-tv gives to routes. */
CLI::Validator RouteOrCode() {
    const auto check = [](std::string& text) -> std::string {
        const auto named = tv::CodeOfRoute(text);
        const auto code = named ? named : tools::Parsed<int>(text);
        if (!code) {
            return tools::Quoted(text) + " is neither the name of a route nor an integer of 32 bits";
        }
        text = std::to_string(*code);
        return {};
    };
    return {check, ""};
}

struct SpeakerGone {
    int type = 0;
    std::string name;

    void AddArguments(CLI::App& command) {
        command.add_option("TYPE", type, "The output's route, for the log: a name or a code")
            ->required()
            ->transform(RouteOrCode());
        command.add_option("NAME", name, "The output's name, for the log")
            ->required()
            ->transform(tools::Utf8Text());
    }

    int Run(const Tool& tool) const {
        tool.Connect().Emit("SpkDisconnected", g_variant_new("(is)", type, name.c_str()));
        return tools::EXIT_DONE;
    }
};

struct Wait {
    void AddArguments(CLI::App& /*command*/) {}
    int Run(const Tool& tool) const {
        tools::KavrelClient daemon = tool.Connect();
        tools::MainLoop loop;
        daemon.OnOwnerChanged([&](const std::string& owner) {
            if (!owner.empty()) {
                loop.Quit(tools::EXIT_DONE);
            }
        });
        daemon.EndWithBus(loop);
        if (!daemon.Owner().empty()) {
            return tools::EXIT_DONE;
        }
        tools::GLibPtr<GSource> limit;
        if (const auto timeout = tool.Timeout()) {
            limit = loop.After(*timeout, [] {
                throw tools::ToolError(tools::EXIT_UNREACHABLE,
                                       std::string("kavreld did not come in time: nobody on the bus owns ") +
                                           tools::KAVREL_NAME);
            });
        }
        return loop.Run();
    }
};

}  // namespace

void AddConnectionCommands(Tool& tool) {
    tool.Add<Buds>("buds",
                   "Announce that a wireless headset has come or gone\n"
                   "When it has gone, the daemon asks for the previous output, or the default one.\n"
                   "It sends a signal, which the daemon does not answer. It fails without a daemon,\n"
                   "or if the bus refuses the signal.",
                   "kavrelctl buds disconnected");
    tool.Add<SpeakerGone>("speaker-gone",
                          "Announce that an output has gone\n"
                          "The daemon then sets the previous output, or the default one, even if another\n"
                          "output is in use. It sends a signal, which the daemon does not answer. It fails\n"
                          "without a daemon, or if the bus refuses the signal.",
                          "kavrelctl speaker-gone wifi \"Living room\"");
    tool.Add<Wait>("wait",
                   "Wait until the daemon is on the bus\n"
                   "The exit status is 2 if the daemon does not come within the timeout.",
                   "kavrelctl wait --timeout 30");
}

}  // namespace ctl
