// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Errors.h"
#include "Print.h"
#include "State.h"
#include "Terminal.h"
#include "Tool.h"

namespace ctl {

namespace {

constexpr size_t TITLE_WIDTH = 9;

int ShowStatus(const Tool& tool) {
    const tools::KavrelClient client(tool.Timeout());
    const tools::Style style;
    bool isComplete = true;
    Json::Value object;
    std::string screen;
    for (const auto& [item, name, getter] : ITEMS) {
        const tools::Reading reading = client.Read(getter);
        isComplete = isComplete && reading.status >= 0;
        AddTo(object, item, reading);
        std::string title = name;
        title.resize(TITLE_WIDTH, ' ');
        const std::string words = InWords(item, reading);
        screen += style.Bold(title) + (reading.status < 0 ? style.Red(words) : words) + "\n";
    }
    tools::Print(tool.Json() ? tools::JsonLine(object) + "\n" : screen);
    return isComplete ? tools::EXIT_DONE : tools::EXIT_REFUSED;
}

int ShowSupport(const Tool& tool) {
    const tools::KavrelClient client(tool.Timeout());
    const tools::Reading reading = client.Read(InfoOf(Item::SUPPORT).getter);
    Require(reading.status, "the support word cannot be read");
    if (tool.Json()) {
        Json::Value object;
        AddTo(object, Item::SUPPORT, reading);
        tools::PrintJson(object);
    } else {
        tools::PrintLine(InWords(Item::SUPPORT, reading));
    }
    return tools::EXIT_DONE;
}

}  // namespace

void AddStatusCommands(Tool& tool) {
    tool.OfferJson(
        tool.AddCommand("status",
                        "Show volume, mute, and what the output in use supports\n"
                        "Exits with 1 if one of them cannot be read. Which output is in use is not told\n"
                        "over the bus.",
                        "kavrelctl status --json", [&tool] { return ShowStatus(tool); }));
    tool.OfferJson(tool.AddCommand("support", "Show what the output in use supports, in words",
                                   "kavrelctl support", [&tool] { return ShowSupport(tool); }));
}

}  // namespace ctl
