// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <lwipc.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

#include "directory.h"

namespace {

/** Every byte but letters, digits, '_' and '-' becomes %XX, so that any name makes one file name. */
std::optional<host::Item> EventItem(const char* event) {
    constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    constexpr std::string_view HEX = "0123456789ABCDEF";
    if (event == nullptr || *event == '\0')
        return std::nullopt;
    std::string path = "events/";
    for (const char letter : std::string_view(event)) {
        const auto byte = static_cast<unsigned char>(letter);
        if (PLAIN.find(letter) != std::string_view::npos)
            path += letter;
        else
            path.append({'%', HEX[byte / 16], HEX[byte % 16]});
    }
    return host::Item{path, std::nullopt};
}

}  // namespace

int LwipcEventDone(const char* event) {
    const auto item = EventItem(event);
    return item ? host::Write(*item, "done") : host::Failure(EINVAL);
}

int LwipcResetEvent(const char* event) {
    const auto item = EventItem(event);
    return item ? host::Remove(*item) : host::Failure(EINVAL);
}

int LwipcIsDone(const char* event) {
    const auto item = EventItem(event);
    return item ? host::Exists(*item) : host::Failure(EINVAL);
}
