// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The sound manager: which output the sound of the TV goes to, as a whole and for each multi-view zone.
 *
 * All calls may be made from any thread, also from within a callback. A result of 0 is success; any other is
 * a negative code.
 *
 * All callbacks of the seam run one at a time. If this process makes the change, they run on the thread that
 * makes it, before its call returns; otherwise on a thread of the platform. They get changes only, never
 * a value equal to the last one. The process has one callback of each kind: setting it again replaces it.
 * Unsetting waits for a callback that is running on another thread, after which it is never called again; it
 * fails if none is set.
 */
#ifndef SOUND_MANAGER_H
#define SOUND_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

/** Code of an output. Any 32-bit integer can be stored; the sound manager gives none a meaning. */
typedef int sound_tv_output_route_e;

/** `*route` is set on success only. */
int sound_manager_get_speaker_selection(sound_tv_output_route_e* route);

int sound_manager_set_speaker_selection(sound_tv_output_route_e route);

/**
 * `*route` is set on success only.
 * @return 0xFE6A0004 (as an int -26607612) if there is no such zone
 */
int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id);

/** @return 0xFE6A0004 (as an int -26607612) if there is no such zone; a zone is never made by this */
int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id);

typedef void (*sound_manager_speaker_changed_cb)(sound_tv_output_route_e route, void* user_data);

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data);
int sound_manager_unset_speaker_changed_cb(void);

typedef void (*sound_manager_multiview_speaker_selection_changed_cb)(sound_tv_output_route_e route,
                                                                     int zone_id, void* user_data);

/** Reports changes in every zone, also in one that appears later; the first route of a new zone is a change. */
int sound_manager_set_multiview_speaker_selection_changed_cb(
    sound_manager_multiview_speaker_selection_changed_cb callback, void* user_data);
int sound_manager_unset_multiview_speaker_selection_changed_cb(void);

/** @param mute 1 muted, 0 not */
typedef void (*sound_manager_tv_master_mute_changed_cb)(unsigned int mute, void* user_data);

/** Reports the audio HAL's master mute: both interfaces share this value, and each has a callback for it. */
int sound_manager_set_tv_master_mute_changed_cb(sound_manager_tv_master_mute_changed_cb callback,
                                                void* user_data);
int sound_manager_unset_tv_master_mute_changed_cb(void);

#ifdef __cplusplus
}
#endif

#endif
