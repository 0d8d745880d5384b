// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <system_info.h>

#include <string_view>

#include "tv.h"

int system_info_get_custom_bool(const char* key, bool* value) {
    const std::string_view feature = key;
    if (feature == "com.norvik/featureconf/internal_speaker_supported" ||
        feature == "com.norvik/featureconf/multiview.support") {
        *value = true;
        return 0;
    }
    *value = false;
    return feature == "com.norvik/featureconf/projector_feature_support" ? 0 : memory::FAILURE;
}
