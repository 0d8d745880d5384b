// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Base of tests of the gain controller over the fake seam. It observes the workers from outside: the journal
 * of each one's thread, the gains that it stores, and when all of them rest.
 */
#ifndef KAVREL_TESTS_GAINFIXTURE_H
#define KAVREL_TESTS_GAINFIXTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FakeSeam.h"
#include "KVAudioGainHandler.h"

namespace fake {

/** The sorted names of the threads of this process, without those that are ending: the kernel may list them after
 * their join. */
std::vector<std::string> ThreadNames();

/**
 * Waits until every worker of the only gain controller rests: the last line of each is its "Sleep" line, and
 * all threads but the caller sleep. A worker can miss a request that comes earlier. Do not empty the journal
 * between the start of the controller and this call.
 * @return false if that takes longer than PATIENCE
 */
[[nodiscard]] bool WorkersRest();

/** A gain that a worker stored, read right after the store. */
struct Store {
    NKavrel::eKVGainHandlerType worker = NKavrel::GAIN_HANDLER_NONE;
    int gain = 0;
    Clock::time_point time;
};

class GainFixture : public testing::Test {
protected:
    GainFixture();
    ~GainFixture() override;

    /** Creates the controller, waits until its workers rest, and calls Mark(). */
    void Start();
    [[nodiscard]] bool Rest() const { return WorkersRest(); }
    /** Waits until this is the last entry of a worker, and all threads but the caller sleep. */
    [[nodiscard]] bool Waits(NKavrel::eKVGainHandlerType worker, const std::string& lastEntry) const;
    /** Makes the functions below ignore all entries up to now. */
    void Mark();

    /** The seam calls of one thread and its log lines of INFO and above; "" means the calling thread. */
    std::vector<std::string> Journal(const std::string& thread) const;
    /** All entries of that thread, also debug and trace lines. */
    std::vector<Entry> Entries(const std::string& thread) const;
    /** The first entry of that thread with this text; without one it fails the test. */
    Entry Find(const std::string& thread, const std::string& text) const;

    int Gain(NKavrel::eKVGainHandlerType slot);
    std::vector<Store> Stores(NKavrel::eKVGainHandlerType worker) const;
    std::vector<int> StoredGains(NKavrel::eKVGainHandlerType worker) const;
    /**
     * Runs `action` once, on another thread, after the worker stored this gain. The worker waits until it
     * returns.
     */
    void AfterStore(NKavrel::eKVGainHandlerType worker, int gain, std::function<void()> action);

    FakeSeam& seam = FakeSeam::Get();
    std::optional<NKavrel::KVAudioGainHandler> gain;

private:
    struct Watched;

    void OnStore(NKavrel::KVAudioGainHandler& controller);

    std::size_t m_mark = 0;
    std::unique_ptr<Watched> m_watched;
};

}  // namespace fake

#endif
