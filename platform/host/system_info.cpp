// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <system_info.h>

#include <cerrno>
#include <string>

#include "seam.h"

int system_info_get_custom_bool(const char* key, bool* value) {
    const auto flag = host::FindKey(host::FEATURES, key);
    if (!flag || value == nullptr) {
        return host::FailureCode(EINVAL);
    }
    std::string text;
    if (const host::Error error = host::Read(*flag, text)) {
        return host::Result(error);
    }
    if (text != "true" && text != "false") {
        const std::string path = host::Root() / flag->path;
        return host::Result({EINVAL, "Cannot read " + path + ": neither true nor false"});
    }
    *value = text == "true";
    return 0;
}
