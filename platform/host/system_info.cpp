// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <system_info.h>

#include <cerrno>
#include <string>

#include <dlog.h>
#include "directory.h"

int system_info_get_custom_bool(const char* key, bool* value) {
    const auto item = host::KeyItem("features", key);
    if (!item || value == nullptr)
        return host::Failure(EINVAL);
    std::string text;
    if (const int result = host::Read(*item, text); result != 0)
        return result;
    if (text != "true" && text != "false") {
        __dlog_print(DLOG_ERROR, "Kavrel", "Cannot read %s: neither true nor false\n",
                     (host::Root() / item->path).c_str());
        return host::Failure(EINVAL);
    }
    *value = text == "true";
    return 0;
}
