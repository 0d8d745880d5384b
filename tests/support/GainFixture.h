// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A gain controller over the fake seam, and its workers as they are seen from outside: what each does, by
 * its thread's name, and when all of them rest.
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

/** Names of all threads of this process, sorted. */
std::vector<std::string> ThreadNames();

/**
 * Waits until every worker of the one gain controller sleeps: its last line says so, and the kernel has it
 * waiting. Only from then on is a request never lost. The journal must not have been emptied since its start.
 */
[[nodiscard]] bool WorkersRest();

/** A gain that a worker stored, as it stands right after the store. */
struct Store {
    NKavrel::eKVGainHandlerType worker = NKavrel::GAIN_HANDLER_NONE;
    int gain = 0;
    Clock::time_point time;
};

class GainFixture : public testing::Test {
protected:
    GainFixture();
    ~GainFixture() override;

    /** Makes the controller, waits until its workers rest, and begins the journals below anew. */
    void Start();
    [[nodiscard]] bool Rest() const { return WorkersRest(); }
    /** Waits until a worker waits with this as its last entry. */
    [[nodiscard]] bool Waits(NKavrel::eKVGainHandlerType worker, const std::string& lastEntry) const;
    /** Lets the journals below begin here. */
    void Mark();

    /** Seam calls and log lines of INFO and above of one thread; "" is this one. */
    std::vector<std::string> Journal(const std::string& thread) const;
    /** The same with the trace lines. */
    std::vector<Entry> Entries(const std::string& thread) const;
    /** The first such entry of one thread; fails the test if there is none. */
    Entry Find(const std::string& thread, const std::string& text) const;

    int Gain(NKavrel::eKVGainHandlerType slot);
    std::vector<Store> Stores(NKavrel::eKVGainHandlerType worker) const;
    std::vector<int> StoredGains(NKavrel::eKVGainHandlerType worker) const;
    /** Runs once: after the worker has stored this gain, before it goes on. On a thread of its own, for which
     *  the worker waits. */
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
