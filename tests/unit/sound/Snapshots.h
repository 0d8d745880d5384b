// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Snapshots of a sound server, for the tests. */
#ifndef KAVREL_TESTS_SNAPSHOTS_H
#define KAVREL_TESTS_SNAPSHOTS_H

#include <string>

#include "Layout.h"

namespace sound {

// The indexes in the snapshots.
inline constexpr Index KAVREL = 1;
inline constexpr Index SPEAKER = 2;
inline constexpr Index RECEIVER = 3;
inline constexpr Index STAGE = 20;
inline constexpr Index PROGRAM = 30;
inline constexpr Index KAVREL_OWNER = 101;
inline constexpr Index STAGE_OWNER = 102;

inline Sink MakeSink(Index index, const std::string& name, const Volumes& volumes = {65536, 65536}) {
    return {index, name, "", volumes, false, NO_INDEX};
}

inline Stream MakeStage(Index index, Index sink, Index owner, const Volumes& volumes = {65536, 65536}) {
    return {index, MAIN_STAGE, sink, owner, false, volumes};
}

inline Stream MakeProgram(Index index, Index sink) {
    return {index, "song", sink, NO_INDEX, false, {65536, 65536}};
}

/** A server with two sinks, of which "speaker" is the default one, and without anything of a bridge. */
inline Snapshot EmptyServer() {
    Snapshot snapshot;
    snapshot.server = "pulseaudio 16.1";
    snapshot.defaultSink = "speaker";
    snapshot.sinks = {MakeSink(SPEAKER, "speaker"), MakeSink(RECEIVER, "receiver")};
    return snapshot;
}

inline Snapshot WithKavrel(Snapshot snapshot = EmptyServer(), Index index = KAVREL) {
    snapshot.sinks.push_back({index, "kavrel", "", {65536, 65536}, false, KAVREL_OWNER});
    return snapshot;
}

/** The main stage plays on the sink. */
inline Snapshot WithStage(Index sink = SPEAKER, const Volumes& volumes = {65536, 65536}) {
    Snapshot snapshot = WithKavrel();
    snapshot.streams.push_back(MakeStage(STAGE, sink, STAGE_OWNER, volumes));
    return snapshot;
}

}  // namespace sound

#endif
