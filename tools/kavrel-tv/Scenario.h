// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** A scenario as data: the steps in the order of their lines. docs/scenarios.md describes the language. */
#ifndef KAVREL_TV_SCENARIO_H
#define KAVREL_TV_SCENARIO_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Commands.h"
#include "GLibPtr.h"
#include "Routes.h"

namespace tv {

using Seconds = std::chrono::duration<double>;
using Words = std::vector<std::string>;

enum class GainOutput { MAIN, SUB };

struct Say {
    std::string text;
};

struct Pause {
    bool isKeptIfFast = false;
    Seconds time{0};
};

/** Calls a method; asks again while `within` lasts and the answer is another one, such as "busy". */
struct Call {
    std::string method;
    std::shared_ptr<GVariant> arguments;
    Words answer;  // a word for each value of the reply, "*" for any; empty: any answer will do
    Seconds within{0};
};

struct Emit {
    std::string signal;
    std::shared_ptr<GVariant> arguments;
};

struct ExpectSignal {
    Words signal = {};  // its name and arguments, "*" for any; the name alone for any arguments
    bool isExpected = true;
    Seconds within{5};
};

struct ExpectValue {
    std::string path;  // below the TV directory
    std::string text;
    Seconds within{5};
};

/** Waits until the daemon follows the output, whose volume it changes for that and puts back. */
struct ExpectOutput {
    const Route* route = nullptr;  // of an output that has a volume
    Seconds within{5};
};

struct ExpectGain {
    GainOutput output = GainOutput::MAIN;
    int gain = 0;
    Seconds within{5};
};

/** Waits until the gain has dropped since the last action and has risen to 100 without a step back. */
struct ExpectFade {
    GainOutput output = GainOutput::MAIN;
    Seconds within{5};
};

using Action = std::variant<Change, Say, Pause, Call, Emit, ExpectSignal, ExpectValue, ExpectOutput,
                            ExpectGain, ExpectFade>;

struct Step {
    std::string place;          // "file:line", for messages
    std::string text;           // as written, without its time
    std::optional<Seconds> at;  // the earliest time, counted from the scenario's start
    Action action;
};

using Scenario = std::vector<Step>;

/** Parses every line before any is played.
 *  @param name the scenario's name in messages
 *  @throws tools::UsageError if lines are wrong, after it has printed the errors of all of them but the last */
Scenario ParseScenario(const std::string& name, std::string_view text);

}  // namespace tv

#endif
