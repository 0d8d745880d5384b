// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Boot events: named marks that any process may set, and others wait for while the TV starts.
 *
 * All calls may be made from any thread, also from within a callback, and wait for no callback. An event's
 * name is any non-empty text, by custom a path such as "/tmp/.kavrel_ready". An event that nobody has marked
 * is not done.
 */
#ifndef LWIPC_H
#define LWIPC_H

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Marks the event done. A repeated call changes nothing.
 * @return 0 on success
 */
int LwipcEventDone(const char* event);

/**
 * Marks the event not done. A repeated call changes nothing.
 * @return 0 on success
 */
int LwipcResetEvent(const char* event);

/** @return 1 done, 0 not done, negative on failure */
int LwipcIsDone(const char* event);

#ifdef __cplusplus
}
#endif

#endif
