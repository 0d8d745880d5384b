// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <charconv>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <system_error>

#include "Commands.h"
#include "Devices.h"
#include "Errors.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"

namespace tv {

namespace {

constexpr int LONGEST = 60'000;  // delay and jitter, in milliseconds

constexpr const char* DESCRIPTION = R"(play the devices behind the external outputs, until Ctrl-C

All of them publish level, mute and support word when they begin. Then, as on a
TV, the one in use answers every request for a level or for mute by publishing
all three, and publishes them when the route changes, too. In multi-view it is
that of the zone in focus. A new device has level 10, is not muted, and can do
everything.

The options make bad devices. Of several such commands on one TV the last one
plays, and the others wait until it has ended.)";

/** The options as they stand on the command line. */
struct Given {
    std::string delay = std::to_string(Manners().delay);
    std::string jitter = "0";
    std::string support;
    bool isDeaf = false;
    std::string failures = "0";
    std::string rounding = "1";
    bool answersTwice = false;
    std::string vanishAfter;
    std::string seed;
};

int SupportWord(const std::string& text) {
    const bool isHex = text.starts_with("0x");
    const std::string_view digits = std::string_view(text).substr(isHex ? 2 : 0);
    int word = 0;
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), word, isHex ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != digits.data() + digits.size() || word < 0) {
        throw tools::UsageError("--support must be a word such as 15 or 0x000f, not \"" +
                                tools::Printable(text) + "\"");
    }
    return word;
}

Manners Understand(const Given& given) {
    Manners manners;
    manners.delay = tools::Number("--delay", given.delay, 0, LONGEST);
    manners.jitter = tools::Number("--jitter", given.jitter, 0, LONGEST);
    if (!given.support.empty()) {
        manners.support = SupportWord(given.support);
    }
    manners.isDeaf = given.isDeaf;
    manners.failures = tools::Number("--fail", given.failures, 0, 100);
    manners.rounding = tools::Number("--rounding", given.rounding, 1, 100);
    manners.answersTwice = given.answersTwice;
    if (!given.vanishAfter.empty()) {
        manners.vanishAfter = tools::Number("--vanish-after", given.vanishAfter, 1);
    }
    manners.seed = given.seed.empty() ? std::random_device()()
                                      : static_cast<unsigned>(tools::Number("--seed", given.seed, 0));
    return manners;
}

int Play(const std::string& directory, const Given& given) {
    const Manners manners = Understand(given);
    OpenTv(directory);
    tools::MainLoop loop;
    const Devices devices(loop, manners);
    tools::PrintLine("the devices behind the external outputs play until Ctrl-C");
    return loop.RunUntilInterrupted();
}

}  // namespace

void AddDevices(tools::CommandLine& line, const Options& options) {
    auto given = std::make_shared<Given>();
    CLI::App& command =
        line.AddCommand("devices", DESCRIPTION, "kavrel-tv devices --delay 300 --jitter 200 --rounding 5",
                        [&options, given] { return Play(options.directory, *given); });
    const auto add = [&](const char* name, const char* type, std::string& value, const char* description) {
        command.add_option(name, value, description)->type_name(type);
    };
    add("--delay", "MS", given->delay,
        "answer so many milliseconds later (default: 50);\nat 0 kavreld may be too busy still to hear of it");
    add("--jitter", "MS", given->jitter, "and at random up to so many more, in order all the same");
    add("--support", "WORD", given->support,
        "the support word: the sum of 1 read volume,\n2 set volume, 4 read mute, 8 set mute");
    command.add_flag("--deaf", given->isDeaf, "take requests and do nothing");
    add("--fail", "PERCENT", given->failures, "leave so many of the requests unanswered, at random");
    add("--rounding", "N", given->rounding, "have only levels that are a multiple of N, up to 100");
    command.add_flag("--double", given->answersTwice, "answer every request twice, the same each time");
    add("--vanish-after", "N", given->vanishAfter,
        "after N answers the device in use takes its values\nback and answers no more");
    add("--seed", "N", given->seed, "make what is random the same each time");
}

}  // namespace tv
