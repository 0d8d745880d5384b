// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_BRIDGE_H
#define KAVREL_SOUND_BRIDGE_H

#include <DirectoryWatch.h>
#include <Player.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Device.h"
#include "Outputs.h"
#include "OwnModule.h"
#include "Server.h"
#include "Settings.h"
#include "SinkWriter.h"
#include "Stage.h"

namespace sound {

/**
 * Plays the TV in the open TV directory on a sound server, until the loop ends:
 *
 *     programs -> sink "kavrel" -> stage "kavrel-main": its volume is the main gain -> sink of the output in use
 *                               \-> stage "kavrel-sub": its volume is the sub gain  -> sink of the sub output
 *
 * Every change of the server leads to a look at all that it holds, and every look to one step that makes what is
 * missing, removes what is too much, and settles every difference between the TV directory and the server.
 */
class Bridge {
public:
    /** @throws tools::ToolError if the directory cannot be watched or written */
    Bridge(Server& server, const std::string& directory, const Settings& settings, Claim& claim);

private:
    void EndWithoutTv() const;
    void OnTv(tv::DirectoryWatch::Event event, const std::string& path);
    void OnReady();
    void OnGone(const std::string& reason);
    void OnChange(Change change, Index index);

    void Look();
    void OnLook(Snapshot&& snapshot);
    void Settle();

    void ReadRoute();
    void SetGains();
    bool IsMuted(const std::string& sink) const;
    void Answer(bool isLevel);
    Device& DeviceOf(const tv::DeviceKind* kind);
    Sink* SinkOf(const tv::DeviceKind* kind);
    void FollowPrograms(const Sink& kavrel);
    bool IsOwn(const Stream& stream) const;
    void Guard(const Sink& kavrel, bool isNeeded);
    void SayThatItPlays();
    void SayWhatIsMissing();
    std::string OutputSink() const;

    Server& m_server;
    const std::string m_directory;
    const Settings m_settings;
    Claim& m_claim;
    const Outputs m_outputs;
    tv::DirectoryWatch m_watch;
    tv::Player m_player;
    SinkWriter m_writer;
    OwnModule m_kavrel;
    Stage m_main;
    Stage m_sub;
    std::vector<std::unique_ptr<Device>> m_devices;  // the TV's own outputs first

    std::optional<int> m_route;  // of the output in use, as last read
    Snapshot m_snapshot;
    bool m_isLooking = false;
    bool m_isStale = false;       // something has changed since the look began
    bool m_hasSaid = false;       // that it plays, on this connection
    bool m_isDefaultSet = false;  // on this connection
    Index m_kavrelSink = NO_INDEX;
    std::set<Index> m_programs;       // streams that play on "kavrel", or did until it went
    std::set<std::string> m_missing;  // sinks that were said to be missing
};

}  // namespace sound

#endif
