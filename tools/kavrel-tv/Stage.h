// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_STAGE_H
#define KAVREL_TV_STAGE_H

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "DirectoryWatch.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Scenario.h"
#include "Terminal.h"

namespace tv {

enum class Pace { AS_WRITTEN, FAST };

/**
 * Plays scenarios on the open TV and the daemon on the bus. Prints each step as it is done and draws a gain
 * while an expectation waits for it.
 *
 * Signals are kept in the order in which they come: an expected one removes itself and all before it.
 */
class Stage {
public:
    /** @throws tools::ToolError without a bus or without the daemon */
    Stage(tools::MainLoop& loop, const std::string& directory, Pace pace);

    /** @throws tools::ToolError at the first step that fails, with its place */
    void Play(const Scenario& scenario);

private:
    using Condition = std::function<bool()>;

    void PlayStep(const Step& step, std::chrono::steady_clock::time_point start);
    void Do(const Change& change);
    void Do(const Say& say);
    void Do(const Pause& pause);
    void Do(const Call& call);
    void Do(const Emit& emit);
    void Do(const ExpectSignal& expected);
    void Do(const ExpectValue& expected);
    void Do(const ExpectOutput& expected);
    void Do(const ExpectGain& expected);
    void Do(const ExpectFade& expected);

    void OnWritten(const std::string& path);
    void NoteGain(GainOutput output);
    /** Handles all events that have come so far. @throws tools::ToolError after Ctrl-C */
    void CatchUp();
    /** Forgets the gains seen before an action, except the present ones. */
    void BeginAction();
    /** Waits for the condition, and at most that long. @return whether it is met
     *  @throws tools::ToolError after Ctrl-C */
    bool Wait(const Condition& isMet, Seconds time);
    bool WaitForGain(GainOutput output, const Condition& isMet, Seconds time);
    void DrawGain(GainOutput output);
    Words Ask(const Call& call) const;
    std::deque<Words>::const_iterator FindSignal(const Words& pattern) const;
    bool HasSignal(const Words& pattern) const;
    std::string SignalsInWords() const;
    std::string GainsInWords(GainOutput output) const;

    tools::MainLoop& m_loop;
    const Pace m_pace;
    const tools::Style m_style;
    tools::KavrelClient m_client;
    std::deque<Words> m_signals;                     // each with its arguments
    std::map<GainOutput, std::vector<int>> m_gains;  // since the last action
    std::optional<GainOutput> m_drawn;
    DirectoryWatch m_watch;
};

}  // namespace tv

#endif
