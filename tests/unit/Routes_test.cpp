// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Routes.h"

#include <gtest/gtest.h>

#include <climits>

using NKavrel::eSpeakerKind;
using NKavrel::Output;
using NKavrel::OutputOf;

namespace {

constexpr bool SPDIF = true;
constexpr bool NEVER_RESTORED = true;

class RoutesTest : public testing::TestWithParam<Output> {};

TEST_P(RoutesTest, EachOutputHasItsKindAndRules) {
    const Output expected = GetParam();
    const Output output = OutputOf(expected.route);
    EXPECT_EQ(output.route, expected.route);
    EXPECT_EQ(output.kind, expected.kind);
    EXPECT_EQ(output.usesSpdif, expected.usesSpdif);
    EXPECT_EQ(output.isNeverRestored, expected.isNeverRestored);
}

INSTANTIATE_TEST_SUITE_P(
    Routes, RoutesTest,
    testing::Values(Output{INT_MIN, eSpeakerKind::UNKNOWN}, Output{-1, eSpeakerKind::UNKNOWN},
                    Output{0, eSpeakerKind::TV}, Output{1, eSpeakerKind::OPTICAL, SPDIF},
                    Output{2, eSpeakerKind::HDMI}, Output{3, eSpeakerKind::BT}, Output{4, eSpeakerKind::WIFI},
                    Output{5, eSpeakerKind::BT, false, NEVER_RESTORED},
                    Output{6, eSpeakerKind::TV, false, NEVER_RESTORED}, Output{7, eSpeakerKind::UNKNOWN},
                    Output{8, eSpeakerKind::HDMI}, Output{9, eSpeakerKind::OPTICAL, SPDIF},
                    Output{10, eSpeakerKind::WIFI}, Output{11, eSpeakerKind::TV, SPDIF},
                    Output{12, eSpeakerKind::TV}, Output{13, eSpeakerKind::TV, false, NEVER_RESTORED},
                    Output{14, eSpeakerKind::TV, false, NEVER_RESTORED},
                    Output{15, eSpeakerKind::USB, false, NEVER_RESTORED}, Output{16, eSpeakerKind::UNKNOWN},
                    Output{17, eSpeakerKind::UNKNOWN}, Output{18, eSpeakerKind::UNKNOWN},
                    Output{19, eSpeakerKind::AURACAST, false, NEVER_RESTORED},
                    Output{20, eSpeakerKind::UNKNOWN}, Output{INT_MAX, eSpeakerKind::UNKNOWN}),
    [](const auto& info) { return "Route" + std::to_string(info.index); });

}  // namespace
