// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TV_PLOTSCRIPT_H
#define KAVREL_TV_PLOTSCRIPT_H

#include <string>
#include <vector>

#include "Recording.h"

namespace tv {

enum class PictureType { SVG, PNG };

/**
 * Writes a script that makes gnuplot print a picture of the recording: the gains in the upper panel, the volumes in the
 * next one, and in the last one a row for each output that was in use. A panel has its legend below it, and a dashed
 * line at each event. What the recording does not have is left out.
 *
 * @param samples at least one
 */
std::string PlotScript(const std::vector<Sample>& samples, const std::string& title, PictureType type);

}  // namespace tv

#endif
