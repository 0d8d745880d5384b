// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_SINKWRITER_H
#define KAVREL_SOUND_SINKWRITER_H

#include <functional>
#include <map>
#include <string>

#include "Server.h"

namespace sound {

/**
 * Sets level and mute of sinks, and remembers what the server has not confirmed: until then an answer to an older
 * question would show the value before.
 */
class SinkWriter {
public:
    /** @param whenAnswered called when the server has confirmed or refused all that was set on a sink */
    SinkWriter(Server& server, std::function<void()> whenAnswered);

    /** Sets the loudest channel; the others follow, so that the balance stays. The sink holds the new volumes at once.
     *  @param level 0 to 100 */
    void SetLevel(Sink& sink, int level);
    void SetMute(Sink& sink, bool isMuted);

    /** A look begins, of which Amend() gets the answer. */
    void BeginLook() { m_look = m_writes; }
    /** Puts the values that were set since the look began, or are not confirmed yet, into its answer. */
    void Amend(Snapshot& answer, const Snapshot& before);

    /** The connection has gone. */
    void Forget();

private:
    struct Written {
        int unanswered = 0;
        unsigned last = 0;  // number of the last write
        Volumes balance;    // the last ones that were not silent; empty: there were none
    };

    Server::Done Noted(const Sink& sink);

    Server& m_server;
    const std::function<void()> m_whenAnswered;
    std::map<Index, Written> m_written;  // by sink
    unsigned m_writes = 0;
    unsigned m_look = 0;  // the number of writes when it began
};

}  // namespace sound

#endif
