// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The audio HAL: master volume and mute of the TV's own speaker.
 *
 * All calls may be made from any thread, also from within a callback. A result of 0 is success; any other is
 * the platform's own negative code, but never -1, -2 or -4: the daemon's clients get it, and those three are
 * the daemon's own answers. A call that fails changes and reports nothing, and leaves `*volume` or `*mute` as
 * it was. The getters wait for no callback.
 *
 * The callbacks of all interfaces of the platform keep these rules:
 * - They run one at a time in the process, and the reports of one value come in the order of its changes.
 * - They get changes only: never the value that a registration finds, never a value equal to the last one.
 * - A change that this process makes is reported on the thread that makes it, before its call returns. No
 *   other change is reported inside that call.
 * - A change that anybody else makes is reported on a thread of the platform. Quick changes may become one
 *   report; the last value is always reported.
 * - A callback may make any call. If it changes a value, the report of that change nests inside it. It may
 *   add and remove registrations, its own too; one that it adds does not get the change under report.
 * - A removal waits for a callback that is running on another thread. Once the removal has returned, the
 *   callback is never called again.
 */
#ifndef AUDIO_HAL_H
#define AUDIO_HAL_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @param volume 0 to 100 */
int audio_get_master_volume(int* volume);

/**
 * An equal volume succeeds and is not reported.
 *
 * @param volume 0 to 100; anything else fails
 * @param mode   how the TV shows the change; has no effect on the value
 */
int audio_set_master_volume(int volume, int mode);

int audio_get_master_mute(bool* mute);

/** An equal mute succeeds and is not reported. */
int audio_set_master_mute(bool mute);

/** @param value the new volume, 0 to 100, or the new mute, 0 or 1 */
typedef void (*audio_master_changed_cb)(unsigned int value, void* user_data);

/** The process has one callback for each: a second registration replaces the first and its user data. */
int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data);
int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data);

/** Fails if none is registered. */
int audio_unregister_master_volume_changed_cb(void);
int audio_unregister_master_mute_changed_cb(void);

#ifdef __cplusplus
}
#endif

#endif
