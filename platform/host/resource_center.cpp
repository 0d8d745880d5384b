// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <resource_center.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <vector>

#include "reports.h"
#include "seam.h"

struct _rc_zone {
    int id;
};

struct _rc_zone_list {
    std::vector<_rc_zone> zones;
    std::size_t next = 0;
};

int rc_get_zone_list(rc_zone_list_h* list) {
    if (list == nullptr) {
        return host::FailureCode(EINVAL);
    }
    std::vector<int> ids;
    if (const host::Error error = host::GetZones(ids)) {
        return host::Result(error);
    }
    auto made = std::make_unique<_rc_zone_list>();
    for (const int id : ids) {
        made->zones.push_back({id});
    }
    *list = made.release();
    return 0;
}

int rc_get_next_zone(rc_zone_list_h list, rc_zone_h* zone) {
    if (list == nullptr || zone == nullptr) {
        return host::FailureCode(EINVAL);
    }
    if (list->next == list->zones.size()) {
        return host::FailureCode(ENOENT);
    }
    *zone = &list->zones[list->next++];
    return 0;
}

int rc_get_zone_id(rc_zone_h zone, int* zone_id) {
    if (zone == nullptr || zone_id == nullptr) {
        return host::FailureCode(EINVAL);
    }
    *zone_id = zone->id;
    return 0;
}

int rc_free_zone_list(rc_zone_list_h list) {
    const std::unique_ptr<_rc_zone_list> owned(list);
    return owned ? 0 : host::FailureCode(EINVAL);
}

int rc_get_audio_focus(int* zone_id) {
    return zone_id != nullptr ? host::Result(host::Read(host::FOCUS, *zone_id)) : host::FailureCode(EINVAL);
}

int rc_register_audio_focus_changed_callback(rc_audio_focus_changed_cb callback, void* user_data) {
    if (callback == nullptr) {
        return 0;
    }
    int id = 0;
    host::Log(host::Reports::Get().Add(
        host::FOCUS, [=](const host::Change& change) { callback(change.Integer(), user_data); }, id));
    return id;
}

int rc_unregister_audio_focus_changed_callback(int callback_id) {
    return host::Reports::Get().Remove(host::FOCUS.path, callback_id).Code();
}
