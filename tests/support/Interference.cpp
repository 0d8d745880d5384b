// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Interference.h"

namespace fake {

namespace {

bool Matches(const std::string& what, const Entry& entry) {
    return what == entry.text || (entry.IsCall() && what == entry.name);
}

}  // namespace

void Gate::Pass() {
    std::unique_lock lock(m_mutex);
    m_reached = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_open; });
}

bool Gate::WaitReached(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_reached; });
}

void Gate::Open() {
    const std::lock_guard lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
}

void Interference::Fail(const std::string& what, int result, int nth) {
    const std::lock_guard lock(m_mutex);
    m_failures.push_back({what, result, nth, 0});
}

void Interference::Succeed(const std::string& what) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_failures, [&](const PlannedFailure& failure) { return failure.what == what; });
}

void Interference::Judge(std::function<std::optional<int>(const Entry&)> judge) {
    const std::lock_guard lock(m_mutex);
    m_judge = std::move(judge);
}

void Interference::Before(const std::string& what, std::function<void()> action) {
    const std::lock_guard lock(m_mutex);
    m_hooks.push_back({what, std::move(action), false});
}

void Interference::BeforeNext(const std::string& what, std::function<void()> action) {
    const std::lock_guard lock(m_mutex);
    m_hooks.push_back({what, std::move(action), true});
}

BlockedCall Interference::BlockNext(const std::string& what) {
    auto gate = std::make_shared<Gate>();
    BeforeNext(what, [gate] { gate->Pass(); });
    return BlockedCall(gate);
}

Interference::Plan Interference::TakePlan(Entry entry, Journal& journal) {
    Plan plan;
    const std::lock_guard lock(m_mutex);
    for (PlannedFailure& failure : m_failures) {
        if (Matches(failure.what, entry) && (++failure.seen == failure.nth || failure.nth == 0)) {
            plan.result = failure.result;
        }
    }
    if (const auto judged = m_judge ? m_judge(entry) : std::nullopt) {
        plan.result = judged;
    }
    std::erase_if(m_hooks, [&](const Hook& hook) {
        if (!Matches(hook.what, entry)) {
            return false;
        }
        plan.actions.push_back(hook.action);
        return hook.once;
    });
    journal.Add(std::move(entry));
    return plan;
}

std::vector<std::string> Interference::Unused() const {
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> unused;
    for (const Hook& hook : m_hooks) {
        if (hook.once) {
            unused.push_back(hook.what);
        }
    }
    for (const PlannedFailure& failure : m_failures) {
        if (failure.seen < failure.nth) {
            unused.push_back(failure.what);
        }
    }
    return unused;
}

void Interference::DropPlans() {
    const std::lock_guard lock(m_mutex);
    m_failures.clear();
    m_hooks.clear();
    m_judge = nullptr;
}

}  // namespace fake
