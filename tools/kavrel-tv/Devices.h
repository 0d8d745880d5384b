// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_DEVICES_H
#define KAVREL_TV_DEVICES_H

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "DirectoryWatch.h"
#include "MainLoop.h"
#include "Routes.h"
#include "Snapshot.h"

namespace tv {

/** How the devices behave, and misbehave. */
struct Manners {
    /** Of an answer, in milliseconds. The daemon does not hear one that comes while it is still busy with
     *  asking; no device of a TV is that fast. */
    int delay = 50;
    int jitter = 0;  // at most so many more
    std::optional<int> support;
    bool isDeaf = false;
    int failures = 0;  // in percent
    int rounding = 1;  // levels are multiples of it
    bool answersTwice = false;
    std::optional<int> vanishAfter;  // so many answers
    unsigned seed = 0;               // of what is left to chance
};

/**
 * The components behind the external outputs of an open TV. They all publish support word, level and mute
 * when they begin, before their route is ever chosen; then the one behind the output in force takes the
 * requests, and publishes again with each answer and when it is chosen. All that a device is stands in its
 * settings, so that it can be turned by hand, too.
 *
 * Of several on one TV the one that began last plays; the others wait until it has gone.
 */
class Devices {
public:
    /** Plays while it lives, on the main loop, and prints what it does.
     *  @throws ToolError if it cannot watch */
    Devices(tools::MainLoop& loop, const Manners& manners);
    ~Devices();
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    /** What a device is asked for. */
    struct Request {
        std::optional<int> level;
        std::optional<int> mute;
    };
    struct Answer {
        Clock::time_point due;
        const DeviceKind* kind;
        Request request;
    };

    void On(DirectoryWatch::Event event, const std::string& path);

    void BecomePlayer();
    void LookAtPlayer();

    void LookAtOutput();
    void Take(const char* key);
    bool IsLost(const DeviceKind& kind, const std::string& asked);
    void PutInLine(const DeviceKind& kind, const Request& request);
    void ArmTimer();
    void GiveAnswer();
    void Publish(const DeviceKind& kind, const Request& request, const std::string& verb);
    void Vanish(const DeviceKind& kind);

    tools::MainLoop& m_loop;
    const Manners m_manners;
    std::mt19937 m_random;
    std::unique_ptr<DirectoryWatch> m_watch;
    bool m_isPlayer = false;
    std::optional<int> m_route;       // that was in force at the last look
    std::deque<Answer> m_answers;     // to come, in the order of the requests
    tools::GLibPtr<GSource> m_timer;  // of the first of them
    int m_answered = 0;
    std::map<std::string_view, bool> m_vanished;  // by kind
};

}  // namespace tv

#endif
