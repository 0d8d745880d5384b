// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Device.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "Mapping.h"
#include "Print.h"

namespace sound {

namespace {

constexpr int EVERYTHING = 0xF;  // as a support word
constexpr int NOTHING = 0;

/** The daemon misses an answer that comes while it is busy with the request. */
constexpr std::chrono::milliseconds ANSWER_DELAY{50};

tv::VolumeValues ValuesOf(const tv::DeviceKind* kind) {
    return kind != nullptr ? tv::VolumeValues{kind->level, kind->mute}
                           : tv::VolumeValues{host::MASTER_VOLUME, host::MASTER_MUTE};
}

}  // namespace

Device::Device(tools::MainLoop& loop, SinkWriter& writer, const tv::DeviceKind* kind,
               std::function<void()> whenDue)
    : m_loop(loop),
      m_writer(writer),
      m_kind(kind),
      m_whenDue(std::move(whenDue)),
      m_level{ValuesOf(kind).level, {}},
      m_mute{ValuesOf(kind).mute, {}} {}

void Device::Follow(Sink* sink, bool mayPublish) {
    if (sink == nullptr) {
        Interrupt();
    }
    if (m_kind != nullptr && !mayPublish) {
        return;
    }
    if (sink == nullptr) {
        if (m_kind != nullptr) {
            Publish(m_kind->support, NOTHING, false);
        }
        return;
    }
    if (m_answer != nullptr) {
        return;
    }
    const bool isAnswer = std::exchange(m_isAsked, false);
    // The support word first: a program that is notified of the level asks for it.
    if (m_kind != nullptr) {
        Publish(m_kind->support, EVERYTHING, isAnswer);
    }
    const int level = LevelOfVolume(Loudest(sink->volumes));
    const int mute = sink->isMuted ? 1 : 0;
    if (isAnswer) {
        Publish(m_level.file, level, true);
        Publish(m_mute.file, mute, true);
    }
    Follow(*sink, m_level, level, HIGHEST_LEVEL, [&](int value) { m_writer.SetLevel(*sink, value); });
    Follow(*sink, m_mute, mute, 1, [&](int value) { m_writer.SetMute(*sink, value != 0); });
}

void Device::Follow(Sink& sink, Shared& shared, int ofServer, int highest,
                    const std::function<void(int)>& set) {
    const tv::Integer ofTv = tv::ReadInteger(shared.file);
    if (!ofTv && !ofTv.IsMissing()) {
        return;  // a person may be about to write it
    }
    const auto value = ofTv ? std::optional(ofTv.value) : std::nullopt;
    const Winner winner = shared.agreement.Compare(sink.name, value, ofServer);
    if (winner == Winner::NOBODY) {
        return;
    }
    const int agreed = winner == Winner::DIRECTORY ? std::clamp(*value, 0, highest) : ofServer;
    if (agreed != ofServer) {
        set(agreed);
    }
    shared.agreement.Agree(agreed);
    Publish(shared.file, agreed, false);
}

void Device::Ask(Sink* sink, std::optional<int> level, std::optional<int> mute) {
    if (sink == nullptr) {
        return;
    }
    if (level) {
        m_writer.SetLevel(*sink, std::clamp(*level, 0, HIGHEST_LEVEL));
    }
    if (mute) {
        m_writer.SetMute(*sink, *mute != 0);
    }
    m_isAsked = true;
    m_answer = m_loop.After(ANSWER_DELAY, [this] {
        m_answer.reset();
        m_whenDue();
    });
}

/** Writes what is not there yet; an answer also what is there. */
void Device::Publish(const host::Value& file, int value, bool isAnswer) {
    const tv::Integer present = tv::ReadInteger(file);
    if (!isAnswer && present && present.value == value) {
        return;
    }
    if (const host::Error error = host::Write(file, std::to_string(value))) {
        tools::Complain(error.text);
    }
}

void Device::Interrupt() {
    m_level.agreement.Interrupt();
    m_mute.agreement.Interrupt();
    m_isAsked = false;
    m_answer.reset();
}

}  // namespace sound
