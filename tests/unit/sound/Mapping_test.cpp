// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Mapping.h"

#include <gtest/gtest.h>

namespace sound {
namespace {

TEST(MappingTest, EveryLevelComesBackAsItWas) {
    for (int level = 0; level <= 100; ++level) {
        EXPECT_EQ(LevelOfVolume(VolumeOfLevel(level)), level);
    }
}

TEST(MappingTest, LevelsAreRoundedToTheNearestVolume) {
    EXPECT_EQ(VolumeOfLevel(0), 0U);
    EXPECT_EQ(VolumeOfLevel(1), 655U);
    EXPECT_EQ(VolumeOfLevel(37), 24248U);
    EXPECT_EQ(VolumeOfLevel(50), 32768U);
    EXPECT_EQ(VolumeOfLevel(99), 64881U);
    EXPECT_EQ(VolumeOfLevel(100), 65536U);
}

TEST(MappingTest, LevelsOutsideOfTheRangeAreItsEnds) {
    EXPECT_EQ(VolumeOfLevel(-1), 0U);
    EXPECT_EQ(VolumeOfLevel(INT32_MIN), 0U);
    EXPECT_EQ(VolumeOfLevel(101), 65536U);
    EXPECT_EQ(VolumeOfLevel(INT32_MAX), 65536U);
}

TEST(MappingTest, VolumesAreRoundedToTheNearestLevelAndNeverAboveTheHighest) {
    EXPECT_EQ(LevelOfVolume(327), 0);
    EXPECT_EQ(LevelOfVolume(328), 1);
    EXPECT_EQ(LevelOfVolume(65208), 99);
    EXPECT_EQ(LevelOfVolume(65209), 100);
    EXPECT_EQ(LevelOfVolume(98304), 100);
    EXPECT_EQ(LevelOfVolume(42949673), 100);  // 100 times as much has more than 32 bits
    EXPECT_EQ(LevelOfVolume(UINT32_MAX), 100);
}

TEST(MappingTest, AGainIsTheFactorOfTheSamples) {
    EXPECT_EQ(AmplitudeOfGain(0), 0);
    EXPECT_EQ(AmplitudeOfGain(5), 0.05);
    EXPECT_EQ(AmplitudeOfGain(100), 1);
    EXPECT_EQ(AmplitudeOfGain(-20), 0);
    EXPECT_EQ(AmplitudeOfGain(250), 1);
}

}  // namespace
}  // namespace sound
