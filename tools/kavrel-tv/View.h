// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The TV on one screen, for people and for scripts. */
#ifndef KAVREL_TV_VIEW_H
#define KAVREL_TV_VIEW_H

#include <json/value.h>

#include <string>

#include "Terminal.h"

namespace tv {

enum class Bars { WITHOUT, WITH };

/** The open TV as a tree with a line for each value and what it means, each line cut at the last column.
 *  @param bars whether volumes and gains are drawn, too */
std::string Draw(Bars bars, const tools::Style& style, int columns);

/** Returns the facts of the tree; a value that is missing or cannot be read is null. */
Json::Value ToJson();

}  // namespace tv

#endif
