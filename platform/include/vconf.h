// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The settings store: text and integers under keys such as "memory/..." (gone after a restart of the TV) and
 * "db/..." (kept).
 *
 * A key is a path of non-empty parts, none of which begins with a dot. A value is text; an integer is stored
 * as its decimal digits, so either getter may read what either setter wrote. A platform may refuse any other
 * key, and a text of more than 4095 bytes; the TV in a directory refuses other keys, and more than 1 MiB.
 *
 * All calls may be made from any thread, also from within a callback. A result of 0 is success, any other a
 * failure. A call that fails changes and reports nothing. The getters wait for no callback.
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
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/** A key and its new value, as a change callback gets them. Valid until the callback returns. */
typedef struct _keynode_t keynode_t;

/** @param node the key that was watched and its new value */
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

/** Fails, and leaves `*value` as it was, for a missing key and for text that is no 32-bit integer. */
int vconf_get_int(const char* key, int* value);

/** Makes the key if it is missing. An equal value succeeds and is not reported. */
int vconf_set_int(const char* key, int value);

/** @return the text, which the caller frees with free(); null for a missing or unreadable key */
char* vconf_get_str(const char* key);

/** As vconf_set_int(). For tools and tests: the daemon stores integers only. */
int vconf_set_str(const char* key, const char* value);

/**
 * Calls `callback` on every change of `key`. The key need not exist yet: its first value is a change, too.
 * Its removal from the store is not reported; if it comes back with another value than the last one, that is.
 * A key may have several callbacks, and one callback several keys; the same pair again replaces its user
 * data.
 */
int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data);

/** Removes the pair of key and callback, and no other one. Fails if the pair is not registered. */
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
