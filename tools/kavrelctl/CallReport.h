// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** A call as monitor tells it. */
#ifndef KAVRELCTL_CALLREPORT_H
#define KAVRELCTL_CALLREPORT_H

#include <json/value.h>

#include <string>

#include "CallWatch.h"

namespace ctl {

/** "SetSpeakerVolume(30) -> 0, 0.4 ms, by kavrelctl volume 30 (pid 4711)". */
std::string InWords(const Call& call);
/** The same as fields; what is not known is null. */
Json::Value InJson(const Call& call);

}  // namespace ctl

#endif
