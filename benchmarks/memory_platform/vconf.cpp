// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <cstdlib>
#include <cstring>

#include "tv.h"

using memory::GetTv;
using memory::Guard;
using memory::Setting;

struct _keynode_t {
    std::string name;
    std::string text;
};

int vconf_get_int(const char* key, int* value) {
    const Guard guard(GetTv().lock);
    const auto setting = GetTv().settings.find(key);
    if (setting == GetTv().settings.end() || setting->second.text.empty()) {
        return memory::FAILURE;
    }
    *value = std::atoi(setting->second.text.c_str());
    return 0;
}

int vconf_set_int(const char* key, int value) {
    return vconf_set_str(key, std::to_string(value).c_str());
}

char* vconf_get_str(const char* key) {
    const Guard guard(GetTv().lock);
    const auto setting = GetTv().settings.find(key);
    return setting != GetTv().settings.end() ? strdup(setting->second.text.c_str()) : nullptr;
}

int vconf_set_str(const char* key, const char* value) {
    const Guard guard(GetTv().lock);
    Setting& setting = GetTv().settings[key];
    if (setting.text == value) {
        return 0;
    }
    setting.text = value;
    keynode_t node{key, value};
    for (const auto& [callback, data] : std::map(setting.watchers)) {
        callback(&node, data);
    }
    return 0;
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    const Guard guard(GetTv().lock);
    GetTv().settings[key].watchers[callback] = user_data;
    return 0;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    const Guard guard(GetTv().lock);
    return GetTv().settings[key].watchers.erase(callback) == 1 ? 0 : memory::FAILURE;
}

char* vconf_keynode_get_name(keynode_t* node) {
    return node->name.data();
}

int vconf_keynode_get_int(keynode_t* node) {
    return std::atoi(node->text.c_str());
}

char* vconf_keynode_get_str(keynode_t* node) {
    return node->text.data();
}
