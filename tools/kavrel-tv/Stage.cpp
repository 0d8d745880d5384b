// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Stage.h"

#include <audio_hal.h>
#include <directory.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <utility>

#include "Errors.h"
#include "Platform.h"
#include "Print.h"
#include "Snapshot.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds ANSWER_TIMEOUT(5);
constexpr std::chrono::milliseconds BETWEEN_CALLS(200);
constexpr std::chrono::milliseconds FIRST_WINDOW(300);
constexpr int FIRST_TURN = 1;
constexpr int LAST_TURN = 9;
constexpr int MOST_PENDING = 1000;
constexpr int FULL_GAIN = 100;
constexpr int HIGHEST_FADE_START = 25;
constexpr int BAR_WIDTH = 50;

const char* PathOf(Out out) {
    return out == Out::MAIN ? MAIN_GAIN_PATH : SUB_GAIN_PATH;
}

std::string NameOf(Out out) {
    return out == Out::MAIN ? "main" : "sub";
}

/** Each value of a tuple, as a scenario writes it. */
Stage::Words ToWords(GVariant* tuple) {
    Stage::Words words;
    for (gsize i = 0; i < g_variant_n_children(tuple); ++i) {
        const tools::Variant child(g_variant_get_child_value(tuple, i));
        if (g_variant_is_of_type(child.get(), G_VARIANT_TYPE_STRING)) {
            words.push_back(tools::Printable(g_variant_get_string(child.get(), nullptr)));
        } else {
            const tools::GLibPtr<char> text(g_variant_print(child.get(), FALSE));
            words.emplace_back(text.get());
        }
    }
    return words;
}

/** Cut where it would not fit on a terminal beside what stands before it. */
std::string Fitting(const std::string& step) {
    const int room = tools::SizeOfTerminal().columns - static_cast<int>(std::string_view("  ok  ").size());
    return isatty(STDOUT_FILENO) != 0 ? tools::Clipped(step, room) : step;
}

bool Matches(const Stage::Words& pattern, const Stage::Words& words) {
    return std::equal(pattern.begin(), pattern.end(), words.begin(), words.end(),
                      [](const std::string& expected, const std::string& seen) {
                          return expected == "*" || expected == seen;
                      });
}

/** A name alone stands for any arguments. */
bool MatchesSignal(const Stage::Words& pattern, const Stage::Words& signal) {
    return pattern.size() == 1 ? pattern[0] == signal[0] : Matches(pattern, signal);
}

std::string InSeconds(std::chrono::milliseconds time) {
    std::string text = std::to_string(time.count() / 1000.0);
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
    return text + " s";
}

}  // namespace

Stage::Stage(tools::MainLoop& loop, const std::string& directory, Pace pace)
    : m_loop(loop), m_pace(pace), m_client(ANSWER_TIMEOUT) {
    m_client.RequireOwner();
    m_client.OnSignal([this](const std::string&, const std::string& signal, GVariant* body) {
        m_loop.Guard([&] { Hear(signal, body); });
    });
    m_watch = std::make_unique<DirectoryWatch>(
        loop, directory, [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); });
    Begin();
}

void Stage::Play(const Scenario& scenario) {
    const auto start = Clock::now();
    for (const Step& step : scenario) {
        try {
            if (step.at && m_pace == Pace::AS_WRITTEN) {
                const auto left = std::chrono::ceil<Milliseconds>(start + *step.at - Clock::now());
                Settle(std::max(left, Milliseconds(0)));
            }
            CatchUp();
            step.act(*this);
        } catch (const tools::ToolError& error) {
            throw tools::ToolError(error.code, step.place + ": " + error.what());
        } catch (const std::runtime_error& error) {
            throw tools::ToolError(tools::EXIT_REFUSED, step.place + ": " + error.what());
        }
        if (!step.text.starts_with("say ") && !step.text.starts_with("pause ")) {
            tools::PrintLine("  " + m_style.Green("ok") + "  " + Fitting(step.text));
        }
    }
}

// --- The steps

void Stage::Say(const std::string& text) {
    tools::PrintLine(m_style.Bold(tools::Printable(text)));
}

void Stage::Pause(Milliseconds time) {
    if (m_pace == Pace::AS_WRITTEN) {
        Settle(time);
    }
}

void Stage::Settle(Milliseconds time) {
    Wait([] { return false; }, time);
}

void Stage::Do(const Deed& deed) {
    Begin();
    deed();
}

void Stage::Call(const std::string& method, GVariant* arguments, const Words& answer, Milliseconds patience) {
    Begin();
    const auto deadline = Clock::now() + patience;
    for (;;) {
        Words seen;
        if (g_variant_n_children(arguments) == 0) {
            const tools::Reading reading = m_client.Read(method.c_str());
            seen = {std::to_string(reading.value), std::to_string(reading.status)};
        } else {
            seen = {std::to_string(m_client.Command(method.c_str(), arguments))};
        }
        if (answer.empty() || Matches(answer, seen)) {
            return;
        }
        if (Clock::now() >= deadline) {
            Miss("the answer " + tools::Joined(answer), tools::Joined(seen));
        }
        Wait([] { return false; }, BETWEEN_CALLS);
    }
}

void Stage::Emit(const std::string& signal, GVariant* arguments) {
    Begin();
    m_client.Emit(signal.c_str(), arguments);
}

void Stage::ExpectSignal(const Words& signal, Milliseconds patience) {
    if (!Wait([&] { return HasHeard(signal); }, patience)) {
        Miss("the signal " + tools::Joined(signal) + " within " + InSeconds(patience), Heard());
    }
    m_heard.erase(m_heard.begin(), FindHeard(signal) + 1);
}

void Stage::ExpectNoSignal(const Words& signal, Milliseconds time) {
    if (Wait([&] { return HasHeard(signal); }, time)) {
        Miss("no signal " + tools::Joined(signal) + " within " + InSeconds(time), Heard());
    }
}

void Stage::ExpectValue(const std::string& path, const std::string& text, Milliseconds patience) {
    std::string present;
    const auto isThere = [&] {
        present = "no readable value";
        return !host::Read({path, std::nullopt}, present) && present == text;
    };
    if (!Wait(isThere, patience)) {
        Miss(text + " in " + path + " within " + InSeconds(patience), tools::Printable(present));
    }
}

// A report may vanish in a busy kavreld, or be slow. Once the last turn is told, none is on its way any more.
void Stage::ExpectOutput(const Route& route, Milliseconds patience) {
    const auto deadline = Clock::now() + patience;
    Milliseconds window = FIRST_WINDOW;
    m_heard.clear();
    for (int level = FIRST_TURN; Clock::now() < deadline; level = level % LAST_TURN + 1, window *= 2) {
        const Words signal = {"SpeakerVolumeChanged", "*", std::to_string(level)};
        if (route.device != nullptr) {
            Require(vconf_set_int(route.device->levelKey, level), route.device->levelKey);
        } else {
            Require(audio_set_master_volume(level, 0), "cannot set the volume");
        }
        const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now());
        if (Wait([&] { return HasHeard(signal); }, std::min(window, left))) {
            m_heard.clear();
            return;
        }
    }
    Miss("kavreld to follow the output " + std::string(route.name) + " within " + InSeconds(patience),
         Heard());
}

void Stage::ExpectGain(Out out, int gain, Milliseconds patience) {
    const auto isReached = [&] { return !m_gains[out].empty() && m_gains[out].back() == gain; };
    if (!WaitForGain(out, isReached, patience)) {
        Miss("the " + NameOf(out) + " gain " + std::to_string(gain) + " within " + InSeconds(patience),
             Gains(out));
    }
}

// The 0 that a fade begins with is gone in less than a millisecond: it need not have been seen.
void Stage::ExpectFade(Out out, Milliseconds patience) {
    const std::vector<int>& gains = m_gains[out];
    const auto bottom = [&] { return std::min_element(gains.begin(), gains.end()); };
    const auto isOver = [&] {
        return !gains.empty() && gains.back() == FULL_GAIN && *bottom() <= HIGHEST_FADE_START;
    };
    const bool isDone = WaitForGain(out, isOver, patience);
    if (!isDone || !std::is_sorted(bottom(), gains.end())) {
        Miss("the " + NameOf(out) + " gain to drop and to rise to 100 again, within " + InSeconds(patience),
             Gains(out));
    }
}

// --- What is seen and heard

void Stage::On(DirectoryWatch::Event event, const std::string& path) {
    if (event != DirectoryWatch::Event::WRITTEN) {
        return;
    }
    for (const Out out : {Out::MAIN, Out::SUB}) {
        if (path == PathOf(out)) {
            NoteGain(out);
        }
    }
}

void Stage::Hear(const std::string& signal, GVariant* body) {
    Words words = ToWords(body);
    words.insert(words.begin(), signal);
    m_heard.push_back(std::move(words));
}

void Stage::NoteGain(Out out) {
    int gain = 0;
    if (host::Read({PathOf(out), host::Range{}}, gain)) {
        return;
    }
    std::vector<int>& gains = m_gains[out];
    if (gains.empty() || gains.back() != gain) {
        gains.push_back(gain);
    }
    if (m_drawn == out) {
        DrawGain(out);
    }
}

void Stage::CatchUp() {
    for (int i = 0; i < MOST_PENDING && g_main_context_iteration(nullptr, FALSE) != FALSE; ++i) {
    }
    Wait([] { return true; }, Milliseconds(0));
}

void Stage::Begin() {
    CatchUp();
    for (const Out out : {Out::MAIN, Out::SUB}) {
        m_gains[out].clear();
        NoteGain(out);
    }
}

bool Stage::Wait(const std::function<bool()>& met, Milliseconds patience) {
    switch (m_loop.RunUntil(met, patience)) {
        case tools::MainLoop::Waited::MET:
            return true;
        case tools::MainLoop::Waited::EXPIRED:
            return false;
        case tools::MainLoop::Waited::ENDED:
            break;
    }
    throw tools::ToolError(tools::EXIT_INTERRUPTED, "interrupted");
}

/** Draws the gain as it moves: live on a terminal, else its values once it is there. */
bool Stage::WaitForGain(Out out, const std::function<bool()>& met, Milliseconds patience) {
    if (isatty(STDOUT_FILENO) == 0) {
        const bool isMet = Wait(met, patience);
        tools::PrintLine("      " + NameOf(out) + " gain: " + Gains(out));
        return isMet;
    }
    m_drawn = out;
    const auto end_line = [this] {
        m_drawn.reset();
        tools::PrintLine("");
    };
    try {
        const bool isMet = Wait(met, patience);
        end_line();
        return isMet;
    } catch (const tools::ToolError&) {
        end_line();
        throw;
    }
}

void Stage::DrawGain(Out out) {
    const int gain = m_gains[out].back();
    const int filled = std::clamp(gain, 0, FULL_GAIN) * BAR_WIDTH / FULL_GAIN;
    std::string percent = std::to_string(gain);
    percent.insert(0, percent.size() < 3 ? 3 - percent.size() : 0, ' ');
    tools::Print("\r      " + NameOf(out) + " gain " + percent + " % " +
                 m_style.Cyan(std::string(static_cast<std::size_t>(filled), '#')) +
                 std::string(static_cast<std::size_t>(BAR_WIDTH - filled), '.'));
}

std::deque<Stage::Words>::const_iterator Stage::FindHeard(const Words& signal) const {
    return std::find_if(m_heard.begin(), m_heard.end(),
                        [&](const Words& heard) { return MatchesSignal(signal, heard); });
}

bool Stage::HasHeard(const Words& signal) const {
    return FindHeard(signal) != m_heard.end();
}

std::string Stage::Heard() const {
    std::vector<std::string> signals;
    for (const Words& words : m_heard) {
        signals.push_back(tools::Joined(words));
    }
    return signals.empty() ? "nothing" : tools::Joined(signals, ", ");
}

std::string Stage::Gains(Out out) const {
    std::vector<std::string> gains;
    for (const int gain : m_gains.at(out)) {
        gains.push_back(std::to_string(gain));
    }
    return tools::Joined(gains);
}

void Stage::Miss(const std::string& expected, const std::string& seen) {
    throw tools::ToolError(tools::EXIT_REFUSED, "expected " + expected + ", seen: " + seen);
}

}  // namespace tv
