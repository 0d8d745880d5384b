// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, nothing marks kavreld as ready, and no popup follows a fade-in. */
#include <lwipc.h>

#include "not_there.h"

int LwipcEventDone(const char* event) {
    (void)event;
    return NOT_THERE;
}

int LwipcResetEvent(const char* event) {
    (void)event;
    return NOT_THERE;
}

int LwipcIsDone(const char* event) {
    (void)event;
    return NOT_THERE;
}
