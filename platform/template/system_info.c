// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, kavreld takes the TV for one with a speaker of its own, without multi-view, and no projector. */
#include <system_info.h>

#include "not_there.h"

int system_info_get_custom_bool(const char* key, bool* value) {
    (void)key;
    (void)value;
    return NOT_THERE;
}
