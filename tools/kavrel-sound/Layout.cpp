// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Layout.h"

#include <algorithm>

#include "Outputs.h"

namespace sound {

namespace {

/** The role of the stages' streams: what a server remembers of other programs' volumes does not apply to them. */
constexpr const char* ROLE = "kavrel";

std::string StageMark(const std::string& stage) {
    return "media.name=" + stage + " ";
}

std::string KavrelMark() {
    return "sink_name=" + std::string(KAVREL_SINK) + " ";
}

void AddOnce(std::vector<Index>& modules, Index module) {
    if (std::find(modules.begin(), modules.end(), module) == modules.end()) {
        modules.push_back(module);
    }
}

/** Adds the modules with the mark in their arguments. */
void AddMarked(std::vector<Index>& found, const Snapshot& snapshot, const char* name,
               const std::string& mark) {
    for (const Module& module : snapshot.modules) {
        if (module.name == name && (module.arguments + " ").find(mark) != std::string::npos) {
            AddOnce(found, module.index);
        }
    }
}

}  // namespace

std::string StageArguments(const std::string& stage, const std::string& sink, int latency) {
    return "source=" + std::string(KAVREL_SINK) + ".monitor sink=" + sink +
           " source_dont_move=true latency_msec=" + std::to_string(latency) + " sink_input_properties=\"" +
           StageMark(stage) + "media.role=" + ROLE +
           " state.restore-props=false state.restore-target=false\"";
}

std::string KavrelArguments() {
    return KavrelMark() + "rate=48000 format=float32le sink_properties=device.description=kavrel";
}

bool IsOfStage(const Stream& stream, const std::string& stage) {
    return stream.name == stage && stream.module != NO_INDEX;
}

std::string DefaultSink(const Snapshot& snapshot, const std::string& before) {
    if (snapshot.defaultSink != KAVREL_SINK) {
        return snapshot.defaultSink;
    }
    if (snapshot.FindSink(before) != nullptr) {
        return before;
    }
    const auto other = std::find_if(snapshot.sinks.begin(), snapshot.sinks.end(),
                                    [](const Sink& sink) { return sink.name != KAVREL_SINK; });
    return other != snapshot.sinks.end() ? other->name : "";
}

std::vector<Index> FindStage(const Snapshot& snapshot, const std::string& stage) {
    std::vector<Index> found;
    for (const Stream& stream : snapshot.streams) {
        if (IsOfStage(stream, stage)) {
            AddOnce(found, stream.module);
        }
    }
    AddMarked(found, snapshot, STAGE_MODULE, StageMark(stage));
    return found;
}

std::vector<Index> FindKavrel(const Snapshot& snapshot) {
    std::vector<Index> found;
    for (const Sink& sink : snapshot.sinks) {
        if (sink.name == KAVREL_SINK && sink.module != NO_INDEX) {
            AddOnce(found, sink.module);
        }
    }
    AddMarked(found, snapshot, KAVREL_MODULE, KavrelMark());
    return found;
}

}  // namespace sound
