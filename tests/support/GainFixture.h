// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Base of tests of the gain controller over the fake seam. It observes the workers from outside: the journal
 * of each one's thread, the gains that it stores, and when all of them rest.
 */
#ifndef KAVREL_TESTS_GAINFIXTURE_H
#define KAVREL_TESTS_GAINFIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FakeSeam.h"
#include "KVAudioGainHandler.h"
#include "WorkerWaits.h"

namespace fake {

/** The sorted names of the threads of this process, without those that are ending: the kernel may list them after
 * their join. */
std::vector<std::string> ThreadNames();

/** A gain that a worker stored, read right after the store. */
struct Store {
    NKavrel::eKVGainHandlerType worker = NKavrel::GAIN_HANDLER_NONE;
    int gain = 0;
    Clock::time_point time;
};

using Milliseconds = std::chrono::duration<double, std::milli>;

class GainFixture : public testing::Test {
protected:
    GainFixture();
    ~GainFixture() override;

    /** Creates the controller, waits until its workers rest, and empties the journal. */
    void Start();
    /** Does the same, but keeps the journal. */
    void Create();
    [[nodiscard]] bool Rest() const { return WorkersRest(); }
    [[nodiscard]] bool Waits(NKavrel::eKVGainHandlerType worker, const std::string& lastEntry) const {
        return WorkerWaits(worker, lastEntry);
    }

    int Gain(NKavrel::eKVGainHandlerType slot);
    std::vector<Store> Stores(NKavrel::eKVGainHandlerType worker) const;
    std::vector<int> StoredGains(NKavrel::eKVGainHandlerType worker) const;
    /**
     * The shortest of the first 3 periods of the gain-out worker, or of 50, up to the first one below the limit. A slow
     * machine can lengthen a period but never shorten one.
     */
    Milliseconds ShortestPeriod(std::optional<Milliseconds> limit = {}) const;
    /**
     * Runs `action` once, on another thread, after the worker stored this gain. The worker waits until it
     * returns.
     */
    void AfterStore(NKavrel::eKVGainHandlerType worker, int gain, std::function<void()> action);

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    std::optional<NKavrel::KVAudioGainHandler> gain;

private:
    struct Watched;

    void OnStore(NKavrel::KVAudioGainHandler& controller);
    /** The times at which the gain-out worker read the total of the main output. */
    std::vector<Clock::time_point> MainTurns() const;

    std::unique_ptr<Watched> m_watched;
};

}  // namespace fake

#endif
