// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The outputs that the daemon knows, by the platform's route codes. */
#ifndef ROUTES_H
#define ROUTES_H

namespace NKavrel {

/** The routes that have rules of their own. */
inline constexpr int TV_SPEAKER_ROUTE = 0;
inline constexpr int OPTICAL_ROUTE = 1;
inline constexpr int BT_ROUTE = 3;
inline constexpr int BT_BUDS_ROUTE = 5;
inline constexpr int MULTI_OUTPUT_ROUTE = 6;

/** The class of speaker that drives an output. */
enum class eSpeakerKind { UNKNOWN, TV, OPTICAL, HDMI, BT, WIFI, USB, AURACAST };

struct Output {
    int route;
    eSpeakerKind kind;
    bool usesSpdif = false;       /**< its sound leaves through the S/PDIF connector */
    bool isNeverRestored = false; /**< not selected again when a later output goes away */
};

/** The output of a route. A route without a row has the kind UNKNOWN and no rules. */
Output OutputOf(int route);

}  // namespace NKavrel

#endif
