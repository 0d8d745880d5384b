// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Feature flags: what this model of TV can do. They are fixed while the TV runs. */
#ifndef SYSTEM_INFO_H
#define SYSTEM_INFO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * May be called from any thread, also from within a callback, and waits for no callback.
 *
 * @param key   such as "com.norvik/featureconf/multiview.support"
 * @param value set on success only
 * @return 0; non-zero, the platform's own code, for a flag that this TV does not have or that cannot be read
 */
int system_info_get_custom_bool(const char* key, bool* value);

#ifdef __cplusplus
}
#endif

#endif
