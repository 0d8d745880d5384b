// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_STAGE_H
#define KAVREL_SOUND_STAGE_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "OwnModule.h"
#include "Server.h"
#include "Smoother.h"

namespace sound {

struct StageSettings {
    std::string name;                   // of its stream
    int latency;                        // milliseconds
    bool isSmooth;                      // whether a gain changes in small steps
    std::function<void()> whenChanged;  // the server holds something else now
};

/** A loopback from the sink "kavrel" to the sink of an output. The volume of its stream is a gain of the TV. */
class Stage {
public:
    Stage(Server& server, const StageSettings& settings);

    /** Makes the stage play on the sink, and nowhere else.
     *  @param sink null: there must be no stage, since the server would let it play anywhere */
    void Follow(const Snapshot& snapshot, const Sink* sink);
    /** Silences the stage before the server moves it, if it plays on this sink, which has gone. */
    void Leave(Index sink);

    /** @param gain in percent
     *  @param isMuted whether the sink is: then a fall, which nobody hears, goes to silence at once and rises from
     *      there, so that an unmute after it begins with silence */
    void SetGain(int gain, bool isMuted);

    /** Whether it plays on the sink that it follows, or has none to follow. */
    bool IsSettled() const { return !m_isComing; }
    /** Whether the server may let sound through the stage before its gain is in force, once it follows the sink. */
    bool WillAppear(const Snapshot& snapshot, const Sink* sink) const;
    /** Whether this is the stage's stream, and its volume on the way to the gain. */
    bool IsChanging(Index stream) const;
    /** The connection has gone. */
    void Forget();

private:
    void Adopt(const Stream& stream);
    void Replace(const Stream& stream);
    void Move(Index sink);
    bool IsAsSet(const Volumes& volumes) const;
    void Step();
    void Wait();
    void Write();

    Server& m_server;
    const StageSettings m_settings;
    OwnModule m_module;
    Index m_stream = NO_INDEX;
    Index m_owner = NO_INDEX;  // the stream's module
    Index m_sink = NO_INDEX;   // that the stream plays on
    std::size_t m_channels = 0;
    bool m_isComing = false;  // there, or being made, but the gain is not in force
    bool m_isMoving = false;
    Smoother m_smoother;
    tools::GLibPtr<GSource> m_timer;  // of the next step
    int m_unanswered = 0;             // volumes that the server has not confirmed
    bool m_isBehind = false;          // the amplitude has changed since the last volume was sent
};

}  // namespace sound

#endif
