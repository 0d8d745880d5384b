// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Stage.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "Errors.h"
#include "Platform.h"
#include "Print.h"
#include "Snapshot.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds ANSWER_TIMEOUT(5);
constexpr Seconds BETWEEN_CALLS(0.2);
constexpr Seconds FIRST_WINDOW(0.3);
constexpr int FIRST_VOLUME = 1;
constexpr int LAST_VOLUME = 9;
constexpr int MOST_PENDING = 1000;
constexpr int FULL_GAIN = 100;
constexpr int HIGHEST_FADE_START = 25;
constexpr int BAR_WIDTH = 50;

const host::NamedValue& ValueOf(GainOutput output) {
    return output == GainOutput::MAIN ? host::MAIN_OUT_GAIN : host::SUB_OUT_GAIN;
}

std::string NameOf(GainOutput output) {
    return output == GainOutput::MAIN ? "main" : "sub";
}

/** A signal's name and the values of its body, as a scenario writes them. */
Words ToWords(const std::string& signal, GVariant* body) {
    Words words = {signal};
    for (gsize i = 0; i < g_variant_n_children(body); ++i) {
        const tools::Variant value(g_variant_get_child_value(body, i));
        const bool isText = g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) == TRUE;
        words.push_back(isText ? tools::Printable(g_variant_get_string(value.get(), nullptr))
                               : tools::Printed(value.get()));
    }
    return words;
}

/** Cuts the step where it would not fit on a terminal behind "  ok  ". */
std::string Fitting(const std::string& step) {
    const int room = tools::SizeOfTerminal().columns - static_cast<int>(std::string_view("  ok  ").size());
    return isatty(STDOUT_FILENO) != 0 ? tools::Clipped(step, room) : step;
}

bool Matches(const Words& pattern, const Words& words) {
    return std::equal(pattern.begin(), pattern.end(), words.begin(), words.end(),
                      [](const std::string& expected, const std::string& seen) {
                          return expected == "*" || expected == seen;
                      });
}

std::string Within(Seconds time) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%g s", time.count());
    return std::string(" within ") + text.data();
}

[[noreturn]] void Miss(const std::string& expected, const std::string& seen) {
    throw tools::ToolError(tools::EXIT_REFUSED, "expected " + expected + ", seen: " + seen);
}

}  // namespace

Stage::Stage(tools::MainLoop& loop, const std::string& directory, Pace pace)
    : m_loop(loop),
      m_pace(pace),
      m_client(ANSWER_TIMEOUT),
      m_watch(loop, directory, [this](DirectoryWatch::Event event, const std::string& path) {
          if (event == DirectoryWatch::Event::WRITTEN) {
              OnWritten(path);
          }
      }) {
    m_client.RequireOwner();
    m_client.OnSignal([this](const std::string&, const std::string& signal, GVariant* body) {
        m_loop.Guard([&] { m_signals.push_back(ToWords(signal, body)); });
    });
    BeginAction();
}

void Stage::Play(const Scenario& scenario) {
    const auto start = Clock::now();
    for (const Step& step : scenario) {
        try {
            PlayStep(step, start);
        } catch (const tools::ToolError& error) {
            throw tools::ToolError(error.code, step.place + ": " + error.what());
        } catch (const std::runtime_error& error) {
            throw tools::ToolError(tools::EXIT_REFUSED, step.place + ": " + error.what());
        }
    }
}

void Stage::PlayStep(const Step& step, Clock::time_point start) {
    if (step.at) {
        Do(Pause{false, start + *step.at - Clock::now()});
    }
    CatchUp();
    std::visit([this](const auto& action) { Do(action); }, step.action);
    if (!step.text.starts_with("say ") && !step.text.starts_with("pause ")) {
        tools::PrintLine("  " + m_style.Green("ok") + "  " + Fitting(step.text));
    }
}

// --- The steps

void Stage::Do(const Change& change) {
    BeginAction();
    change();
}

void Stage::Do(const Say& say) {
    tools::PrintLine(m_style.Bold(tools::Printable(say.text)));
}

void Stage::Do(const Pause& pause) {
    if (pause.isKeptIfFast || m_pace == Pace::AS_WRITTEN) {
        Wait([] { return false; }, pause.time);
    }
}

void Stage::Do(const Call& call) {
    BeginAction();
    const auto deadline = Clock::now() + call.within;
    for (Words answer = Ask(call); !call.answer.empty() && !Matches(call.answer, answer);
         answer = Ask(call)) {
        if (Clock::now() >= deadline) {
            Miss("the answer " + tools::Joined(call.answer), tools::Joined(answer));
        }
        Do(Pause{true, BETWEEN_CALLS});
    }
}

void Stage::Do(const Emit& emit) {
    BeginAction();
    m_client.Emit(emit.signal.c_str(), emit.arguments.get());
}

void Stage::Do(const ExpectSignal& expected) {
    const bool hasCome = Wait([&] { return HasSignal(expected.signal); }, expected.within);
    if (hasCome != expected.isExpected) {
        Miss((expected.isExpected ? "the signal " : "no signal ") + tools::Joined(expected.signal) +
                 Within(expected.within),
             SignalsInWords());
    }
    if (hasCome) {
        m_signals.erase(m_signals.begin(), FindSignal(expected.signal) + 1);
    }
}

void Stage::Do(const ExpectValue& expected) {
    std::string present;
    const auto isThere = [&] {
        present = "no readable value";
        return !host::Read({expected.path, host::TEXT}, present) && present == expected.text;
    };
    if (!Wait(isThere, expected.within)) {
        Miss(expected.text + " in " + expected.path + Within(expected.within), tools::Printable(present));
    }
}

/**
 * Changes the volume at the output itself until the daemon announces it: only then does the daemon follow that
 * output, and only then has it time for calls; a call before could make it miss the change. A busy daemon may
 * miss a report, too, or be slow: each further volume gets twice the time.
 */
void Stage::Do(const ExpectOutput& expected) {
    const auto deadline = Clock::now() + expected.within;
    const DeviceKind* device = expected.route->device;
    const host::Value value = device != nullptr ? device->level : host::MASTER_VOLUME;
    Seconds window = FIRST_WINDOW;
    m_signals.clear();
    for (int volume = FIRST_VOLUME; Clock::now() < deadline; volume = volume % LAST_VOLUME + 1, window *= 2) {
        const Words signal = {"SpeakerVolumeChanged", "*", std::to_string(volume)};
        ThrowIfFailed(host::Write(value, std::to_string(volume)));
        if (Wait([&] { return HasSignal(signal); }, std::min<Seconds>(window, deadline - Clock::now()))) {
            m_signals.clear();
            return;
        }
    }
    Miss("kavreld to follow the output " + std::string(expected.route->name) + Within(expected.within),
         SignalsInWords());
}

void Stage::Do(const ExpectGain& expected) {
    const std::vector<int>& gains = m_gains[expected.output];
    const auto isReached = [&] { return !gains.empty() && gains.back() == expected.gain; };
    if (!WaitForGain(expected.output, isReached, expected.within)) {
        Miss("the " + NameOf(expected.output) + " gain " + std::to_string(expected.gain) +
                 Within(expected.within),
             GainsInWords(expected.output));
    }
}

void Stage::Do(const ExpectFade& expected) {
    const std::vector<int>& gains = m_gains[expected.output];
    const auto bottom = [&] { return std::min_element(gains.begin(), gains.end()); };
    const auto isOver = [&] {
        return !gains.empty() && gains.back() == FULL_GAIN && *bottom() <= HIGHEST_FADE_START;
    };
    const bool isDone = WaitForGain(expected.output, isOver, expected.within);
    if (!isDone || !std::is_sorted(bottom(), gains.end())) {
        Miss("the " + NameOf(expected.output) + " gain to drop and to rise to 100 again," +
                 Within(expected.within),
             GainsInWords(expected.output));
    }
}

Words Stage::Ask(const Call& call) const {
    if (g_variant_n_children(call.arguments.get()) > 0) {
        return {std::to_string(m_client.Command(call.method.c_str(), call.arguments.get()))};
    }
    const tools::Reading reading = m_client.Read(call.method.c_str());
    return {std::to_string(reading.value), std::to_string(reading.status)};
}

// --- Events

void Stage::OnWritten(const std::string& path) {
    for (const GainOutput output : {GainOutput::MAIN, GainOutput::SUB}) {
        if (path == ValueOf(output).path) {
            NoteGain(output);
        }
    }
}

void Stage::NoteGain(GainOutput output) {
    int gain = 0;
    if (host::Read(ValueOf(output), gain)) {
        return;
    }
    std::vector<int>& gains = m_gains[output];
    if (gains.empty() || gains.back() != gain) {
        gains.push_back(gain);
    }
    if (m_drawn == output) {
        DrawGain(output);
    }
}

void Stage::CatchUp() {
    for (int i = 0; i < MOST_PENDING && g_main_context_iteration(nullptr, FALSE) != FALSE; ++i) {
    }
    Wait([] { return true; }, Seconds(0));
}

void Stage::BeginAction() {
    CatchUp();
    for (const GainOutput output : {GainOutput::MAIN, GainOutput::SUB}) {
        m_gains[output].clear();
        NoteGain(output);
    }
}

bool Stage::Wait(const Condition& isMet, Seconds time) {
    const auto waited = m_loop.RunUntil(isMet, std::chrono::ceil<milliseconds>(std::max(time, Seconds(0))));
    if (waited == tools::MainLoop::Waited::ENDED) {
        throw tools::ToolError(tools::EXIT_INTERRUPTED, "interrupted");
    }
    return waited == tools::MainLoop::Waited::MET;
}

/** Draws the gain while it moves on a terminal; prints its values afterwards elsewhere. */
bool Stage::WaitForGain(GainOutput output, const Condition& isMet, Seconds time) {
    if (isatty(STDOUT_FILENO) == 0) {
        const bool wasMet = Wait(isMet, time);
        tools::PrintLine("      " + NameOf(output) + " gain: " + GainsInWords(output));
        return wasMet;
    }
    m_drawn = output;
    const auto endLine = [this] {
        m_drawn.reset();
        tools::PrintLine("");
    };
    try {
        const bool wasMet = Wait(isMet, time);
        endLine();
        return wasMet;
    } catch (const tools::ToolError&) {
        endLine();
        throw;
    }
}

void Stage::DrawGain(GainOutput output) {
    const int gain = m_gains[output].back();
    const int filled = std::clamp(gain, 0, FULL_GAIN) * BAR_WIDTH / FULL_GAIN;
    std::array<char, 16> percent = {};
    std::snprintf(percent.data(), percent.size(), "%3d", gain);
    tools::Print("\r      " + NameOf(output) + " gain " + percent.data() + " % " +
                 m_style.Cyan(std::string(static_cast<std::size_t>(filled), '#')) +
                 std::string(static_cast<std::size_t>(BAR_WIDTH - filled), '.'));
}

/** A pattern that is a name alone matches any arguments. */
std::deque<Words>::const_iterator Stage::FindSignal(const Words& pattern) const {
    return std::find_if(m_signals.begin(), m_signals.end(), [&](const Words& signal) {
        return pattern.size() == 1 ? pattern[0] == signal[0] : Matches(pattern, signal);
    });
}

bool Stage::HasSignal(const Words& pattern) const {
    return FindSignal(pattern) != m_signals.end();
}

std::string Stage::SignalsInWords() const {
    Words signals;
    for (const Words& words : m_signals) {
        signals.push_back(tools::Joined(words));
    }
    return signals.empty() ? "nothing" : tools::Joined(signals, ", ");
}

std::string Stage::GainsInWords(GainOutput output) const {
    Words gains;
    for (const int gain : m_gains.at(output)) {
        gains.push_back(std::to_string(gain));
    }
    return tools::Joined(gains);
}

}  // namespace tv
