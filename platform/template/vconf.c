// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/* Until this is there, an external output has no volume and no mute: clients get -4, and -1 for its support word. */
#include <vconf.h>

#include <stddef.h>

#include "not_there.h"

int vconf_get_int(const char* key, int* value) {
    (void)key;
    (void)value;
    return NOT_THERE;
}

int vconf_set_int(const char* key, int value) {
    (void)key;
    (void)value;
    return NOT_THERE;
}

char* vconf_get_str(const char* key) {
    (void)key;
    return NULL;
}

int vconf_set_str(const char* key, const char* value) {
    (void)key;
    (void)value;
    return NOT_THERE;
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    (void)key;
    (void)callback;
    (void)user_data;
    return NOT_THERE;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    (void)key;
    (void)callback;
    return NOT_THERE;
}

char* vconf_keynode_get_name(keynode_t* node) {
    (void)node;
    return NULL;
}

int vconf_keynode_get_int(keynode_t* node) {
    (void)node;
    return -1;
}

char* vconf_keynode_get_str(keynode_t* node) {
    (void)node;
    return NULL;
}
