// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The kit's adapter for the platform in memory, of which somebody else is a part. */
#include "adapter.h"

#include <dlog.h>

#include <string>

#include "memory_platform.h"

namespace {

std::string NameOf(const kit_value& value) {
    switch (value.kind) {
        case KIT_MASTER_VOLUME:
            return "volume";
        case KIT_MASTER_MUTE:
            return "mute";
        case KIT_ROUTE:
            return "route";
        case KIT_ZONE_ROUTE:
            return "zone/" + std::to_string(value.zone);
        case KIT_FOCUS:
            return "focus";
        case KIT_MAIN_OUT_GAIN:
            return "gain/main";
        case KIT_SUB_OUT_GAIN:
            return "gain/sub";
        case KIT_SETTING:
            return std::string("setting/") + value.key;
        case KIT_FEATURE:
            return std::string("feature/") + value.key;
        case KIT_EVENT:
            return std::string("event/") + value.key;
    }
    return {};
}

}  // namespace

const char* kit_platform(void) {
    return "a TV in memory";
}

int kit_start(void) {
    return KIT_DONE;
}

void kit_stop(void) {}

int kit_set(const kit_value* value, const char* text) {
    memory::ThePlatform().Change(NameOf(*value), text);
    return KIT_DONE;
}

int kit_remove(const kit_value* value) {
    memory::ThePlatform().Change(NameOf(*value), {});
    return KIT_DONE;
}

int kit_make_unreadable(const kit_value* value) {
    memory::ThePlatform().SetReadable(NameOf(*value), false);
    return KIT_DONE;
}

int kit_make_readable(const kit_value* value) {
    memory::ThePlatform().SetReadable(NameOf(*value), true);
    return KIT_DONE;
}

int kit_set_zones(const int* zones, int count) {
    memory::ThePlatform().SetZones({zones, zones + count});
    return KIT_DONE;
}

int kit_lowest_priority(void) {
    return DLOG_INFO;
}

int kit_log(void (*write)(), char* text, size_t size) {
    return kit_log_of_stderr(write, text, size);
}
