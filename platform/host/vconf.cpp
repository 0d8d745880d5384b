// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <vconf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "reports.h"
#include "seam.h"

struct _keynode_t {
    std::string name;
    std::string text;
};

namespace {

/** The registration of a key and a callback, with its id in Reports. */
struct KeyRegistration {
    std::string key;
    vconf_callback_fn callback;
    int id;
};

/** Never destroyed: a callback may use it after the end of main(). */
std::vector<KeyRegistration>& Registrations() REQUIRES(host::deliveryLock) {
    static auto& registrations = *std::make_unique<std::vector<KeyRegistration>>().release();
    return registrations;
}

std::vector<KeyRegistration>::iterator Find(const char* key, vconf_callback_fn callback)
    REQUIRES(host::deliveryLock) {
    auto& all = Registrations();
    return std::find_if(all.begin(), all.end(), [&](const KeyRegistration& registration) {
        return registration.key == key && registration.callback == callback;
    });
}

}  // namespace

int vconf_get_int(const char* key, int* value) {
    const auto setting = host::FindKey(host::SETTINGS, key);
    return setting && value != nullptr ? host::Result(host::Read(*setting, *value))
                                       : host::FailureCode(EINVAL);
}

int vconf_set_int(const char* key, int value) {
    return vconf_set_str(key, std::to_string(value).c_str());
}

char* vconf_get_str(const char* key) {
    const auto setting = host::FindKey(host::SETTINGS, key);
    std::string text;
    return setting && host::Result(host::Read(*setting, text)) == 0 ? strdup(text.c_str()) : nullptr;
}

int vconf_set_str(const char* key, const char* value) {
    const auto setting = host::FindKey(host::SETTINGS, key);
    return setting && value != nullptr ? host::Result(host::Reports::Get().Set(*setting, value))
                                       : host::FailureCode(EINVAL);
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    const auto setting = host::FindKey(host::SETTINGS, key);
    if (!setting || callback == nullptr) {
        return host::FailureCode(EINVAL);
    }
    const auto report = [name = std::string(key), callback, user_data](const host::Change& change) {
        keynode_t node{name, change.text};
        callback(&node, user_data);
    };
    host::Reports& reports = host::Reports::Get();
    const host::Guard guard(host::deliveryLock);
    if (const auto found = Find(key, callback); found != Registrations().end()) {
        reports.Replace(found->id, report);
        return 0;
    }
    int id = 0;
    if (const host::Error error = reports.Add(*setting, report, id)) {
        return host::Result(error);
    }
    Registrations().push_back({key, callback, id});
    return 0;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    const auto setting = host::FindKey(host::SETTINGS, key);
    if (!setting) {
        return host::FailureCode(EINVAL);
    }
    host::Reports& reports = host::Reports::Get();
    const host::Guard guard(host::deliveryLock);
    const auto found = Find(key, callback);
    if (found == Registrations().end()) {
        return host::FailureCode(ENOENT);
    }
    const int id = found->id;
    Registrations().erase(found);
    return reports.Remove(setting->topic, id).Code();
}

char* vconf_keynode_get_name(keynode_t* node) {
    return node != nullptr ? node->name.data() : nullptr;
}

int vconf_keynode_get_int(keynode_t* node) {
    int value = -1;
    if (node != nullptr && host::ParseInteger(node->text, host::ANY_INTEGER, value) != 0) {
        const std::string path = host::Root() / host::KeyValue(host::SETTINGS, node->name).path;
        host::Log({EINVAL, "No integer in " + path});
    }
    return value;
}

char* vconf_keynode_get_str(keynode_t* node) {
    return node != nullptr ? node->text.data() : nullptr;
}
