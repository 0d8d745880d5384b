// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Mapping.h"

#include <algorithm>

namespace sound {

Volume VolumeOfLevel(int level) {
    return (static_cast<Volume>(std::clamp(level, 0, HIGHEST_LEVEL)) * FULL_VOLUME + 50) / 100;
}

int LevelOfVolume(Volume volume) {
    const auto percent = (std::uint64_t{volume} * 100 + FULL_VOLUME / 2) / FULL_VOLUME;
    return static_cast<int>(std::min<std::uint64_t>(percent, HIGHEST_LEVEL));
}

double AmplitudeOfGain(int gain) {
    return std::clamp(gain, 0, 100) / 100.0;
}

}  // namespace sound
