// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVDebug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "FakeSeam.h"

using fake::FakeSeam;
using testing::ElementsAre;

namespace {

class KVDebugTest : public testing::Test {
protected:
    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
};

int LogOnce() {
    LOGE("value %d of %s", -7, "name");
    return __LINE__ - 1;
}

void LogAllPriorities() {
    LOGD("debug");
    LOGI("info");
    LOGW("warn");
    LOGE("error");
}

NKavrel::CallSite HereIsTheCaller() {
    return {};
}

int Returns(bool early) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (early) {
        return 1;
    }
    LOGI("late");
    return 2;
}

void Throws() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    throw std::runtime_error("on purpose");
}

void Inner(int) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void Outer() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    Inner(1);
    LOGI("between");
    Inner(2);
}

TEST_F(KVDebugTest, ALineCarriesFileFunctionAndLineThenFunctionAndLineAgain) {
    const int line = LogOnce();
    const auto entries = journal.All().Entries();
    ASSERT_EQ(entries.size(), 1U);
    const std::string number = std::to_string(line);
    EXPECT_EQ(entries[0].raw,
              "KVDebug_test.cpp: LogOnce(" + number + ") > [LogOnce:" + number + "] value -7 of name\n");
    EXPECT_EQ(entries[0].tag, "Kavrel");
}

TEST_F(KVDebugTest, EachMacroHasItsPriority) {
    LogAllPriorities();
    const auto entries = journal.All().Entries();
    ASSERT_EQ(entries.size(), 4U);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(entries[static_cast<std::size_t>(i)].priority, 3 + i);
    }
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(), ElementsAre("D debug", "I info", "W warn", "E error"));
}

TEST_F(KVDebugTest, SharedCodeLogsAsItsCaller) {
    const NKavrel::CallSite site = HereIsTheCaller();
    LOGE_AT(site, "shared %d", 1);
    LOGI_AT(site, "without arguments");
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E shared 1", "I without arguments"));
    EXPECT_EQ(journal.All().Entries()[0].site,
              (fake::Site{"KVDebug_test.cpp", "HereIsTheCaller", site.line}));
}

TEST_F(KVDebugTest, ANullPointerIsLoggedAsTheCallersError) {
    int value = 0;
    EXPECT_FALSE(NKavrel::IsNull(&value, "value is NULL", HereIsTheCaller()));
    EXPECT_THAT(journal.Logs().Texts(), testing::IsEmpty());
    EXPECT_TRUE(NKavrel::IsNull(nullptr, "50% is NULL", HereIsTheCaller()));
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E 50% is NULL"));
    EXPECT_EQ(journal.With("E 50% is NULL").Function(), "HereIsTheCaller");
}

TEST_F(KVDebugTest, TraceLinesNameTheTracersOwnPlaceOnLines53And58) {
    Inner(1);
    const auto entries = journal.All().Entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].raw,
              "KVDebug.h: CALLTRACKER(53) > [CALLTRACKER:53] \t[IN]void {anonymous}::Inner(int)\n");
    EXPECT_EQ(entries[1].raw,
              "KVDebug.h: ~CALLTRACKER(58) > [~CALLTRACKER:58] \t[OUT]void {anonymous}::Inner(int)\n");
    EXPECT_EQ(entries[0].priority, DLOG_DEBUG);
    EXPECT_EQ(entries[1].priority, DLOG_DEBUG);
    EXPECT_EQ(entries[0].tag, "Kavrel");
}

TEST_F(KVDebugTest, AnEarlyReturnIsTracedToo) {
    EXPECT_EQ(Returns(true), 1);
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(), ElementsAre("D \t[IN]int {anonymous}::Returns(bool)",
                                                              "D \t[OUT]int {anonymous}::Returns(bool)"));
}

TEST_F(KVDebugTest, AnExceptionIsTracedOnItsWayOut) {
    EXPECT_THROW(Throws(), std::runtime_error);
    EXPECT_THAT(journal.Traces().Texts(),
                ElementsAre("D \t[IN]void {anonymous}::Throws()", "D \t[OUT]void {anonymous}::Throws()"));
}

TEST_F(KVDebugTest, NestedCallsGiveNestedPairsInCallOrder) {
    Outer();
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(),
                ElementsAre("D \t[IN]void {anonymous}::Outer()", "D \t[IN]void {anonymous}::Inner(int)",
                            "D \t[OUT]void {anonymous}::Inner(int)", "I between",
                            "D \t[IN]void {anonymous}::Inner(int)", "D \t[OUT]void {anonymous}::Inner(int)",
                            "D \t[OUT]void {anonymous}::Outer()"));
}

TEST_F(KVDebugTest, AFailureToLogTheWayOutEndsTheProcess) {
    seam.Before("D \t[OUT]void {anonymous}::Inner(int)", [] { throw std::runtime_error("no log"); });
    EXPECT_DEATH(Inner(1), "no log");
}

}  // namespace
