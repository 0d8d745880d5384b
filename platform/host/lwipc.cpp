// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <lwipc.h>

#include <cerrno>

#include "seam.h"

namespace {

bool IsName(const char* event) {
    return event != nullptr && *event != '\0';
}

}  // namespace

int LwipcEventDone(const char* event) {
    return IsName(event) ? host::Result(host::Write(host::EventValue(event), "done"))
                         : host::FailureCode(EINVAL);
}

int LwipcResetEvent(const char* event) {
    return IsName(event) ? host::Result(host::Remove(host::EventValue(event))) : host::FailureCode(EINVAL);
}

int LwipcIsDone(const char* event) {
    if (!IsName(event)) {
        return host::FailureCode(EINVAL);
    }
    bool isDone = false;
    const int result = host::Result(host::Exists(host::EventValue(event), isDone));
    return result == 0 ? static_cast<int>(isDone) : result;
}
