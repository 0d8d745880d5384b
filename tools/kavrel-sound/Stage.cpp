// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Stage.h"

#include <algorithm>
#include <utility>

#include "Layout.h"
#include "Mapping.h"

namespace sound {

namespace {

constexpr Volume ROUNDING = FULL_VOLUME / 1000;

}  // namespace

Stage::Stage(Server& server, const StageSettings& settings)
    : m_server(server),
      m_settings(settings),
      m_module(server, STAGE_MODULE, settings.whenChanged),
      m_smoother(settings.isSmooth ? Smoother::STEPS : 1) {}

void Stage::Follow(const Snapshot& snapshot, const Sink* sink) {
    const std::vector<Index> found = FindStage(snapshot, m_settings.name);
    if (sink == nullptr) {
        m_module.Remove(found);
        m_stream = NO_INDEX;
        m_isComing = false;
        return;
    }
    m_owner = m_module.Ensure(found, StageArguments(m_settings.name, sink->name, m_settings.latency));
    const auto stream =
        std::find_if(snapshot.streams.begin(), snapshot.streams.end(), [this](const Stream& candidate) {
            return candidate.module == m_owner && IsOfStage(candidate, m_settings.name);
        });
    if (stream == snapshot.streams.end()) {
        m_stream = NO_INDEX;
        m_isComing = true;
        return;
    }
    if (stream->index != m_stream) {
        Adopt(*stream);
    }
    if (stream->isMuted) {
        m_server.SetStreamMute(m_stream, false, {});
    }
    m_sink = sink->index;
    if (stream->sink != sink->index && snapshot.MayLoseMovedSound()) {
        Replace(*stream);
        return;
    }
    if (stream->sink != sink->index) {
        Move(sink->index);
    }
    if (!IsChanging(m_stream) && !IsAsSet(stream->volumes)) {
        Write();
    }
}

/** Removes a stage that plays on another sink; the next look makes one for the right sink. */
void Stage::Replace(const Stream& stream) {
    if (stream.sink != NO_INDEX) {  // else it is new, and on its way to its sink
        m_module.Unload(m_owner);
        m_stream = NO_INDEX;
        m_isComing = true;
    }
}

void Stage::Move(Index sink) {
    if (!std::exchange(m_isMoving, true)) {
        m_server.MoveStream(m_stream, sink, [this](bool hasSucceeded) {
            m_isMoving = false;
            if (hasSucceeded) {
                m_settings.whenChanged();
            }
        });
    }
}

/** A server may round a volume. */
bool Stage::IsAsSet(const Volumes& volumes) const {
    const Volume own = VolumeOfAmplitude(m_smoother.Present());
    return std::all_of(volumes.begin(), volumes.end(),
                       [own](Volume volume) { return volume <= own + ROUNDING && volume + ROUNDING >= own; });
}

bool Stage::WillAppear(const Snapshot& snapshot, const Sink* sink) const {
    if (sink == nullptr || m_smoother.Target() >= 1) {
        return false;
    }
    const auto isOwn = [this](const Stream& stream) { return stream.index == m_stream; };
    return m_isComing || std::none_of(snapshot.streams.begin(), snapshot.streams.end(), isOwn);
}

bool Stage::IsChanging(Index stream) const {
    return stream == m_stream && (!m_smoother.IsThere() || m_unanswered > 0);
}

void Stage::Adopt(const Stream& stream) {
    m_stream = stream.index;
    m_channels = stream.volumes.size();
    m_unanswered = 0;
    m_timer.reset();
    m_smoother.Finish();
    m_isComing = true;
    Write();
}

void Stage::Leave(Index sink) {
    if (m_stream != NO_INDEX && m_sink == sink) {
        m_module.Unload(m_owner);
        m_stream = NO_INDEX;
    }
}

void Stage::SetGain(int gain, bool isMuted) {
    const double amplitude = AmplitudeOfGain(gain);
    if (m_stream != NO_INDEX && isMuted && amplitude < m_smoother.Present()) {
        m_smoother.Aim(0);
        m_smoother.Finish();
        Write();
    }
    m_smoother.Aim(amplitude);
    if (m_stream == NO_INDEX) {
        m_smoother.Finish();
    } else if (!m_settings.isSmooth) {
        Step();
    } else if (m_timer == nullptr) {
        Wait();
    }
}

void Stage::Step() {
    m_timer.reset();
    if (m_smoother.IsThere()) {
        return;
    }
    m_smoother.Next();
    Write();
    if (!m_smoother.IsThere()) {
        Wait();
    }
}

/** Before the first step, too: it would follow the last step of the gain before at once. */
void Stage::Wait() {
    m_timer = m_server.Loop().After(Smoother::PERIOD, [this] { Step(); });
}

/** Sends one volume at a time: a server that is slow gets the last one, not all of them. */
void Stage::Write() {
    m_isBehind = m_unanswered > 0;
    if (m_isBehind) {
        return;
    }
    const Volumes volumes(m_channels, VolumeOfAmplitude(m_smoother.Present()));
    ++m_unanswered;
    m_server.SetStreamVolumes(m_stream, volumes, [this, stream = m_stream](bool /*hasSucceeded*/) {
        if (stream != m_stream) {
            return;
        }
        m_unanswered = 0;
        if (m_isBehind) {
            Write();
        } else if (m_isComing) {
            m_isComing = false;
            m_settings.whenChanged();
        }
    });
}

void Stage::Forget() {
    m_module.Forget();
    m_stream = NO_INDEX;
    m_timer.reset();
    m_smoother.Finish();
    m_unanswered = 0;
    m_isComing = false;
    m_isMoving = false;
}

}  // namespace sound
