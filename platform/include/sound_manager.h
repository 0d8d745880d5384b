// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The sound manager: which output the sound of the TV goes to, as a whole and for each multi-view zone.
 *
 * All calls may be made from any thread, also from within a callback. A result of 0 is success, any other a
 * failure. A call that fails changes and reports nothing, and leaves `*route` as it was. The getters wait for
 * no callback.
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
 *
 * The process has one callback of each kind: setting a second one replaces the first and its user data.
 * Unsetting fails if none is set.
 */
#ifndef SOUND_MANAGER_H
#define SOUND_MANAGER_H

#ifdef __cplusplus
extern "C" {
#endif

/** Code of an output. Any 32-bit integer can be stored; the sound manager gives none a meaning. */
typedef int sound_tv_output_route_e;

int sound_manager_get_speaker_selection(sound_tv_output_route_e* route);

/** An equal route succeeds and is not reported. */
int sound_manager_set_speaker_selection(sound_tv_output_route_e route);

/** @return 0xFE6A0004 (as an int -26607612) if there is no such zone, as after the end of multi-view */
int sound_manager_get_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e* route, int zone_id);

/**
 * An equal route succeeds and is not reported.
 * @return 0xFE6A0004 (as an int -26607612) if there is no such zone; this call never makes one
 */
int sound_manager_set_multiview_speaker_selection_with_zone_id(sound_tv_output_route_e route, int zone_id);

typedef void (*sound_manager_speaker_changed_cb)(sound_tv_output_route_e route, void* user_data);

int sound_manager_set_speaker_changed_cb(sound_manager_speaker_changed_cb callback, void* user_data);
int sound_manager_unset_speaker_changed_cb(void);

typedef void (*sound_manager_multiview_speaker_selection_changed_cb)(sound_tv_output_route_e route,
                                                                     int zone_id, void* user_data);

/** Reports the changes of all zones, also of later ones; the first route of a new zone is a change. */
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
