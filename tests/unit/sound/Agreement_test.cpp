// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Agreement.h"

#include <gtest/gtest.h>

#include <string>

namespace sound {
namespace {

const std::string SINK = "speaker";

/** An agreement on 40. */
Agreement Agreed() {
    Agreement agreement;
    agreement.Compare(SINK, 40, 40);
    return agreement;
}

TEST(AgreementTest, TheServerWinsAtTheFirstContact) {
    EXPECT_EQ(Agreement().Compare(SINK, 40, 70), Winner::SERVER);
    EXPECT_EQ(Agreement().Compare(SINK, std::nullopt, 70), Winner::SERVER);
}

TEST(AgreementTest, NobodyWinsWhileBothAreEqual) {
    EXPECT_EQ(Agreement().Compare(SINK, 40, 40), Winner::NOBODY);
    Agreement agreement = Agreed();
    EXPECT_EQ(agreement.Compare(SINK, 60, 60), Winner::NOBODY);
    EXPECT_EQ(agreement.Compare(SINK, 60, 70), Winner::SERVER);  // because they have agreed on 60
}

TEST(AgreementTest, TheSideThatHasChangedWins) {
    EXPECT_EQ(Agreed().Compare(SINK, 41, 40), Winner::DIRECTORY);
    EXPECT_EQ(Agreed().Compare(SINK, 40, 41), Winner::SERVER);
}

TEST(AgreementTest, TheDirectoryWinsIfBothHaveChanged) {
    EXPECT_EQ(Agreed().Compare(SINK, 30, 50), Winner::DIRECTORY);
}

TEST(AgreementTest, TheServerWinsIfTheDirectoryHasNoValueAnyMore) {
    EXPECT_EQ(Agreed().Compare(SINK, std::nullopt, 40), Winner::SERVER);
}

TEST(AgreementTest, TheValueAgreedOnIsTheNextOneToCompareWith) {
    Agreement agreement = Agreed();
    EXPECT_EQ(agreement.Compare(SINK, 30, 40), Winner::DIRECTORY);
    agreement.Agree(30);
    EXPECT_EQ(agreement.Compare(SINK, 30, 40), Winner::SERVER);
}

TEST(AgreementTest, AnotherSinkIsAFirstContact) {
    Agreement agreement = Agreed();
    EXPECT_EQ(agreement.Compare("headset", 40, 70), Winner::SERVER);
    agreement.Agree(70);
    EXPECT_EQ(agreement.Compare(SINK, 70, 40), Winner::SERVER);
}

TEST(AgreementTest, TheDirectoryWinsAfterAnInterruption) {
    Agreement agreement = Agreed();
    agreement.Interrupt();
    EXPECT_EQ(agreement.Compare(SINK, 40, 100), Winner::DIRECTORY);
    agreement.Agree(40);
    EXPECT_EQ(agreement.Compare(SINK, 40, 100), Winner::SERVER);  // the interruption is over
}

TEST(AgreementTest, AnInterruptionBeforeTheFirstContactChangesNothing) {
    Agreement agreement;
    agreement.Interrupt();
    EXPECT_EQ(agreement.Compare(SINK, 40, 100), Winner::SERVER);
}

TEST(AgreementTest, AnInterruptionIsForgottenWithTheSink) {
    Agreement agreement = Agreed();
    agreement.Interrupt();
    EXPECT_EQ(agreement.Compare("headset", 40, 100), Winner::SERVER);
}

}  // namespace
}  // namespace sound
