// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <lwipc.h>

#include "tv.h"

using memory::GetTv;
using memory::Guard;

int LwipcEventDone(const char* event) {
    const Guard guard(GetTv().lock);
    GetTv().events.insert(event);
    return 0;
}

int LwipcResetEvent(const char* event) {
    const Guard guard(GetTv().lock);
    GetTv().events.erase(event);
    return 0;
}

int LwipcIsDone(const char* event) {
    const Guard guard(GetTv().lock);
    return GetTv().events.contains(event) ? 1 : 0;
}
