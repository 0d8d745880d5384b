// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Devices.h"

#include <directory.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>

#include "Clock.h"
#include "Errors.h"
#include "KavrelClient.h"
#include "Platform.h"
#include "Print.h"

namespace tv {

namespace {

constexpr int EVERYTHING = 0xF;  // as a support word
constexpr int FIRST_LEVEL = 10;  // of a device that was never set
constexpr int HIGHEST_LEVEL = 100;

/** Holds the process id of the one that plays. Its name begins with a dot: it is nobody's value. */
host::Value Player() {
    return {".devices", host::Range{}};
}

std::string PathOf(const char* key) {
    return std::string("settings/") + key;
}

void Say(std::string_view who, const std::string& what) {
    tools::PrintLine(tools::TimeOfDay(tools::Now()) + " " + std::string(who) + ": " + what);
}

std::string OnOrOff(int mute) {
    return mute != 0 ? "on" : "off";
}

}  // namespace

Devices::Devices(tools::MainLoop& loop, const Manners& manners)
    : m_loop(loop), m_manners(manners), m_random(manners.seed) {
    // The folder has to be there before the first request: what happens in a watched folder is never missed.
    const auto requests = (host::Root() / PathOf(LEVEL_REQUEST_KEY)).parent_path();
    std::filesystem::create_directories(requests);
    m_watch = std::make_unique<DirectoryWatch>(
        loop, host::Root(),
        [this](DirectoryWatch::Event event, const std::string& path) { On(event, path); });
    BecomePlayer();
}

Devices::~Devices() {
    if (m_isPlayer) {
        static_cast<void>(host::Remove(Player()));
    }
}

void Devices::On(DirectoryWatch::Event event, const std::string& path) {
    const bool isWritten = event == DirectoryWatch::Event::WRITTEN;
    if (event == DirectoryWatch::Event::LOST) {
        tools::Complain("too much at once: requests may have been missed");
    }
    if (path == Player().path) {
        LookAtPlayer();
    } else if (isWritten && (path == PathOf(LEVEL_REQUEST_KEY) || path == PathOf(MUTE_REQUEST_KEY))) {
        LookAtPlayer();  // who might have ended without a word
        Take(path == PathOf(LEVEL_REQUEST_KEY) ? LEVEL_REQUEST_KEY : MUTE_REQUEST_KEY);
    } else {
        LookAtOutput();
    }
}

// --- Which of several plays

void Devices::BecomePlayer() {
    Require(host::Write(Player(), std::to_string(getpid())), "cannot begin");
    m_isPlayer = true;
    const Number route = ReadOutput().route;
    m_route = route ? std::optional(route.value) : std::nullopt;
    for (const DeviceKind* kind : DeviceKinds()) {
        if (!m_vanished[kind->name]) {
            Publish(*kind, {}, "begins with");
        }
    }
}

void Devices::LookAtPlayer() {
    int player = 0;
    const bool isThere = !host::Read(Player(), player) && (kill(player, 0) == 0 || errno == EPERM);
    if (!isThere) {
        Say("devices", "the other ones have gone; playing again");
        BecomePlayer();
    } else if (player != getpid() && m_isPlayer) {
        Say("devices",
            "others have begun to play (process " + std::to_string(player) + "); waiting until they go");
        m_isPlayer = false;
        m_answers.clear();
        m_timer.reset();
    }
}

// --- Playing

void Devices::LookAtOutput() {
    const Output output = ReadOutput();
    if (!m_isPlayer || !output.route || m_route == output.route.value) {
        return;
    }
    m_route = output.route.value;
    const DeviceKind* kind = output.Device();
    if (kind != nullptr && !m_vanished[kind->name]) {
        Publish(*kind, {}, "publishes");
    }
}

void Devices::Take(const char* key) {
    const Number asked = ReadSetting(key);
    if (!m_isPlayer || asked.IsMissing()) {
        return;
    }
    if (!asked) {
        tools::Complain(std::string("no integer in ") + key);
        return;
    }
    const bool isLevel = key == LEVEL_REQUEST_KEY;
    const std::string words =
        isLevel ? "level " + std::to_string(asked.value) : "mute " + OnOrOff(asked.value);
    const DeviceKind* kind = ReadOutput().Device();
    if (kind == nullptr) {
        Say("devices", words + " asked for, of an output that is not external");
        return;
    }
    if (!IsLost(*kind, words)) {
        PutInLine(*kind, isLevel ? Request{asked.value, {}} : Request{{}, asked.value});
    }
}

bool Devices::IsLost(const DeviceKind& kind, const std::string& asked) {
    const char* why = "";
    if (m_vanished[kind.name]) {
        why = ", but it has vanished";
    } else if (m_manners.isDeaf) {
        why = ", but it is deaf";
    } else if (static_cast<int>(m_random() % 100) < m_manners.failures) {
        why = ", but it fails";
    }
    Say(kind.name, asked + " asked for" + why);
    return *why != '\0';
}

/** Answers never overtake each other: the last one published is the one asked for last. */
void Devices::PutInLine(const DeviceKind& kind, const Request& request) {
    const auto jitter = static_cast<int>(m_random() % (static_cast<unsigned>(m_manners.jitter) + 1));
    const auto due = Clock::now() + std::chrono::milliseconds(m_manners.delay + jitter);
    m_answers.push_back({m_answers.empty() ? due : std::max(due, m_answers.back().due), &kind, request});
    if (m_answers.size() == 1) {
        ArmTimer();
    }
}

void Devices::ArmTimer() {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_answers.front().due - Clock::now());
    m_timer = m_loop.After(std::max(left, std::chrono::milliseconds(0)), [this] { GiveAnswer(); });
}

void Devices::GiveAnswer() {
    const Answer answer = m_answers.front();
    m_answers.pop_front();
    m_timer.reset();
    if (!m_answers.empty()) {
        ArmTimer();
    }
    if (m_vanished[answer.kind->name]) {
        return;
    }
    for (int times = m_manners.answersTwice ? 2 : 1; times > 0; --times) {
        Publish(*answer.kind, answer.request, "publishes");
    }
    if (++m_answered == m_manners.vanishAfter) {
        Vanish(*answer.kind);
    }
}

/**
 * Publishes all three values: what was asked for, as the
 * device understands it, and else what stands there.
 */
void Devices::Publish(const DeviceKind& kind, const Request& request, const std::string& verb) {
    const auto present = [](const char* key, int otherwise) {
        const Number number = ReadSetting(key);
        return number ? number.value : otherwise;
    };
    const int support = m_manners.support.value_or(present(kind.supportKey, EVERYTHING));
    const int level =
        std::clamp(request.level.value_or(present(kind.levelKey, FIRST_LEVEL)), 0, HIGHEST_LEVEL);
    const int step = m_manners.rounding;
    const int rounded = std::min((level + step / 2) / step, HIGHEST_LEVEL / step) * step;
    const int mute = request.mute ? static_cast<int>(*request.mute != 0) : present(kind.muteKey, 0);

    // The support word first: whoever hears of the level asks for it.
    if (vconf_set_int(kind.supportKey, support) != 0 || vconf_set_int(kind.levelKey, rounded) != 0 ||
        vconf_set_int(kind.muteKey, mute) != 0) {
        tools::Complain(TakePlatformError());
        return;
    }
    Say(kind.name, verb + " level " + std::to_string(rounded) + ", mute " + OnOrOff(mute) + ", support " +
                       tools::SupportInHex(support));
}

void Devices::Vanish(const DeviceKind& kind) {
    m_vanished[kind.name] = true;
    for (const char* key : {kind.supportKey, kind.levelKey, kind.muteKey}) {
        static_cast<void>(host::Remove({PathOf(key), std::nullopt}));
    }
    Say(kind.name, "vanishes");
}

}  // namespace tv
