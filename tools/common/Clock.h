// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_CLOCK_H
#define KAVREL_TOOLS_CLOCK_H

#include <cstdint>
#include <string>

namespace tools {

/** A time of the wall clock, in microseconds since 1970. */
using WallTime = std::int64_t;

WallTime Now();
/** Local time of day, "21:04:11.123". */
std::string TimeOfDay(WallTime time);
/** "2026-02-01T21:04:11.123+0100", local time with its distance from UTC. */
std::string Timestamp(WallTime time);

}  // namespace tools

#endif
