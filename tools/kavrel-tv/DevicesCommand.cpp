// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <algorithm>
#include <charconv>
#include <chrono>
#include <deque>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>

#include "Commands.h"
#include "DirectoryWatch.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Platform.h"
#include "Player.h"
#include "Print.h"
#include "Routes.h"

namespace tv {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int EVERYTHING = 0xF;  // as a support word
constexpr int FIRST_LEVEL = 10;  // of a device that was never set
constexpr int HIGHEST_LEVEL = 100;
constexpr int LONGEST_DELAY = 60'000;  // milliseconds

constexpr const char* DESCRIPTION = R"(Play the devices behind the external outputs, until Ctrl-C

All devices publish level, mute and support word when they begin. Then the one
in use answers every request for a level or for mute by publishing all three
values, and publishes them after a change of the route, too. In multi-view it is
the device of the zone in focus. A new device has level 10, is not muted, and
can do everything.

The options make bad devices. If several of these commands run on one TV, the
last one plays and the others wait until it has ended.)";

/** How the devices behave. */
struct DeviceBehaviour {
    int delay = 50;  // milliseconds; the daemon misses an answer that comes while it is busy with the request
    int jitter = 0;  // milliseconds at most, added at random
    std::optional<int> support;
    bool isDeaf = false;
    int failures = 0;  // percent of the requests
    int rounding = 1;  // levels are multiples of it
    bool answersTwice = false;
    std::optional<int> vanishAfter;  // number of answers
    std::optional<unsigned> seed;    // of the random numbers
};

void Say(std::string_view device, const std::string& what) {
    tools::PrintWithTime(std::string(device) + ": " + what);
}

std::string OnOrOff(int mute) {
    return mute != 0 ? "on" : "off";
}

/**
 * The components behind the external outputs of the open TV, which play while the object lives. Everything
 * that a device is can be read from its settings, so that a person can change it by hand, too.
 */
class Devices {
public:
    /** @throws tools::ToolError if the directory cannot be watched */
    Devices(tools::MainLoop& loop, const DeviceBehaviour& behaviour)
        : m_loop(loop),
          m_behaviour(behaviour),
          m_random(behaviour.seed ? *behaviour.seed : std::random_device()()),
          m_watch(loop, FolderOfRequests(),
                  [this](auto event, const std::string& path) { On(event, path); }) {
        m_player.Take();
        Begin();
    }

private:
    struct Request {
        std::optional<int> level;
        std::optional<int> mute;
    };
    struct Answer {
        Clock::time_point due;
        const DeviceKind* kind;
        Request request;
    };

    /** Makes the folder of the requests, since only what happens in an existing folder is never missed.
     *  @return the TV directory */
    static std::filesystem::path FolderOfRequests() {
        const auto folder = (host::Root() / host::LEVEL_REQUEST.path).parent_path();
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) {
            ThrowIfFailed({error.value(), "Cannot make " + folder.string() + ": " + error.message()});
        }
        return host::Root();
    }

    void On(DirectoryWatch::Event event, const std::string& path) {
        const bool isLevel = path == host::LEVEL_REQUEST.path;
        if (event == DirectoryWatch::Event::LOST) {
            tools::Complain("too many changes at once: requests may be lost");
        }
        if (path == Player::File().path) {
            LookAtPlayer();
        } else if (event == DirectoryWatch::Event::WRITTEN && (isLevel || path == host::MUTE_REQUEST.path)) {
            LookAtPlayer();  // which a signal may have ended before it could remove its process id
            Take(isLevel);
        } else {
            LookAtOutput();
        }
    }

    // --- Which command plays

    void Begin() {
        const Integer route = ReadOutput().route;
        m_route = route ? std::optional(route.value) : std::nullopt;
        for (const DeviceKind& kind : DeviceKinds()) {
            if (!m_vanished[kind.name]) {
                Publish(kind, {}, "begins with");
            }
        }
    }

    void LookAtPlayer() {
        const Player::Change change = m_player.Look();
        if (change == Player::Change::GIVEN_BACK) {
            Say("devices", "the other devices have gone; these play again");
            Begin();
        } else if (change == Player::Change::TAKEN_AWAY) {
            Say("devices",
                "process " + std::to_string(m_player.Process()) + " plays now; these wait until it ends");
            m_answers.clear();
            m_timer.reset();
        }
    }

    // --- Requests and answers

    void LookAtOutput() {
        const OutputInUse output = ReadOutput();
        if (!m_player.IsThisProcess() || !output.route || m_route == output.route.value) {
            return;
        }
        m_route = output.route.value;
        const DeviceKind* kind = output.Device();
        if (kind != nullptr && !m_vanished[kind->name]) {
            Publish(*kind, {}, "publishes");
        }
    }

    void Take(bool isLevel) {
        const host::NamedValue& value = isLevel ? host::LEVEL_REQUEST : host::MUTE_REQUEST;
        const Integer asked = ReadInteger(value);
        if (!m_player.IsThisProcess() || asked.IsMissing()) {
            return;
        }
        if (!asked) {
            tools::Complain(std::string("no integer in ") + value.Key());
            return;
        }
        const std::string words =
            (isLevel ? "level " + std::to_string(asked.value) : "mute " + OnOrOff(asked.value)) +
            " asked for";
        const DeviceKind* kind = ReadOutput().Device();
        if (kind == nullptr) {
            Say("devices", words + ", but the output is not external");
            return;
        }
        const char* failure = FindFailure(*kind);
        Say(kind->name, words + failure);
        if (*failure == '\0') {
            Enqueue(*kind, isLevel ? Request{asked.value, {}} : Request{{}, asked.value});
        }
    }

    /** @return why the device does not answer; empty if it does */
    const char* FindFailure(const DeviceKind& kind) {
        if (m_vanished[kind.name]) {
            return ", but it has vanished";
        }
        if (m_behaviour.isDeaf) {
            return ", but it is deaf";
        }
        return static_cast<int>(m_random() % 100) < m_behaviour.failures ? ", but it fails" : "";
    }

    /** Keeps the answers in the order of the requests, so that the value published last is the one asked for last. */
    void Enqueue(const DeviceKind& kind, const Request& request) {
        const auto jitter = static_cast<int>(m_random() % (static_cast<unsigned>(m_behaviour.jitter) + 1));
        const auto due = Clock::now() + milliseconds(m_behaviour.delay + jitter);
        m_answers.push_back({m_answers.empty() ? due : std::max(due, m_answers.back().due), &kind, request});
        if (m_answers.size() == 1) {
            ArmTimer();
        }
    }

    void ArmTimer() {
        const auto left = std::chrono::ceil<milliseconds>(m_answers.front().due - Clock::now());
        m_timer = m_loop.After(std::max(left, milliseconds(0)), [this] { GiveAnswer(); });
    }

    void GiveAnswer() {
        const Answer answer = m_answers.front();
        m_answers.pop_front();
        m_timer.reset();
        if (!m_answers.empty()) {
            ArmTimer();
        }
        if (m_vanished[answer.kind->name]) {
            return;
        }
        for (int times = m_behaviour.answersTwice ? 2 : 1; times > 0; --times) {
            Publish(*answer.kind, answer.request, "publishes");
        }
        if (++m_answered == m_behaviour.vanishAfter) {
            Vanish(*answer.kind);
        }
    }

    int Rounded(int level) const {
        const int step = m_behaviour.rounding;
        const int possible = std::clamp(level, 0, HIGHEST_LEVEL);
        return std::min((possible + step / 2) / step, HIGHEST_LEVEL / step) * step;
    }

    /**
     * Publishes all three values: those asked for, as far as the device can do them, and the present others. Without
     * a request it writes only what is not there yet, since another program may write the values meanwhile.
     */
    void Publish(const DeviceKind& kind, const Request& request, const std::string& verb) {
        const auto present = [](const Integer& integer, int otherwise) {
            return integer ? integer.value : otherwise;
        };
        const bool isAnswer = request.level || request.mute;
        const Integer oldSupport = ReadInteger(kind.support);
        const Integer oldLevel = ReadInteger(kind.level);
        const Integer oldMute = ReadInteger(kind.mute);
        const int support = m_behaviour.support.value_or(present(oldSupport, EVERYTHING));
        const int level = Rounded(request.level.value_or(present(oldLevel, FIRST_LEVEL)));
        const int mute = request.mute ? static_cast<int>(*request.mute != 0) : present(oldMute, 0);

        // The support word first: a program that is notified of the level asks for it.
        for (const auto& [setting, old, number] : {std::tuple(&kind.support, oldSupport, support),
                                                   {&kind.level, oldLevel, level},
                                                   {&kind.mute, oldMute, mute}}) {
            if (!isAnswer && old && old.value == number) {
                continue;
            }
            if (const host::Error error = host::Write(*setting, std::to_string(number))) {
                tools::Complain(error.text);
                return;
            }
        }
        Say(kind.name, verb + " level " + std::to_string(level) + ", mute " + OnOrOff(mute) + ", support " +
                           tools::SupportInHex(support));
    }

    void Vanish(const DeviceKind& kind) {
        m_vanished[kind.name] = true;
        for (const host::Value& setting : {kind.support, kind.level, kind.mute}) {
            static_cast<void>(host::Remove(setting));
        }
        Say(kind.name, "vanishes");
    }

    tools::MainLoop& m_loop;
    const DeviceBehaviour m_behaviour;
    std::mt19937 m_random;
    DirectoryWatch m_watch;
    Player m_player;
    std::optional<int> m_route;       // of the output in use at the last look
    std::deque<Answer> m_answers;     // not given yet, in the order of the requests
    tools::GLibPtr<GSource> m_timer;  // of the first of them
    int m_answered = 0;
    std::map<std::string_view, bool> m_vanished;  // by kind
};

/** Accepts a whole number in decimal digits or, behind "0x", in hexadecimal ones. */
std::string CheckSupport(std::string& text) {
    const bool isHex = text.starts_with("0x");
    const char* const end = text.data() + text.size();
    int word = 0;
    const auto read = std::from_chars(text.data() + (isHex ? 2 : 0), end, word, isHex ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != end || word < 0) {
        return tools::Quoted(text) + " is not a support word such as 15 or 0x000f";
    }
    text = std::to_string(word);
    return {};
}

struct DevicesCommand {
    DeviceBehaviour behaviour;

    void AddOptions(CLI::App& command) {
        const auto add = [&](const char* name, const char* type, auto& value, const CLI::Validator& validator,
                             const char* description) {
            command.add_option(name, value, description)->type_name(type)->transform(validator);
        };
        add("--delay", "MS", behaviour.delay, tools::WholeNumber(0, LONGEST_DELAY),
            "Answer after so many milliseconds (default: 50);\nkavreld may be too busy for an answer at 0");
        add("--jitter", "MS", behaviour.jitter, tools::WholeNumber(0, LONGEST_DELAY),
            "Answer up to so many milliseconds later, at random,\nstill in order");
        add("--support", "WORD", behaviour.support, CLI::Validator(CheckSupport, ""),
            "Set the support word: the sum of 1 read volume,\n2 set volume, 4 read mute, 8 set mute");
        command.add_flag("--deaf", behaviour.isDeaf, "Take requests and do nothing");
        add("--fail", "PERCENT", behaviour.failures, tools::WholeNumber(0, 100),
            "Leave so many of the requests unanswered, at random");
        add("--rounding", "N", behaviour.rounding, tools::WholeNumber(1, 100),
            "Round levels to a multiple of N, up to 100");
        command.add_flag("--double", behaviour.answersTwice,
                         "Answer every request twice, the same each time");
        add("--vanish-after", "N", behaviour.vanishAfter, tools::WholeNumber(1),
            "Remove the values of the device in use after N\nanswers, and answer no more");
        add("--seed", "N", behaviour.seed, tools::WholeNumber(0),
            "Make the random choices the same each time");
    }

    int Run(const std::string& directory) const {
        OpenTv(directory);
        tools::MainLoop loop;
        const Devices devices(loop, behaviour);
        tools::PrintLine("the devices behind the external outputs play until Ctrl-C");
        return loop.RunUntilInterrupted();
    }
};

}  // namespace

void AddDevices(tools::CommandLine& line, const std::string& directory) {
    AddCommand<DevicesCommand>(
        line, directory, {"devices", DESCRIPTION, "kavrel-tv devices --delay 300 --jitter 200 --rounding 5"});
}

}  // namespace tv
