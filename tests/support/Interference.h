// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * How a test interferes with seam calls and log lines: it makes calls fail, runs code inside them, and holds
 * them.
 */
#ifndef KAVREL_TESTS_INTERFERENCE_H
#define KAVREL_TESTS_INTERFERENCE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Journal.h"

namespace fake {

/** Blocks the thread that reaches it until the test opens or destroys it. */
class Gate {
public:
    Gate() = default;
    ~Gate() { Open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /** Blocks the calling thread until the gate is open. */
    void Pass();
    /** Waits until a thread has reached the gate; false if none did in time. */
    bool WaitReached(std::chrono::milliseconds timeout = PATIENCE);
    void Open();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_reached = false;
    bool m_open = false;
};

/**
 * A call that Interference::BlockNext holds. The destructor releases it, so that no thread stays blocked after
 * a test.
 */
class BlockedCall {
public:
    explicit BlockedCall(std::shared_ptr<Gate> gate) : m_gate(std::move(gate)) {}
    ~BlockedCall() { Open(); }
    BlockedCall(const BlockedCall&) = delete;
    BlockedCall& operator=(const BlockedCall&) = delete;

    bool WaitReached(std::chrono::milliseconds timeout = PATIENCE) { return m_gate->WaitReached(timeout); }
    void Open() { m_gate->Open(); }

private:
    std::shared_ptr<Gate> m_gate;
};

/**
 * In each function `what` is a function's name, the text of a call ("vconf_get_int(\"memory/x\")"), or the
 * text of a log line ("E owns_lock"). Any thread may call them.
 */
class Interference {
public:
    /**
     * Makes calls fail with this result: every call, or only the n-th from now, counted from 1. A failing
     * function that returns a pointer returns null. A failed call changes nothing and reports nothing.
     */
    void Fail(const std::string& what, int result, int nth = 0);
    /** Cancels every Fail with exactly this `what`. */
    void Succeed(const std::string& what);
    /**
     * Shows `judge` every call and log line before it enters the journal. A result makes that call fail. It runs
     * under the fake's lock, so it must use only its argument. Null shows none.
     */
    void Judge(std::function<std::optional<int>(const Entry&)> judge);
    /**
     * Runs `action` inside each such call, on its thread: after it enters the journal and before it takes
     * effect.
     */
    void Before(const std::string& what, std::function<void()> action);
    /** Runs `action` inside the next such call only. */
    void BeforeNext(const std::string& what, std::function<void()> action);
    /** Blocks the next such call until the returned object is opened or destroyed. */
    [[nodiscard]] BlockedCall BlockNext(const std::string& what);
    /** The calls for which BeforeNext, BlockNext and the Fail of an n-th call still wait. A test that ends so fails. */
    std::vector<std::string> Unused() const;

protected:
    /** The interference that a test planned for one call or log line. */
    struct Plan {
        /** The result with which the call must fail. */
        std::optional<int> result;
        std::vector<std::function<void()>> actions;
    };
    /** Takes what is planned for this entry and adds the entry to the journal, both at once. */
    Plan TakePlan(Entry entry, Journal& journal);
    void DropPlans();

private:
    struct PlannedFailure {
        std::string what;
        int result = 0;
        int nth = 0;
        int seen = 0;
    };
    struct Hook {
        std::string what;
        std::function<void()> action;
        bool once = false;
    };

    mutable std::mutex m_mutex;
    // The mutex guards these.
    std::vector<PlannedFailure> m_failures;
    std::vector<Hook> m_hooks;
    std::function<std::optional<int>(const Entry&)> m_judge;
};

}  // namespace fake

#endif
