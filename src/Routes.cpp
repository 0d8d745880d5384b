// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Routes.h"

#include <algorithm>
#include <array>

namespace NKavrel {
namespace {

using enum eSpeakerKind;

// Route 11 is a TV speaker on purpose: its sound goes to the S/PDIF connector too.
constexpr std::array OUTPUTS = {
    Output{.route = TV_SPEAKER_ROUTE, .kind = TV},
    Output{.route = OPTICAL_ROUTE, .kind = OPTICAL, .usesSpdif = true},
    Output{.route = 2, .kind = HDMI},
    Output{.route = BT_ROUTE, .kind = BT},
    Output{.route = 4, .kind = WIFI},
    Output{.route = BT_BUDS_ROUTE, .kind = BT, .isNeverRestored = true},
    Output{.route = MULTI_OUTPUT_ROUTE, .kind = TV, .isNeverRestored = true},
    Output{.route = 8, .kind = HDMI},
    Output{.route = 9, .kind = OPTICAL, .usesSpdif = true},
    Output{.route = 10, .kind = WIFI},
    Output{.route = 11, .kind = TV, .usesSpdif = true},
    Output{.route = 12, .kind = TV},
    Output{.route = 13, .kind = TV, .isNeverRestored = true},
    Output{.route = 14, .kind = TV, .isNeverRestored = true},
    Output{.route = 15, .kind = USB, .isNeverRestored = true},
    Output{.route = 19, .kind = AURACAST, .isNeverRestored = true},
};

}  // namespace

Output OutputOf(int route) {
    const auto* const found = std::find_if(OUTPUTS.begin(), OUTPUTS.end(),
                                           [route](const Output& output) { return output.route == route; });
    return found != OUTPUTS.end() ? *found : Output{.route = route, .kind = UNKNOWN};
}

}  // namespace NKavrel
