// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The resource centre: the multi-view zones on the screen, and which of them has the audio focus.
 *
 * All calls may be made from any thread, also from within a callback; one list and its zones belong to one
 * thread at a time. All calls but the registration and its removal wait for no callback.
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
#ifndef RESOURCE_CENTER_H
#define RESOURCE_CENTER_H

#ifdef __cplusplus
extern "C" {
#endif

/** The zones at one moment, in ascending order of their ids, with a position in them. */
typedef struct _rc_zone_list* rc_zone_list_h;

/** A zone of a list, valid until the list is freed. */
typedef struct _rc_zone* rc_zone_h;

/**
 * @param list to be freed with rc_free_zone_list(); as it was on failure. Without zones it is an empty list,
 * not a failure.
 * @return 0 on success
 */
int rc_get_zone_list(rc_zone_list_h* list);

/**
 * Steps to the next zone; the first call steps to the first one.
 * @return 0 while there is one; non-zero, with `*zone` as it was, at the end
 */
int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone);

/** @return 0 on success; negative, with `*zone_id` as it was, for a null argument */
int rc_get_zone_id(rc_zone_h zone, int* zone_id);

/** @return 0 on success */
int rc_free_zone_list(rc_zone_list_h list);

/** @return 0 on success; non-zero, with `*zone_id` as it was, while no zone has the focus */
int rc_get_audio_focus(int* zone_id);

/** @param zone_id the zone that has the focus now */
typedef void (*rc_audio_focus_changed_cb)(int zone_id, void* user_data);

/**
 * May be called several times, with the same callback too: each call makes a registration of its own, which
 * is called with its own user data.
 * @return the registration's id, above 0; 0 on failure
 */
int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data);

/** @return 0 on success; non-zero for an id that is not registered, or no longer */
int rc_unregister_audio_focus_changed_callback(int callback_id);

#ifdef __cplusplus
}
#endif

#endif
