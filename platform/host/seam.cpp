// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "seam.h"

#include <dlog.h>

namespace host {
namespace {

void LogLine(const Error& error) {
    if (!error.text.empty()) {
        __dlog_print(DLOG_ERROR, "Kavrel", "%s\n", error.text.c_str());
    }
}

bool LogOpening() {
    LogLine(OpenTv());
    if (!TvWarning().empty()) {
        __dlog_print(DLOG_WARN, "Kavrel", "%s\n", TvWarning().c_str());
    }
    return true;
}

}  // namespace

void Log(const Error& error) {
    [[maybe_unused]] static const bool isOpened = LogOpening();
    LogLine(error);
}

int Result(const Error& error) {
    Log(error);
    return error.Code();
}

std::optional<Value> FindKey(const char* folder, const char* key) {
    const std::string_view text = key != nullptr ? key : "";
    if (IsKey(text)) {
        return KeyValue(folder, text);
    }
    Log(RefuseKey(folder, text));
    return std::nullopt;
}

}  // namespace host
