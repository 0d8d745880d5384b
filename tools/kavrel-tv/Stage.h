// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_STAGE_H
#define KAVREL_TV_STAGE_H

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "DirectoryWatch.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Routes.h"
#include "Scenario.h"
#include "Terminal.h"
#include "Verbs.h"

namespace tv {

enum class Pace { AS_WRITTEN, FAST };

/** An output of the audio hardware. */
enum class Out { MAIN, SUB };

/**
 * Where a scenario is played: the open TV and the daemon on the bus. Prints each step as it is done; a gain
 * that an expectation waits for is drawn while it moves.
 *
 * Signals are heard in order: an expected one that is met takes all that came before it with it.
 */
class Stage {
public:
    using Words = std::vector<std::string>;
    using Milliseconds = std::chrono::milliseconds;

    /** @throws ToolError without a bus or without the daemon */
    Stage(tools::MainLoop& loop, const std::string& directory, Pace pace);

    /** @throws ToolError at the first step that fails, with its place */
    void Play(const Scenario& scenario);

    // The steps; each throws ToolError when it fails.

    void Say(const std::string& text);
    /** Waits unless the pace is fast. */
    void Pause(Milliseconds time);
    /** Waits at any pace: for what the daemon does in silence. */
    void Settle(Milliseconds time);
    void Do(const Deed& deed);
    /** @param answer one word for each value of the reply, "*" for any; empty: not looked at
     *  @param patience for how long another answer, such as "busy", is asked again */
    void Call(const std::string& method, GVariant* arguments, const Words& answer, Milliseconds patience);
    void Emit(const std::string& signal, GVariant* arguments);
    /** @param signal its name and its arguments, "*" for any; the name alone for any arguments */
    void ExpectSignal(const Words& signal, Milliseconds patience);
    void ExpectNoSignal(const Words& signal, Milliseconds time);
    /** @param path below the TV directory */
    void ExpectValue(const std::string& path, const std::string& text, Milliseconds patience);
    /** Turns the volume at the output itself until kavreld tells of it: then, and not before, it follows that
     *  output, and has time for calls. Asking it meanwhile might make it miss the change. */
    void ExpectOutput(const Route& route, Milliseconds patience);
    void ExpectGain(Out out, int gain, Milliseconds patience);
    /** Since the last deed: a drop, and from there to full without a step back. */
    void ExpectFade(Out out, Milliseconds patience);

private:
    void On(DirectoryWatch::Event event, const std::string& path);
    void Hear(const std::string& signal, GVariant* body);
    void NoteGain(Out out);
    /** Hears what has happened so far. @throws ToolError when it was told to end */
    void CatchUp();
    /** A new deed begins: what was seen of the gains before counts no more. */
    void Begin();
    bool Wait(const std::function<bool()>& met, Milliseconds patience);
    bool WaitForGain(Out out, const std::function<bool()>& met, Milliseconds patience);
    void DrawGain(Out out);
    std::deque<Words>::const_iterator FindHeard(const Words& signal) const;
    bool HasHeard(const Words& signal) const;
    std::string Heard() const;
    std::string Gains(Out out) const;
    [[noreturn]] static void Miss(const std::string& expected, const std::string& seen);

    tools::MainLoop& m_loop;
    const Pace m_pace;
    const tools::Style m_style;
    tools::KavrelClient m_client;
    std::unique_ptr<DirectoryWatch> m_watch;
    std::deque<Words> m_heard;                // signals not taken yet
    std::map<Out, std::vector<int>> m_gains;  // since the last deed began
    std::optional<Out> m_drawn;
};

}  // namespace tv

#endif
