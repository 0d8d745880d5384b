// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A scenario: one line an event, done in order. docs/scenarios.md describes the language.
 */
#ifndef KAVREL_TV_SCENARIO_H
#define KAVREL_TV_SCENARIO_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tv {

class Stage;

struct Step {
    /** "file:line", for messages. */
    std::string place;
    /** As written, without its time. */
    std::string text;
    /** The earliest moment, counted from the scenario's start. */
    std::optional<std::chrono::milliseconds> at;
    /** @throws ToolError when an expectation is not met; the message lacks the place */
    std::function<void(Stage&)> act;
};

using Scenario = std::vector<Step>;

/** Understands every line before any is done.
 *  @param name stands in messages
 *  @throws UsageError for the first line that is wrong */
Scenario ParseScenario(const std::string& name, std::string_view text);

}  // namespace tv

#endif
