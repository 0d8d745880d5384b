// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "OwnModule.h"

#include <gtest/gtest.h>

#include <chrono>

#include "FakeServer.h"
#include "Printed.h"

namespace sound {
namespace {

class OwnModuleTest : public testing::Test {
protected:
    Index Ensure(const std::vector<Index>& found) { return m_module.Ensure(found, "a=b"); }

    /** @return the complaint of a load that Ensure() begins and that fails */
    std::string ComplaintOfFailedLoad() {
        Ensure({});
        return ComplaintsOf([this] { m_server.AnswerLoad(NO_INDEX); });
    }

    tools::MainLoop m_loop;
    FakeServer m_server{m_loop};
    int m_answers = 0;
    OwnModule m_module{m_server, "module-x", [this] { ++m_answers; }};
};

TEST_F(OwnModuleTest, AModuleThatIsMissingIsLoadedOnce) {
    EXPECT_EQ(Ensure({}), NO_INDEX);
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
    EXPECT_EQ(Ensure({}), NO_INDEX);
    EXPECT_EQ(Ensure({7}), Index{7}) << "it may appear before the answer";
    EXPECT_EQ(m_server.Take(), Lines{});
    EXPECT_EQ(m_answers, 0);
    m_server.AnswerLoad(7);
    EXPECT_EQ(m_answers, 1);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(OwnModuleTest, AModuleThatSomebodyHasUnloadedIsLoadedAgain) {
    Ensure({});
    m_server.AnswerLoad(7);
    m_server.Take();
    EXPECT_EQ(Ensure({}), NO_INDEX);
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
}

TEST_F(OwnModuleTest, OfSeveralModulesTheFirstOneIsKept) {
    EXPECT_EQ(Ensure({7, 8, 9}), Index{7});
    EXPECT_EQ(m_server.Take(), (Lines{"unload 8", "unload 9"}));
    EXPECT_EQ(Ensure({7, 8, 9}), Index{7});
    EXPECT_EQ(m_server.Take(), Lines{}) << "they are being unloaded already";
    m_server.Answer();
    EXPECT_EQ(m_answers, 1);
    m_server.Answer(false);
    EXPECT_EQ(m_answers, 2);
    EXPECT_EQ(Ensure({7, 9}), Index{7});
    EXPECT_EQ(m_server.Take(), Lines{"unload 9"}) << "it was not unloaded";
}

TEST_F(OwnModuleTest, AModuleThatIsBeingUnloadedIsNotTheOneToKeepAndNoneIsLoadedBeside) {
    m_module.Unload(7);
    EXPECT_EQ(Ensure({7, 8}), Index{8});
    EXPECT_EQ(Ensure({7}), NO_INDEX);
    EXPECT_EQ(Ensure({}), NO_INDEX);
    EXPECT_EQ(m_server.Take(), Lines{"unload 7"});
    m_server.Answer();
    EXPECT_EQ(m_answers, 1);
    EXPECT_EQ(Ensure({}), NO_INDEX);
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
}

TEST_F(OwnModuleTest, AModuleThatIsRemovedWhileItLoadsIsUnloaded) {
    Ensure({});
    m_module.Remove({});
    m_server.Take();
    m_server.AnswerLoad(7);
    EXPECT_EQ(m_server.Take(), Lines{"unload 7"});
    EXPECT_EQ(m_answers, 1);
}

TEST_F(OwnModuleTest, AModuleThatIsWantedAgainWhileItLoadsIsKept) {
    Ensure({});
    m_module.Remove({});
    Ensure({});
    m_server.Take();
    m_server.AnswerLoad(7);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(OwnModuleTest, EveryModuleThatThereIsCanBeRemoved) {
    m_module.Remove({7, 8});
    EXPECT_EQ(m_server.Take(), (Lines{"unload 7", "unload 8"}));
}

TEST_F(OwnModuleTest, AComplaintComesOnceUntilALoadSucceeds) {
    EXPECT_EQ(ComplaintOfFailedLoad(),
              "kavrel-sound: the server cannot load module-x; kavrel-sound asks again every second\n");
    m_module.Forget();
    EXPECT_EQ(ComplaintOfFailedLoad(), "");
    m_module.Forget();
    Ensure({});
    m_server.AnswerLoad(7);
    EXPECT_NE(ComplaintOfFailedLoad(), "");
}

TEST_F(OwnModuleTest, AFailedLoadIsTriedAgainAfterASecond) {
    const auto start = std::chrono::steady_clock::now();
    ComplaintOfFailedLoad();
    m_server.Take();
    Ensure({});
    EXPECT_EQ(m_server.Take(), Lines{}) << "not before the second is over";
    EXPECT_EQ(m_answers, 0);
    m_loop.RunUntil([this] { return m_answers > 0; }, std::chrono::seconds(60));
    EXPECT_EQ(m_answers, 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(999));
    Ensure({});
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
}

TEST_F(OwnModuleTest, ALoadThatFailsBecauseOfAnUnloadIsNoFailure) {
    Ensure({});
    m_module.Unload(7);
    m_server.Answer();
    EXPECT_EQ(ComplaintsOf([this] { m_server.AnswerLoad(NO_INDEX); }), "");
    EXPECT_EQ(m_answers, 2);
    m_server.Take();
    EXPECT_NE(ComplaintOfFailedLoad(), "") << "the next one is";
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
}

TEST_F(OwnModuleTest, ALoadThatFailsAfterARemovalLeavesNothingToUnload) {
    Ensure({});
    m_module.Remove({7});
    m_server.Take();
    m_server.AnswerLoad(NO_INDEX);
    EXPECT_EQ(m_server.Take(), Lines{});
}

TEST_F(OwnModuleTest, AnotherConnectionBegins) {
    Ensure({});
    m_module.Unload(7);
    m_module.Forget();
    m_server.Take();
    EXPECT_EQ(Ensure({7}), Index{7});
    Ensure({});
    EXPECT_EQ(m_server.Take(), Lines{"load module-x a=b"});
}

}  // namespace
}  // namespace sound
