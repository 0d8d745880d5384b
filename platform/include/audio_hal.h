// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The audio HAL: master volume and mute of the TV's own speaker.
 *
 * All calls may be made from any thread, also from within a callback. A result of 0 is success; any other is
 * the platform's own negative code.
 */
#ifndef AUDIO_HAL_H
#define AUDIO_HAL_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @param volume 0 to 100, set on success only */
int audio_get_master_volume(int* volume);

/**
 * Reports a change to this process's callback before it returns.
 *
 * @param volume 0 to 100; anything else fails and changes nothing
 * @param mode   how the TV shows the change; has no effect on the value
 */
int audio_set_master_volume(int volume, int mode);

/** `*mute` is set on success only. */
int audio_get_master_mute(bool* mute);

/** Reports a change to this process's callbacks before it returns. */
int audio_set_master_mute(bool mute);

/**
 * Gets the new volume (0 to 100) or mute (0 or 1) when it differs from the last one.
 *
 * All callbacks of the seam run one at a time. If this process makes the change, they run on the thread that
 * makes it, before its call returns; otherwise on a thread of the platform. A callback may register and
 * remove callbacks, its own too.
 */
typedef void (*audio_master_changed_cb)(unsigned int value, void* user_data);

/** The process has one callback for each: registering again replaces it. */
int audio_register_master_volume_changed_cb(audio_master_changed_cb callback, void* user_data);
int audio_register_master_mute_changed_cb(audio_master_changed_cb callback, void* user_data);

/**
 * Waits for a callback that is running on another thread, after which it is never called again. Fails if none
 * is registered.
 */
int audio_unregister_master_volume_changed_cb(void);
int audio_unregister_master_mute_changed_cb(void);

#ifdef __cplusplus
}
#endif

#endif
