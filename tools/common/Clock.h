// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_CLOCK_H
#define KAVREL_TOOLS_CLOCK_H

#include <cstdint>
#include <string>

namespace tools {

/** A moment of the wall clock, in microseconds since 1970. */
using Moment = std::int64_t;

Moment Now();
/** Local time of day, "21:04:11.123". */
std::string TimeOfDay(Moment moment);
/** "2026-02-01T21:04:11.123+0100", local time with its distance from UTC. */
std::string Timestamp(Moment moment);

}  // namespace tools

#endif
