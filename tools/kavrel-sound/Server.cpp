// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Server.h"

#include <algorithm>

namespace sound {

const Sink* Snapshot::FindSink(const std::string& name) const {
    const auto found =
        std::find_if(sinks.begin(), sinks.end(), [&](const Sink& sink) { return sink.name == name; });
    return found != sinks.end() && !name.empty() ? &*found : nullptr;
}

const Sink* Snapshot::FindSink(Index index) const {
    const auto found =
        std::find_if(sinks.begin(), sinks.end(), [=](const Sink& sink) { return sink.index == index; });
    return found != sinks.end() ? &*found : nullptr;
}

Sink* Snapshot::FindSink(Index index) {
    const auto found =
        std::find_if(sinks.begin(), sinks.end(), [=](const Sink& sink) { return sink.index == index; });
    return found != sinks.end() ? &*found : nullptr;
}

}  // namespace sound
