// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_CALL_H
#define KAVRELCTL_CALL_H

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Clock.h"
#include "GLibPtr.h"

namespace ctl {

/** The program that called, as far as the kernel knows the process behind its connection to the bus. */
struct Caller {
    /** Unique name on the bus. */
    std::string name;
    /** Nothing if the connection had gone before it could be looked up. */
    std::optional<unsigned> process;
    /** Program and arguments; empty if the process had gone, or hides them. */
    std::vector<std::string> command;
};

/** One method call to the daemon, with its end. */
struct Call {
    tools::WallTime time = 0;
    Caller caller;
    std::string interface;
    std::string method;
    /** A tuple; null without arguments. */
    tools::Variant arguments;

    enum class End { ANSWERED, REFUSED, NO_REPLY_WANTED, NO_ANSWER } end = End::NO_ANSWER;
    /** The answer's tuple; null without values. */
    tools::Variant answer;
    /** Name of the D-Bus error, if the call was refused. */
    std::string error;
    /** Microseconds from the time the bus passed the call to the time it passed the answer. */
    std::int64_t duration = 0;
};

/** "SetSpeakerVolume(30) -> 0, 0.4 ms, by kavrelctl volume 30 (pid 4711)". */
std::string InWords(const Call& call);
/** The same as fields; what is not known is null. */
Json::Value InJson(const Call& call);

}  // namespace ctl

#endif
