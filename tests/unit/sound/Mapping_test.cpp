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

TEST(MappingTest, AVolumeIsTheCubeRootOfItsAmplitude) {
    EXPECT_EQ(VolumeOfAmplitude(0), 0U);
    EXPECT_EQ(VolumeOfAmplitude(0.05), 24144U);
    EXPECT_EQ(VolumeOfAmplitude(0.125), 32768U);
    EXPECT_EQ(VolumeOfAmplitude(0.5), 52016U);
    EXPECT_EQ(VolumeOfAmplitude(1), 65536U);
    EXPECT_EQ(AmplitudeOfVolume(0), 0);
    EXPECT_EQ(AmplitudeOfVolume(32768), 0.125);
    EXPECT_EQ(AmplitudeOfVolume(65536), 1);
    EXPECT_EQ(AmplitudeOfVolume(131072), 8);
}

TEST(MappingTest, TheLoudestChannelIsTheMaximumAndZeroWithoutChannels) {
    EXPECT_EQ(Loudest({}), 0U);
    EXPECT_EQ(Loudest({100, 300, 200}), 300U);
}

Volumes Scaled(Volumes volumes, Volume loudest) {
    Scale(volumes, loudest);
    return volumes;
}

TEST(MappingTest, AScaledSinkKeepsItsBalance) {
    EXPECT_EQ(Scaled({65536, 32768, 0}, 20001), (Volumes{20001, 10000, 0}));
    EXPECT_EQ(Scaled({100, 300}, 65536), (Volumes{21845, 65536}));
    EXPECT_EQ(Scaled({65536, 32768}, 0), (Volumes{0, 0}));
    EXPECT_EQ(Scaled({200000, 100000}, 65536), (Volumes{65536, 32768}))
        << "the product has more than 32 bits";
}

TEST(MappingTest, ASilentSinkIsScaledOnAllChannels) {
    EXPECT_EQ(Scaled({0, 0}, 65536), (Volumes{65536, 65536}));
    EXPECT_EQ(Scaled({}, 65536), Volumes{});
}

}  // namespace
}  // namespace sound
