// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Bridge.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "Errors.h"
#include "Layout.h"
#include "Print.h"

namespace sound {

Bridge::Bridge(Server& server, const std::string& directory, const Settings& settings, Claim& claim)
    : m_server(server),
      m_directory(directory),
      m_settings(settings),
      m_claim(claim),
      m_outputs(settings.outputs),
      m_watch(server.Loop(), host::Root(),
              [this](auto event, const std::string& path) { OnTv(event, path); }),
      m_writer(m_server, [this] { Look(); }),
      m_kavrel(m_server, KAVREL_MODULE, [this] { Look(); }),
      m_main(m_server, {MAIN_STAGE, settings.latency, !settings.isRough, [this] { Look(); }}),
      m_sub(m_server, {SUB_STAGE, settings.latency, !settings.isRough, [this] { Look(); }}) {
    const auto whenDue = [this] { Settle(); };
    m_devices.push_back(std::make_unique<Device>(server.Loop(), m_writer, nullptr, whenDue));
    for (const tv::DeviceKind& kind : tv::DeviceKinds()) {
        m_devices.push_back(std::make_unique<Device>(server.Loop(), m_writer, &kind, whenDue));
    }
    m_player.Take();
    ReadRoute();
    SetGains();
    m_server.Connect({[this] { OnReady(); }, [this](const std::string& reason) { OnGone(reason); },
                      [this](Change change, Index index) { OnChange(change, index); }});
}

// --- The TV directory

/** Precedes all that may write to the TV directory: a write would make it again.
 *  @throws tools::ToolError if it has gone, which ends the loop */
void Bridge::EndWithoutTv() const {
    std::error_code ignored;
    if (!std::filesystem::exists(host::Root(), ignored)) {
        throw tools::ToolError(tools::EXIT_UNREACHABLE, "the TV directory " + m_directory + " has gone");
    }
}

void Bridge::OnTv(tv::DirectoryWatch::Event event, const std::string& path) {
    EndWithoutTv();
    if (path == tv::Player::File().path) {
        m_player.Look();
    }
    if (path == host::MAIN_OUT_GAIN.path || path == host::SUB_OUT_GAIN.path) {
        SetGains();
        return;
    }
    if (event == tv::DirectoryWatch::Event::LOST) {
        tools::Complain("too many changes at once: requests may be lost");
        SetGains();
    }
    ReadRoute();
    if (event == tv::DirectoryWatch::Event::WRITTEN) {
        if (path == host::LEVEL_REQUEST.path || path == host::MUTE_REQUEST.path) {
            Answer(path == host::LEVEL_REQUEST.path);
        }
    }
    Settle();
}

/** Keeps the last route while there is none that can be read. */
void Bridge::ReadRoute() {
    if (const tv::Integer route = tv::ReadOutput().route) {
        m_route = route.value;
    }
}

void Bridge::SetGains() {
    if (const tv::Integer gain = tv::ReadInteger(host::MAIN_OUT_GAIN)) {
        m_main.SetGain(gain.value, IsMuted(OutputSink()));
    }
    if (const tv::Integer gain = tv::ReadInteger(host::SUB_OUT_GAIN)) {
        m_sub.SetGain(gain.value, IsMuted(m_settings.sub));
    }
}

bool Bridge::IsMuted(const std::string& sink) const {
    const Sink* const found = m_snapshot.FindSink(sink);
    return found != nullptr && found->isMuted;
}

/** Applies a request to the output in use. */
void Bridge::Answer(bool isLevel) {
    m_player.Look();  // the other program may have been ended before it could remove its process id
    const tv::DeviceKind* const kind = tv::ReadOutput().Device();
    const tv::Integer asked = tv::ReadInteger(isLevel ? host::LEVEL_REQUEST : host::MUTE_REQUEST);
    if (kind == nullptr || !asked || !m_player.IsThisProcess()) {
        return;
    }
    const auto value = std::optional(asked.value);
    DeviceOf(kind).Ask(SinkOf(kind), isLevel ? value : std::nullopt, isLevel ? std::nullopt : value);
}

Device& Bridge::DeviceOf(const tv::DeviceKind* kind) {
    return **std::find_if(m_devices.begin(), m_devices.end(),
                          [kind](const auto& device) { return device->Kind() == kind; });
}

/** @return null if the server does not have it */
Sink* Bridge::SinkOf(const tv::DeviceKind* kind) {
    const Choice choice = m_outputs.ChoiceOfKind(kind, m_route, m_claim.DefaultSink());
    const Sink* const sink = std::as_const(m_snapshot).FindSink(choice.sink);
    return sink != nullptr ? m_snapshot.FindSink(sink->index) : nullptr;
}

// --- The server

void Bridge::OnReady() {
    m_isLooking = false;
    Look();
}

void Bridge::OnGone(const std::string& reason) {
    EndWithoutTv();
    tools::Complain("waiting for a sound server: " + reason);
    m_snapshot = {};
    m_writer.Forget();
    m_kavrel.Forget();
    m_main.Forget();
    m_sub.Forget();
    m_programs.clear();
    m_kavrelSink = NO_INDEX;
    m_isDefaultSet = false;
    m_hasSaid = false;
    for (const auto& device : m_devices) {
        device->Follow(nullptr, m_player.IsThisProcess());
    }
}

void Bridge::OnChange(Change change, Index index) {
    if (change == Change::SINK_REMOVED) {
        m_main.Leave(index);
        m_sub.Leave(index);
    }
    if (change == Change::STREAM_CHANGED && (m_main.IsChanging(index) || m_sub.IsChanging(index))) {
        return;  // the server's word of the stage's own volumes
    }
    Look();
}

void Bridge::Look() {
    m_isStale = m_isLooking;
    if (m_isLooking || !m_server.IsReady()) {
        return;
    }
    m_isLooking = true;
    m_writer.BeginLook();
    m_server.Look([this](Snapshot&& snapshot) { OnLook(std::move(snapshot)); });
}

void Bridge::OnLook(Snapshot&& snapshot) {
    m_isLooking = false;
    m_writer.Amend(snapshot, m_snapshot);
    m_snapshot = std::move(snapshot);
    Settle();
    SayThatItPlays();
    if (m_isStale) {
        Look();
    }
}

// --- What there has to be

void Bridge::Settle() {
    EndWithoutTv();
    if (m_snapshot.server.empty()) {
        return;
    }
    m_claim.NoteDefaultSink(DefaultSink(m_snapshot, m_claim.DefaultSink()));
    SayWhatIsMissing();
    for (const auto& device : m_devices) {
        device->Follow(SinkOf(device->Kind()), m_player.IsThisProcess());
    }
    m_kavrel.Ensure(FindKavrel(m_snapshot), KavrelArguments());
    const Sink* const kavrel = m_snapshot.FindSink(std::string(KAVREL_SINK));
    if (kavrel == nullptr) {
        m_main.Follow(m_snapshot, nullptr);
        m_sub.Follow(m_snapshot, nullptr);
        return;
    }
    const Sink* const main = m_snapshot.FindSink(OutputSink());
    const Sink* const sub = m_snapshot.FindSink(m_settings.sub);
    FollowPrograms(*kavrel);
    Guard(*kavrel, m_main.WillAppear(m_snapshot, main) || m_sub.WillAppear(m_snapshot, sub));
    m_main.Follow(m_snapshot, main);
    m_sub.Follow(m_snapshot, sub);
    if (m_settings.isDefault && !std::exchange(m_isDefaultSet, true)) {
        m_server.SetDefaultSink(KAVREL_SINK, {});
    }
}

std::string Bridge::OutputSink() const {
    return m_route ? m_outputs.ChoiceOf(*m_route, m_claim.DefaultSink()).sink : "";
}

bool Bridge::IsOwn(const Stream& stream) const {
    return IsOfStage(stream, MAIN_STAGE) || IsOfStage(stream, SUB_STAGE);
}

/** Moves programs back if "kavrel" was removed and made again. Programs that a person moves away stay away. */
void Bridge::FollowPrograms(const Sink& kavrel) {
    if (std::exchange(m_kavrelSink, kavrel.index) != kavrel.index) {
        for (const Stream& stream : m_snapshot.streams) {
            if (m_programs.contains(stream.index) && stream.sink != kavrel.index) {
                m_server.MoveStream(stream.index, kavrel.index, {});
            }
        }
        return;
    }
    m_programs.clear();
    for (const Stream& stream : m_snapshot.streams) {
        if (stream.sink == kavrel.index && !IsOwn(stream)) {
            m_programs.insert(stream.index);
        }
    }
}

/** Keeps "kavrel" silent while a stage has appeared on the server, and its gain is not in force yet. The note comes
 * before the mute: a bridge that is killed between them leaves nothing muted that the next one does not unmute. */
void Bridge::Guard(const Sink& kavrel, bool isNeeded) {
    if (isNeeded && !m_claim.IsGuarding() && !m_programs.empty() && !kavrel.isMuted) {
        m_claim.NoteGuard(true);
        m_server.SetSinkMute(kavrel.index, true, {});
    } else if (!isNeeded && m_claim.IsGuarding()) {
        m_server.SetSinkMute(kavrel.index, false,
                             [this](bool /*hasSucceeded*/) { m_claim.NoteGuard(false); });
    }
}

void Bridge::SayThatItPlays() {
    const bool hasKavrel = m_snapshot.FindSink(std::string(KAVREL_SINK)) != nullptr;
    if (hasKavrel && m_main.IsSettled() && m_sub.IsSettled() && !std::exchange(m_hasSaid, true)) {
        tools::PrintLine("the TV " + tools::Printable(m_directory) + " plays on " +
                         tools::Printable(m_snapshot.server));
    }
}

void Bridge::SayWhatIsMissing() {
    std::vector<std::string> named = {m_settings.sub};
    for (const auto& [route, sink] : m_outputs.Named()) {
        named.push_back(sink);
    }
    for (const std::string& sink : named) {
        if (sink.empty() || m_snapshot.FindSink(sink) != nullptr) {
            m_missing.erase(sink);
        } else if (m_missing.insert(sink).second) {
            tools::Complain("waiting for the sink " + tools::Printable(sink));
        }
    }
}

}  // namespace sound
