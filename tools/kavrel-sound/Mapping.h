// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** How the TV's numbers and the sound server's volumes become each other. */
#ifndef KAVREL_SOUND_MAPPING_H
#define KAVREL_SOUND_MAPPING_H

#include <cstdint>
#include <vector>

namespace sound {

/** A volume of the sound server, on its own scale: 0 is silence, FULL_VOLUME leaves the sound as it is. */
using Volume = std::uint32_t;
inline constexpr Volume FULL_VOLUME = 65536;
inline constexpr int HIGHEST_LEVEL = 100;
using Volumes = std::vector<Volume>;  // of each channel

/** @param level any; below 0 it is 0, above 100 it is 100
 *  @return the volume that the server's own programs show as `level` percent */
Volume VolumeOfLevel(int level);

/** @return the nearest percent, at most 100 */
int LevelOfVolume(Volume volume);

/** @param gain in percent; below 0 it is 0, above 100 it is 100
 *  @return the factor of the samples, 0 to 1 */
double AmplitudeOfGain(int gain);

/** The server's scale is cubic.
 *  @param amplitude the factor of the samples, 0 to 1 */
Volume VolumeOfAmplitude(double amplitude);
double AmplitudeOfVolume(Volume volume);

/** @return 0 if there is no channel */
Volume Loudest(const Volumes& volumes);

/** Gives the loudest channel this volume; the others follow, so that the balance stays. Channels that are all silent
 *  have no balance: each gets the volume. */
void Scale(Volumes& volumes, Volume loudest);

}  // namespace sound

#endif
