// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The settings store: text and integers under keys such as "memory/..." (gone after a restart of the TV) and
 * "db/..." (kept).
 *
 * A key is a path of non-empty parts, none of which begins with a dot; any other key is refused. A value is
 * text of at most 1 MiB; an integer is stored as its decimal digits, so either getter may read what either
 * setter wrote. All calls may be made from any thread, also from within a callback. A result of 0 is
 * success; any other is the platform's own negative code.
 */
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/** A key and its new value, as a change callback gets them. Valid until the callback returns. */
typedef struct _keynode_t keynode_t;

/**
 * Gets a key whose value has changed.
 *
 * All callbacks of the seam run one at a time. If this process makes the change, they run on the thread that
 * makes it, before its call returns; otherwise on a thread of the platform. A callback may register and
 * remove callbacks, its own too.
 */
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

/** Fails, and leaves `*value` as it was, for a missing key and for text that is no 32-bit integer. */
int vconf_get_int(const char* key, int* value);

/** Reports the change to this process's callbacks before it returns. */
int vconf_set_int(const char* key, int value);

/** @return the text, which the caller frees with free(); null for a missing or unreadable key */
char* vconf_get_str(const char* key);

/** Reports the change to this process's callbacks before it returns. For tools and tests. */
int vconf_set_str(const char* key, const char* value);

/**
 * Calls `callback` on every change of `key`, which need not exist yet. A key may have several callbacks; the
 * same pair again replaces its user data. The value at this moment is not reported.
 */
int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data);

/**
 * Waits for a callback that is running on another thread; afterwards `callback` is never called again for
 * `key`. Fails if the pair is not registered.
 */
int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback);

/** @return owned by the node; null for a null node */
char* vconf_keynode_get_name(keynode_t* node);

/** @return the value, or -1 for a null node and for text that is no 32-bit integer */
int vconf_keynode_get_int(keynode_t* node);

/** @return owned by the node; null for a null node */
char* vconf_keynode_get_str(keynode_t* node);

#ifdef __cplusplus
}
#endif

#endif
