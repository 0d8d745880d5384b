// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <vconf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <dlog.h>
#include "directory.h"
#include "reports.h"

struct _keynode_t {
    std::string name;
    std::string text;
};

namespace {

constexpr const char* FOLDER = "settings";

/** A setting's registration as its caller knows it. */
struct Registration {
    std::string key;
    vconf_callback_fn callback;
    int id;
};

/** Guarded by the delivery lock. Never destroyed, like all that callbacks may meet. */
std::vector<Registration>& Registrations() {
    static auto& registrations = *std::make_unique<std::vector<Registration>>().release();
    return registrations;
}

std::vector<Registration>::iterator Find(const char* key, vconf_callback_fn callback) {
    auto& all = Registrations();
    return std::find_if(all.begin(), all.end(), [&](const Registration& registration) {
        return registration.key == key && registration.callback == callback;
    });
}

}  // namespace

int vconf_get_int(const char* key, int* value) {
    const auto item = host::KeyItem(FOLDER, key);
    return item && value != nullptr ? host::Read(*item, *value) : host::Failure(EINVAL);
}

int vconf_set_int(const char* key, int value) {
    return vconf_set_str(key, std::to_string(value).c_str());
}

char* vconf_get_str(const char* key) {
    const auto item = host::KeyItem(FOLDER, key);
    std::string text;
    return item && host::Read(*item, text) == 0 ? strdup(text.c_str()) : nullptr;
}

int vconf_set_str(const char* key, const char* value) {
    const auto item = host::KeyItem(FOLDER, key);
    return item && value != nullptr ? host::Reports::Get().Set(*item, value) : host::Failure(EINVAL);
}

int vconf_notify_key_changed(const char* key, vconf_callback_fn callback, void* user_data) {
    const auto item = host::KeyItem(FOLDER, key);
    if (!item || callback == nullptr)
        return host::Failure(EINVAL);
    const auto report = [name = std::string(key), callback, user_data](const host::Change& change) {
        keynode_t node{name, change.text};
        callback(&node, user_data);
    };
    host::Reports& reports = host::Reports::Get();
    const std::lock_guard guard(reports.DeliveryLock());
    if (const auto found = Find(key, callback); found != Registrations().end()) {
        reports.Replace(found->id, report);
        return 0;
    }
    const int id = reports.Add(*item, report);
    if (id < 0)
        return id;
    Registrations().push_back({key, callback, id});
    return 0;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn callback) {
    const auto item = host::KeyItem(FOLDER, key);
    if (!item)
        return host::Failure(EINVAL);
    host::Reports& reports = host::Reports::Get();
    const std::lock_guard guard(reports.DeliveryLock());
    const auto found = Find(key, callback);
    if (found == Registrations().end())
        return host::Failure(ENOENT);
    const int id = found->id;
    Registrations().erase(found);
    return reports.Remove(item->topic, id);
}

char* vconf_keynode_get_name(keynode_t* node) {
    return node != nullptr ? node->name.data() : nullptr;
}

int vconf_keynode_get_int(keynode_t* node) {
    int value = -1;
    if (node != nullptr && host::ParseInteger(node->text, {}, value) != 0)
        __dlog_print(DLOG_ERROR, "Kavrel", "No integer in %s/%s/%s\n", host::Root().c_str(), FOLDER,
                     node->name.c_str());
    return value;
}

char* vconf_keynode_get_str(keynode_t* node) {
    return node != nullptr ? node->text.data() : nullptr;
}
