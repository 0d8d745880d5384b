// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The bytes are a scenario of kavrel-tv. */
#include "Scenario.h"

#include <glib.h>

#include <algorithm>

#include "Errors.h"
#include "Target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_set_prgname("fuzz-scenario");
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const tv::Scenario scenario = tv::ParseScenario("fuzz", text);
        fuzz::Require(scenario.size() <= static_cast<std::size_t>(std::ranges::count(text, '\n')) + 1,
                      "no line makes two steps");
        for (const tv::Step& step : scenario) {
            fuzz::Require(step.place.starts_with("fuzz:"), "each step knows its line");
            fuzz::Require(!step.text.empty(), "each step has words");
            fuzz::Require(!step.at || step.at->count() >= 0, "no step is before the start");
            const auto* call = std::get_if<tv::Call>(&step.action);
            fuzz::Require(call == nullptr || call->arguments != nullptr, "each call has arguments");
        }
    } catch (const tools::UsageError& error) {
        fuzz::Require(std::string_view(error.what()).starts_with("fuzz:"), "each error names its line");
    }
    return 0;
}
