// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_CLEANER_H
#define KAVREL_SOUND_CLEANER_H

#include <string>

#include "Server.h"

namespace sound {

/**
 * Removes from the server what a bridge has made: the stages first, then "kavrel". Returns when the server no longer
 * has it, or after two seconds.
 *
 * @param server not connected yet, on a loop that has not run
 * @param defaultSink to become the server's default sink again in the place of "kavrel"; empty: none
 */
void RemoveFromServer(Server& server, const std::string& defaultSink);

}  // namespace sound

#endif
