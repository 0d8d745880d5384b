// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The choice of a sink for each output of the TV, with its reason. */
#ifndef KAVREL_SOUND_OUTPUTS_H
#define KAVREL_SOUND_OUTPUTS_H

#include <Routes.h>
#include <json/value.h>

#include <CLI/App.hpp>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sound {

/** The sink that programs play to. No output may use it: the sound would go round in circles. */
inline constexpr const char* KAVREL_SINK = "kavrel";

/** Accepts "ROUTE=SINK" with the code or the name of a route, and makes it the code. */
CLI::Validator OutputOption();

/** Accepts the name of a sink. */
CLI::Validator SinkOption();

/** The sink of an output. */
struct Choice {
    std::string sink;    // its name; empty: the output has none
    std::string reason;  // for a person
};

class Outputs {
public:
    Outputs() = default;
    /** @param options that OutputOption() accepted; the last one of a route holds */
    explicit Outputs(const std::vector<std::string>& options);

    /**
     * A route without a sink of its own plays where another one plays that publishes its volume in the same values:
     * the TV's own outputs on the sink of the TV speaker.
     *
     * @param defaultSink the server's, which the TV speaker uses if it has no other; empty: there is none
     */
    Choice ChoiceOf(int route, const std::string& defaultSink) const;

    /** The sink whose level and mute the values of the route's kind hold: of the output in use if it is of this kind,
     *  else of the first route of the kind that has one.
     *  @param device null: the TV's own outputs
     *  @param inUse the route of the output in use */
    Choice ChoiceOfKind(const tv::DeviceKind* device, std::optional<int> inUse,
                        const std::string& defaultSink) const;

    /** By route. */
    const std::map<int, std::string>& Named() const { return m_named; }

private:
    std::map<int, std::string> m_named;
};

}  // namespace sound

#endif
