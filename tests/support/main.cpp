// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Runs the tests of a program. GLib's warnings abort it, and a watchdog ends a test that hangs. */
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

/**
 * Seconds that one test may take. No test needs nearly as much, even on a slow machine and under a sanitizer.
 */
constexpr unsigned int WATCHDOG = 180;

extern "C" void OnAlarm(int) {
    constexpr std::string_view text = "The watchdog ended this test: it hung.\n";
    [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), text.size());
    std::abort();
}

class Watchdog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { alarm(WATCHDOG); }
    void OnTestEnd(const testing::TestInfo&) override { alarm(WATCHDOG); }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    std::signal(SIGALRM, OnAlarm);
    alarm(WATCHDOG);
    testing::UnitTest::GetInstance()->listeners().Append(std::make_unique<Watchdog>().release());
    const int result = RUN_ALL_TESTS();
    // A filter that matches no test is an error.
    return testing::UnitTest::GetInstance()->test_to_run_count() > 0 ? result : EXIT_FAILURE;
}
