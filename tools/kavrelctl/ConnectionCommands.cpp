// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <memory>

#include "Errors.h"
#include "MainLoop.h"
#include "Tool.h"

namespace ctl {

namespace {

int TellBuds(const Tool& tool, const std::string& event, const std::string& reason) {
    constexpr const char* SIGNALS[] = {"BudsConnected", "BudsDisconnected"};
    const int choice = tools::Choice("EVENT", event, {"connected", "disconnected"});
    const int number = tools::Number("REASON", reason);
    const tools::KavrelClient client(tool.Timeout());
    client.Emit(SIGNALS[choice], g_variant_new("(i)", number));
    return tools::EXIT_DONE;
}

int TellSpeakerGone(const Tool& tool, const std::string& type, const std::string& name) {
    const int number = tools::Number("TYPE", type);
    tools::Utf8("NAME", name);
    const tools::KavrelClient client(tool.Timeout());
    client.Emit("SpkDisconnected", g_variant_new("(is)", number, name.c_str()));
    return tools::EXIT_DONE;
}

int Wait(const Tool& tool) {
    const auto timeout = tool.Timeout();
    tools::KavrelClient client(timeout);
    tools::MainLoop loop;
    client.OnOwnerChanged([&](const std::string& owner) {
        if (!owner.empty()) {
            loop.Quit(tools::EXIT_DONE);
        }
    });
    client.OnBusGone(
        [&] { loop.Guard([] { throw tools::ToolError(tools::EXIT_UNREACHABLE, "the bus has gone"); }); });
    if (!client.Owner().empty()) {
        return tools::EXIT_DONE;
    }
    tools::GLibPtr<GSource> limit;
    if (timeout) {
        limit = loop.After(*timeout, [] {
            throw tools::ToolError(
                tools::EXIT_UNREACHABLE,
                std::string("kavreld did not come in time: nobody on the bus owns ") + tools::KAVREL_NAME);
        });
    }
    return loop.Run();
}

void AddBuds(Tool& tool) {
    struct Arguments {
        std::string event;
        std::string reason = "0";
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& command =
        tool.AddCommand("buds",
                        "Tell the daemon that a wireless headset came or went\n"
                        "When it goes, the daemon asks for the previous output, or the default one.\n"
                        "A signal: it is sent when the daemon is there, and nothing comes back.",
                        "kavrelctl buds disconnected",
                        [&tool, arguments] { return TellBuds(tool, arguments->event, arguments->reason); });
    command.add_option("EVENT", arguments->event, "connected or disconnected")->required();
    command.add_option("REASON", arguments->reason, "an integer for the log; none: 0");
}

void AddSpeakerGone(Tool& tool) {
    struct Arguments {
        std::string type;
        std::string name;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App& command = tool.AddCommand(
        "speaker-gone",
        "Tell the daemon that an output went away\n"
        "It then sets the previous output, or the default one, whichever is in use now.\n"
        "A signal: it is sent when the daemon is there, and nothing comes back.",
        "kavrelctl speaker-gone 4 \"Living room\"",
        [&tool, arguments] { return TellSpeakerGone(tool, arguments->type, arguments->name); });
    command.add_option("TYPE", arguments->type, "route code of the output, for the log")->required();
    command.add_option("NAME", arguments->name, "name of the output, for the log")->required();
}

}  // namespace

void AddConnectionCommands(Tool& tool) {
    AddBuds(tool);
    AddSpeakerGone(tool);
    tool.AddCommand("wait",
                    "Wait until the daemon is on the bus\n"
                    "Exits with 2 if it does not come within the timeout.",
                    "kavrelctl wait --timeout 30", [&tool] { return Wait(tool); });
}

}  // namespace ctl
