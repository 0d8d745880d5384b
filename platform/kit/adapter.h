// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The adapter of the acceptance kit: ten C functions with which the kit plays the rest of your TV.
 *
 * The kit links your platform and this adapter, and judges the platform by the rules of the seam's headers.
 * "Somebody else" is anything that changes the TV without a call of the seam in this process: another program, a
 * remote control, a person. Each rule runs in a process of its own, in an empty working directory of its own that
 * is removed afterwards.
 *
 * Some functions may answer KIT_CANNOT. The rules that need them are then listed as not judged. Any other answer
 * but KIT_DONE means that the adapter itself failed. The rule then fails, with these words.
 *
 * The kit calls these functions one at a time, from any thread, also inside a callback of the platform: they must
 * not wait for a callback to return. A change is made when the function returns, or soon afterwards; while a callback
 * runs, it may be made when that has returned. From then on each getter of the seam gives the new value. The
 * report of the change comes on a thread of the platform, never inside these functions.
 */
#ifndef KAVREL_KIT_ADAPTER_H
#define KAVREL_KIT_ADAPTER_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KIT_DONE = 0,
    KIT_CANNOT = 1,
};

enum kit_kind {
    KIT_MASTER_VOLUME, /* "0" to "100" */
    KIT_MASTER_MUTE,   /* "0" or "1" */
    KIT_ROUTE,         /* a 32-bit integer */
    KIT_ZONE_ROUTE,    /* a 32-bit integer; of the zone `zone` */
    KIT_FOCUS,         /* the id of a zone */
    KIT_MAIN_OUT_GAIN, /* a 32-bit integer */
    KIT_SUB_OUT_GAIN,  /* a 32-bit integer */
    KIT_SETTING,       /* any text; of the key `key` in the settings store */
    KIT_FEATURE,       /* "true" or "false"; of the feature flag `key` */
    KIT_EVENT,         /* "1" done, "0" not done; of the boot event `key` */
};

/** A value of the TV. */
typedef struct kit_value {
    enum kit_kind kind;
    int zone;        /* of KIT_ZONE_ROUTE, otherwise 0 */
    const char* key; /* of KIT_SETTING, KIT_FEATURE and KIT_EVENT, otherwise null */
} kit_value;

/** @return the name of this platform, for the kit's output */
const char* kit_platform(void);

/**
 * Begins with a fresh TV: no zones, no focus, no setting below "memory/kit/" and "db/kit/", no feature flag and
 * no event whose name begins with "kit". Any values of the rest. The first function that the kit calls; it
 * calls the seam only afterwards.
 */
int kit_start(void);

/** Ends what kit_start() began. The kit calls it last, but not if the platform has crashed or hung. */
void kit_stop(void);

/** Somebody else sets a value. May answer KIT_CANNOT. Feature flags are set before the first call of the seam. */
int kit_set(const kit_value* value, const char* text);

/** Somebody else takes a value away: a setting, or the focus, is missing from now on. May answer KIT_CANNOT. */
int kit_remove(const kit_value* value);

/** Every read of the value fails from now on, as if a device or a file had gone bad. May answer KIT_CANNOT. */
int kit_make_unreadable(const kit_value* value);

/** Ends kit_make_unreadable(): the value is as it was. May answer KIT_CANNOT. */
int kit_make_readable(const kit_value* value);

/**
 * Somebody else arranges the multi-view zones: from now on these `count` zones exist, with any routes, and no
 * other one. A zone that existed before keeps its route. May answer KIT_CANNOT.
 */
int kit_set_zones(const int* zones, int count);

/**
 * @return the lowest priority (DLOG_DEBUG to DLOG_ERROR) that the log of this process writes; KIT_CANNOT if
 * that is not known
 */
int kit_lowest_priority(void);

/**
 * Calls `write`, and gives the text that the log got meanwhile, with whatever the log adds to it, ended by a zero
 * byte. May answer KIT_CANNOT.
 * @param size of `text`, in bytes; what does not fit is left out
 */
int kit_log(void (*write)(void), char* text, size_t size);

/**
 * The kit's own, for a platform that writes its log to standard error: the adapter's kit_log() returns what this
 * function returns for the same arguments.
 */
int kit_log_of_stderr(void (*write)(void), char* text, size_t size);

#ifdef __cplusplus
}
#endif

#endif
