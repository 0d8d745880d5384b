// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Mapping.h"

#include <algorithm>
#include <cmath>

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

Volume VolumeOfAmplitude(double amplitude) {
    return static_cast<Volume>(std::lround(std::cbrt(amplitude) * FULL_VOLUME));
}

double AmplitudeOfVolume(Volume volume) {
    const double share = static_cast<double>(volume) / FULL_VOLUME;
    return share * share * share;
}

Volume Loudest(const Volumes& volumes) {
    return volumes.empty() ? 0 : *std::max_element(volumes.begin(), volumes.end());
}

void Scale(Volumes& volumes, Volume loudest) {
    const Volume before = Loudest(volumes);
    for (Volume& volume : volumes) {
        volume = before == 0 ? loudest : static_cast<Volume>(std::uint64_t{volume} * loudest / before);
    }
}

}  // namespace sound
