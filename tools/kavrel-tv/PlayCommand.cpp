// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "DirectoryWatch.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Print.h"
#include "Scenario.h"
#include "Terminal.h"

/** The tour, compiled in from scenarios/tour.txt. */
extern "C" const char kavrel_tour_scenario[];

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds ANSWER_TIMEOUT(5);
constexpr Seconds BETWEEN_CALLS(0.2);
constexpr Seconds FIRST_WINDOW(0.1);
constexpr int LOUDEST_CHANGE = 9;  // of the volumes that a change tries
constexpr int MOST_PENDING = 1000;
constexpr int FULL_GAIN = 100;
constexpr int HIGHEST_FADE_START = 25;
constexpr int BAR_WIDTH = 50;
constexpr int OK_WIDTH = 6;  // of "  ok  "

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

bool Matches(const Words& pattern, const Words& words) {
    return std::equal(pattern.begin(), pattern.end(), words.begin(), words.end(),
                      [](const std::string& expected, const std::string& seen) {
                          return expected == "*" || expected == seen;
                      });
}

std::string Within(Seconds time) {
    return tools::Formatted(" within %g s", time.count());
}

[[noreturn]] void Miss(const std::string& expected, const std::string& seen) {
    throw tools::ToolError(tools::EXIT_REFUSED, "expected " + expected + ", seen: " + seen);
}

/** The value of an output's volume. The destructor puts its text back. */
class KeptVolume {
public:
    /** @throws tools::ToolError if the value cannot be read, unless it is missing */
    explicit KeptVolume(host::Value value) : m_value(std::move(value)) {
        std::string text;
        const host::Error error = host::Read(m_value, text);
        if (error.number != ENOENT) {
            ThrowIfFailed(error);
            m_text = text;
        }
    }
    ~KeptVolume() {
        if (m_isChanged) {
            static_cast<void>(WriteBack());  // there is no better attempt to make
        }
    }
    KeptVolume(const KeptVolume&) = delete;
    KeptVolume& operator=(const KeptVolume&) = delete;

    /** The volume to put back; nothing if there was none. */
    std::optional<int> Kept() const {
        int volume = 0;
        const host::Range range = m_value.range.value_or(host::ANY_INTEGER);
        return m_text && host::ParseInteger(*m_text, range, volume) == 0 ? std::optional(volume)
                                                                         : std::nullopt;
    }

    /** Writes a low volume, another one each time and never the kept one: the daemon announces only changes.
     *  @return the volume */
    int Change() {
        do {
            m_volume = m_volume % LOUDEST_CHANGE + 1;
        } while (m_volume == Kept());
        m_isChanged = true;
        ThrowIfFailed(host::Write(m_value, std::to_string(m_volume)));
        return m_volume;
    }

    void PutBack() {
        ThrowIfFailed(WriteBack());
        m_isChanged = false;
    }

private:
    host::Error WriteBack() const { return m_text ? host::Write(m_value, *m_text) : host::Remove(m_value); }

    const host::Value m_value;
    std::optional<std::string> m_text;  // to put back; nothing: the value was missing
    int m_volume = 0;
    bool m_isChanged = false;
};

/**
 * Plays scenarios on the open TV and the daemon on the bus. Prints each step as it is done and draws a gain
 * while an expectation waits for it.
 *
 * Signals are kept in the order in which they come: an expected one removes itself and all before it.
 */
class Stage {
public:
    /** @throws tools::ToolError without a bus or without the daemon */
    Stage(tools::MainLoop& loop, const std::string& directory, bool isFast)
        : m_loop(loop),
          m_isFast(isFast),
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

    /** @throws tools::ToolError at the first step that fails, with its place */
    void Play(const Scenario& scenario) {
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

private:
    using Condition = std::function<bool()>;

    void PlayStep(const Step& step, Clock::time_point start) {
        if (step.at) {
            Do(Pause{false, start + *step.at - Clock::now()});
        }
        CatchUp();
        std::visit([this](const auto& action) { Do(action); }, step.action);
        if (!step.text.starts_with("say ") && !step.text.starts_with("pause ")) {
            const int room = tools::ColumnsOfOutput() - OK_WIDTH;
            tools::PrintLine("  " + m_style.Green("ok") + "  " + tools::Clipped(step.text, room));
        }
    }

    // --- The steps

    void Do(const Change& change) {
        BeginAction();
        change();
    }

    void Do(const Say& say) { tools::PrintLine(m_style.Bold(tools::Printable(say.text))); }

    void Do(const Pause& pause) {
        if (pause.isKeptIfFast || !m_isFast) {
            Wait([] { return false; }, pause.time);
        }
    }

    void Do(const Call& call) {
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

    void Do(const Emit& emit) {
        BeginAction();
        m_client.Emit(emit.signal.c_str(), emit.arguments.get());
    }

    void Do(const ExpectSignal& expected) {
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

    void Do(const ExpectValue& expected) {
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
     * miss a report, too, or be slow: each further volume gets twice the time. The step ends with the announcement
     * of the volume that it has put back, so that no signal of it is left to come.
     */
    void Do(const ExpectOutput& expected) {
        const auto deadline = Clock::now() + expected.within;
        KeptVolume volume(VolumeOf(*expected.route)->level);
        for (Seconds window = FIRST_WINDOW; Clock::now() < deadline; window *= 2) {
            if (IsFollowed(volume, std::min<Seconds>(window, deadline - Clock::now()))) {
                return;
            }
        }
        Miss("kavreld to follow the output " + std::string(expected.route->name) + Within(expected.within),
             SignalsInWords());
    }

    void Do(const ExpectGain& expected) {
        const std::vector<int>& gains = m_gains[expected.output];
        const auto isReached = [&] { return !gains.empty() && gains.back() == expected.gain; };
        if (!WaitForGain(expected.output, isReached, expected.within)) {
            Miss("the " + NameOf(expected.output) + " gain " + std::to_string(expected.gain) +
                     Within(expected.within),
                 GainsInWords(expected.output));
        }
    }

    void Do(const ExpectFade& expected) {
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

    Words Ask(const Call& call) const {
        if (g_variant_n_children(call.arguments.get()) > 0) {
            return {std::to_string(m_client.Command(call.method.c_str(), call.arguments.get()))};
        }
        const tools::Reading reading = m_client.Read(call.method.c_str());
        return {std::to_string(reading.value), std::to_string(reading.status)};
    }

    /** Changes the volume and puts it back. @return whether the daemon has announced both, each within the time */
    bool IsFollowed(KeptVolume& volume, Seconds time) {
        m_signals.clear();
        if (!IsAnnounced(volume.Change(), time)) {
            return false;
        }
        m_signals.clear();
        volume.PutBack();
        const bool isOver = !volume.Kept() || IsAnnounced(*volume.Kept(), time);
        m_signals.clear();
        return isOver;
    }

    bool IsAnnounced(int volume, Seconds time) {
        const Words signal = {"SpeakerVolumeChanged", "*", std::to_string(volume)};
        return Wait([&] { return HasSignal(signal); }, time);
    }

    // --- Events

    void OnWritten(const std::string& path) {
        for (const GainOutput output : {GainOutput::MAIN, GainOutput::SUB}) {
            if (path == ValueOf(output).path) {
                NoteGain(output);
            }
        }
    }

    void NoteGain(GainOutput output) {
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

    /** Handles all events that have come so far. @throws tools::ToolError after Ctrl-C */
    void CatchUp() {
        for (int i = 0; i < MOST_PENDING && g_main_context_iteration(nullptr, FALSE) != FALSE; ++i) {
        }
        Wait([] { return true; }, Seconds(0));
    }

    /** Forgets the gains seen before an action, except the present ones. */
    void BeginAction() {
        CatchUp();
        for (const GainOutput output : {GainOutput::MAIN, GainOutput::SUB}) {
            m_gains[output].clear();
            NoteGain(output);
        }
    }

    /** Waits for the condition, and at most that long. @return whether it is met
     *  @throws tools::ToolError after Ctrl-C */
    bool Wait(const Condition& isMet, Seconds time) {
        const auto waited =
            m_loop.RunUntil(isMet, std::chrono::ceil<milliseconds>(std::max(time, Seconds(0))));
        if (waited == tools::MainLoop::Waited::ENDED) {
            throw tools::ToolError(tools::EXIT_INTERRUPTED, "interrupted");
        }
        return waited == tools::MainLoop::Waited::MET;
    }

    /** Draws the gain while it moves on a terminal; prints its values afterwards elsewhere. */
    bool WaitForGain(GainOutput output, const Condition& isMet, Seconds time) {
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

    void DrawGain(GainOutput output) {
        const int gain = m_gains[output].back();
        const int filled = std::clamp(gain, 0, FULL_GAIN) * BAR_WIDTH / FULL_GAIN;
        tools::Print("\r      " + NameOf(output) + " gain " + tools::Formatted("%3d", gain) + " % " +
                     m_style.Cyan(std::string(static_cast<std::size_t>(filled), '#')) +
                     std::string(static_cast<std::size_t>(BAR_WIDTH - filled), '.'));
    }

    /** A pattern that is a name alone matches any arguments. */
    std::deque<Words>::const_iterator FindSignal(const Words& pattern) const {
        return std::find_if(m_signals.begin(), m_signals.end(), [&](const Words& signal) {
            return pattern.size() == 1 ? pattern[0] == signal[0] : Matches(pattern, signal);
        });
    }

    bool HasSignal(const Words& pattern) const { return FindSignal(pattern) != m_signals.end(); }

    std::string SignalsInWords() const {
        Words signals;
        for (const Words& words : m_signals) {
            signals.push_back(tools::Joined(words));
        }
        return signals.empty() ? "nothing" : tools::Joined(signals, ", ");
    }

    std::string GainsInWords(GainOutput output) const {
        Words gains;
        for (const int gain : m_gains.at(output)) {
            gains.push_back(std::to_string(gain));
        }
        return tools::Joined(gains);
    }

    tools::MainLoop& m_loop;
    const bool m_isFast;  // leaves out times and pauses
    const tools::Style m_style;
    tools::KavrelClient m_client;
    std::deque<Words> m_signals;                     // each with its arguments
    std::map<GainOutput, std::vector<int>> m_gains;  // since the last action
    std::optional<GainOutput> m_drawn;
    DirectoryWatch m_watch;
};

int Play(const std::string& directory, const Scenario& scenario, bool isFast) {
    OpenTv(directory);
    tools::MainLoop loop;
    Stage(loop, directory, isFast).Play(scenario);
    return tools::EXIT_DONE;
}

struct PlayCommand {
    std::string file;
    bool isFast = false;

    void AddOptions(CLI::App& command) {
        command.add_option("FILE", file, "The scenario")->required();
        command.add_flag("--fast", isFast, "Leave out times and pauses");
    }
    int Run(const std::string& directory) const {
        return Play(directory, ParseScenario(file, ReadFile(file)), isFast);
    }
};

struct TourCommand {
    bool isFast = false;

    void AddOptions(CLI::App& command) { command.add_flag("--fast", isFast, "Leave out pauses"); }
    int Run(const std::string& directory) const {
        return Play(directory, ParseScenario("tour", kavrel_tour_scenario), isFast);
    }
};

}  // namespace

void AddPlayAndTour(tools::CommandLine& line, const std::string& directory) {
    AddCommand<PlayCommand>(
        line, directory,
        {"play",
         "Play a scenario and check what it expects\n\n"
         "Lines are played in order; a number in front is the earliest time in seconds:\n"
         "  0.5 route hdmi                       any verb of this tool\n"
         "  call SetSpeakerVolume 30 -> 0        a method and its expected answer:\n"
         "  call GetSpeakerVolume -> 30 0        a status, or a value and a status\n"
         "  emit BudsDisconnected 0              a signal for kavreld\n"
         "  expect signal SpeakerVolumeChanged 3 40 within 1\n"
         "  expect no signal SpeakerMuteChanged * * within 0.5, or the name alone\n"
         "  expect value audio/master_volume 30  a file of the TV directory\n"
         "  expect output hdmi                   waits until kavreld follows the output:\n"
         "      changes its volume until kavreld announces that, and puts it back\n"
         "  expect gain main 20, expect fade main\n"
         "  say TEXT, pause SECONDS, settle SECONDS, # comment\n"
         "The first step that fails ends the scenario with exit status 1.",
         "kavrel-tv play scenarios/volume.txt"});
    AddCommand<TourCommand>(line, directory,
                            {"tour",
                             "Show all that kavreld does, in about a minute\n\n"
                             "Every step is checked. The tour needs kavreld and the external outputs'\n"
                             "components (kavrel-tv devices); ./run starts both.",
                             "kavrel-tv tour\n./run kavrel-tv tour"});
}

}  // namespace tv
