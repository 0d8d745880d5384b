// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "FakeSeam.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <thread>
#include <utility>

namespace fake {

namespace {

/** How many hooks of this thread run, one inside the other. */
thread_local int runningHooks = 0;

}  // namespace

FakeSeam& FakeSeam::Get() {
    static FakeSeam fake;
    return fake;
}

void FakeSeam::Reset() {
    ResetTv();
    DropPlans();
    journal.Clear();
    journal.DropLogLines(false);
}

std::optional<int> FakeSeam::Record(Entry entry) {
    const Plan plan = TakePlan(std::move(entry), journal);
    ++runningHooks;
    for (const auto& action : plan.actions) {
        action();
    }
    --runningHooks;
    return plan.result;
}

std::optional<int> FakeSeam::Enter(const std::string& name, const std::string& arguments) {
    return Record(CallEntry(name, arguments));
}

bool FakeSeam::IsInsideHook() {
    return runningHooks > 0;
}

void OnPlatformThread(const std::function<void()>& action) {
    std::thread(action).join();
}

namespace {

constexpr std::string_view TAG = "Kavrel";

/** Checks the form that every log line of the daemon has. */
void ExpectWellFormed(const Entry& line) {
    EXPECT_EQ(line.tag, TAG) << line.raw;
    EXPECT_FALSE(line.site.file.empty()) << line.raw;
    EXPECT_EQ(line.site.file.find('/'), std::string::npos) << line.raw;
    EXPECT_EQ(line.site, line.siteAgain) << line.raw;
    EXPECT_NE(line.site.function, "operator()") << line.raw;
    EXPECT_TRUE(line.raw.ends_with('\n')) << line.raw;
}

/**
 * Resets the TV before each test, checks the form of all log lines after it, and prints the journal if it
 * failed.
 */
class JournalListener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { FakeSeam::Get().Reset(); }

    void OnTestEnd(const testing::TestInfo& test) override {
        for (const std::string& what : FakeSeam::Get().Unused()) {
            ADD_FAILURE() << "planned for once, but it never came: " << what;
        }
        for (const Entry& entry : FakeSeam::Get().journal.Logs(DLOG_DEBUG).Entries()) {
            ExpectWellFormed(entry);
        }
        if (!test.result()->Failed()) {
            return;
        }
        std::cout << "Seam calls and log lines of this test:\n";
        for (const Entry& entry : FakeSeam::Get().journal.All().Entries()) {
            std::cout << "  " << entry.threadName << ": " << entry.text << '\n';
        }
    }
};

[[maybe_unused]] const bool listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(std::make_unique<JournalListener>().release());
    return true;
}();

}  // namespace
}  // namespace fake
