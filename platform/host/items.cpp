// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "items.h"

namespace host {

Value EventValue(std::string_view event) {
    constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    constexpr std::string_view HEX = "0123456789ABCDEF";
    std::string path = std::string(EVENTS) + '/';
    for (const char letter : event) {
        const auto byte = static_cast<unsigned char>(letter);
        if (PLAIN.find(letter) != std::string_view::npos) {
            path += letter;
        } else {
            path.append({'%', HEX[byte / 16], HEX[byte % 16]});
        }
    }
    return {path, TEXT};
}

}  // namespace host
