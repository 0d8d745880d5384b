// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The modules that a bridge loads on the server: their arguments, and how it finds them again. */
#ifndef KAVREL_SOUND_LAYOUT_H
#define KAVREL_SOUND_LAYOUT_H

#include <string>
#include <vector>

#include "Server.h"

namespace sound {

inline constexpr const char* MAIN_STAGE = "kavrel-main";
inline constexpr const char* SUB_STAGE = "kavrel-sub";
inline constexpr const char* STAGE_MODULE = "module-loopback";
inline constexpr const char* KAVREL_MODULE = "module-null-sink";

/** @param latency in milliseconds */
std::string StageArguments(const std::string& stage, const std::string& sink, int latency);
std::string KavrelArguments();

/** Whether the stage of this name has made the stream. */
bool IsOfStage(const Stream& stream, const std::string& stage);

/** The sink of the TV speaker without an option: the server's default one. While that is "kavrel", it is the one before.
 *  @param before as far as it is known
 *  @return empty if there is none */
std::string DefaultSink(const Snapshot& snapshot, const std::string& before);

// The modules that have made it, or have yet to; the one to keep comes first.
std::vector<Index> FindStage(const Snapshot& snapshot, const std::string& stage);
std::vector<Index> FindKavrel(const Snapshot& snapshot);

}  // namespace sound

#endif
