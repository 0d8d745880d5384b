// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "SinkWriter.h"

#include <utility>

#include "Mapping.h"

namespace sound {

SinkWriter::SinkWriter(Server& server, std::function<void()> whenAnswered)
    : m_server(server), m_whenAnswered(std::move(whenAnswered)) {}

void SinkWriter::SetLevel(Sink& sink, int level) {
    const Written& written = m_written[sink.index];
    const bool isSilent = Loudest(sink.volumes) == 0;
    if (isSilent && written.balance.size() == sink.volumes.size()) {
        sink.volumes = written.balance;
    }
    Scale(sink.volumes, VolumeOfLevel(level));
    m_server.SetSinkVolumes(sink.index, sink.volumes, Noted(sink));
}

void SinkWriter::SetMute(Sink& sink, bool isMuted) {
    sink.isMuted = isMuted;
    m_server.SetSinkMute(sink.index, isMuted, Noted(sink));
}

Server::Done SinkWriter::Noted(const Sink& sink) {
    Written& written = m_written[sink.index];
    ++written.unanswered;
    written.last = ++m_writes;
    return [this, index = sink.index](bool /*hasSucceeded*/) {
        if (--m_written[index].unanswered == 0) {
            m_whenAnswered();
        }
    };
}

void SinkWriter::Amend(Snapshot& answer, const Snapshot& before) {
    for (Sink& sink : answer.sinks) {
        Written& written = m_written[sink.index];
        const Sink* const old = before.FindSink(sink.index);
        if (old != nullptr && (written.unanswered > 0 || written.last > m_look)) {
            sink.volumes = old->volumes;
            sink.isMuted = old->isMuted;
        }
        if (Loudest(sink.volumes) > 0) {
            written.balance = sink.volumes;
        }
    }
    std::erase_if(m_written, [&](const auto& entry) {
        return entry.second.unanswered == 0 && answer.FindSink(entry.first) == nullptr;
    });
}

void SinkWriter::Forget() {
    m_written.clear();
}

}  // namespace sound
