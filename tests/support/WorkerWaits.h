// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Waiting for the gain workers, as an event.
 *
 * A program with this file replaces the thread library's waits on condition variables. A gain worker that waits
 * sleeps in this file instead of the library, which therefore knows at each moment which workers wait, and which
 * of them have been notified but not yet woken up.
 *
 * So the pause in which the end of a gain controller lets its workers come to rest is an event, too: it ends as
 * soon as all of them wait.
 */
#ifndef KAVREL_TESTS_WORKERWAITS_H
#define KAVREL_TESTS_WORKERWAITS_H

#include <chrono>
#include <functional>
#include <string>

#include "KVAudioGainHandler.h"

namespace fake {

/**
 * Waits until every worker of the only gain controller waits for a request, and nobody has notified it. A worker
 * can miss a request that comes earlier.
 * @return false if that takes longer than PATIENCE
 */
[[nodiscard]] bool WorkersRest();

/**
 * Waits until a worker waits, for a request or for the time of its next step, and its last entry in the journal
 * is this one.
 * @return false if that takes longer than PATIENCE
 */
[[nodiscard]] bool WorkerWaits(NKavrel::eKVGainHandlerType worker, const std::string& lastEntry);

/**
 * The longest time that a worker of the latest controller was to wait between two steps, or two writes of the gains.
 * A slow machine can make it shorter but never longer.
 */
std::chrono::nanoseconds LongestStep(NKavrel::eKVGainHandlerType worker);
/** Like LongestStep(), but only the latest of these times. */
std::chrono::nanoseconds LatestStep(NKavrel::eKVGainHandlerType worker);

/** Notifies a worker that has waited before, without a request. */
void NotifyWorker(NKavrel::eKVGainHandlerType worker);

/** Makes each notification of a worker that has waited before enter the journal: "notify(2)" for worker 2. */
void RecordNotifications(bool record);

/**
 * Whether a worker that comes to a wait between two steps of a fade-in or a ramp, or two writes of the gains, goes on
 * at once, if that time is 100 ms or less.
 */
void SkipStepTimes(bool skip);

/** During its lifetime only notifications end the steps of one worker, their times do not. */
class EndlessSteps {
public:
    explicit EndlessSteps(NKavrel::eKVGainHandlerType worker);
    ~EndlessSteps();
    EndlessSteps(const EndlessSteps&) = delete;
    EndlessSteps& operator=(const EndlessSteps&) = delete;
};

/** Runs `action` once, at the beginning of the next pause in which the end of a gain controller lets its workers rest. */
void AtPause(std::function<void()> action);

/** Lets a signal interrupt each of this thread's next sleeps after half of its time; none of them ends sooner. */
void InterruptSleeps(int count);
int InterruptionsToCome();

}  // namespace fake

#endif
