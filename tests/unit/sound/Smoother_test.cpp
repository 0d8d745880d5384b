// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Smoother.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace sound {
namespace {

/** All amplitudes until the one aimed at. */
std::vector<double> Way(Smoother& smoother) {
    std::vector<double> way;
    while (!smoother.IsThere()) {
        way.push_back(smoother.Next());
    }
    return way;
}

TEST(SmootherTest, AChangeTakesEightEqualSteps) {
    Smoother smoother;
    smoother.Aim(0.8);
    const std::vector<double> way = Way(smoother);
    ASSERT_EQ(way.size(), 8U);
    for (std::size_t i = 0; i < way.size(); ++i) {
        EXPECT_NEAR(way[i], 0.1 * static_cast<double>(i + 1), 1e-12);
    }
    EXPECT_EQ(way.back(), 0.8);
}

TEST(SmootherTest, TheStepsFitIntoTheTimeBetweenTwoWritesOfAFade) {
    EXPECT_LE(Smoother::PERIOD * (Smoother::STEPS - 1), Smoother::SPREAD);
    EXPECT_GT(Smoother::PERIOD.count(), 0);
}

TEST(SmootherTest, AWholeFadeRisesInStepsBelowOneAndAHalfPercent) {
    Smoother smoother;
    double before = 0;
    for (int gain = 0; gain <= 100; gain += 5) {
        smoother.Aim(gain / 100.0);
        for (int step = 0; step < 7; ++step) {  // the next write comes a step too early
            const double next = smoother.Next();
            EXPECT_GE(next, before);
            EXPECT_LT(next - before, 0.015);
            before = next;
        }
    }
    Way(smoother);
    EXPECT_EQ(smoother.Present(), 1);
}

TEST(SmootherTest, AChangeOnTheWayGoesOnFromTheAmplitudeReached) {
    Smoother smoother;
    smoother.Aim(0.8);
    smoother.Next();
    smoother.Next();
    smoother.Aim(0);
    EXPECT_NEAR(smoother.Next(), 0.175, 1e-12);
    Way(smoother);
    EXPECT_EQ(smoother.Present(), 0);
}

TEST(SmootherTest, TheSameAimAgainDoesNotBeginAnew) {
    Smoother smoother;
    smoother.Aim(0.8);
    smoother.Next();
    smoother.Aim(0.8);
    for (int step = 1; step < Smoother::STEPS; ++step) {
        EXPECT_FALSE(smoother.IsThere());
        smoother.Next();
    }
    EXPECT_TRUE(smoother.IsThere());
}

TEST(SmootherTest, AnEqualAimNeedsNoStep) {
    Smoother smoother;
    smoother.Aim(0.5);
    smoother.Finish();
    EXPECT_EQ(smoother.Present(), 0.5);
    smoother.Aim(0.5);
    EXPECT_TRUE(smoother.IsThere());
    EXPECT_EQ(smoother.Next(), 0.5);
}

TEST(SmootherTest, AnAimAtThePresentAmplitudeNeedsNoStepEither) {
    Smoother smoother;
    smoother.Aim(0.5);
    smoother.Aim(0);
    EXPECT_TRUE(smoother.IsThere());
}

TEST(SmootherTest, EachAmplitudeIsReachedExactly) {
    Smoother smoother;
    for (int step = 1; step <= 100; ++step) {
        const double amplitude = step * 37 % 101 / 100.0;
        smoother.Aim(amplitude);
        Way(smoother);
        EXPECT_EQ(smoother.Present(), amplitude);
    }
}

TEST(SmootherTest, OneStepIsNoSmoothing) {
    Smoother smoother(1);
    smoother.Aim(0.3);
    EXPECT_EQ(Way(smoother), std::vector<double>{0.3});
}

}  // namespace
}  // namespace sound
