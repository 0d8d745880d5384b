// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The sound server: what it holds, what it can be asked to do, and which changes it announces. */
#ifndef KAVREL_SOUND_SERVER_H
#define KAVREL_SOUND_SERVER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "MainLoop.h"
#include "Mapping.h"

namespace sound {

using Index = std::uint32_t;  // of a sink, a stream or a module
inline constexpr Index NO_INDEX = UINT32_MAX;

struct Sink {
    Index index;
    std::string name;
    std::string description;
    Volumes volumes;
    bool isMuted;
    Index module;  // that made it
};

/** A program's sound on its way to a sink. */
struct Stream {
    Index index;
    std::string name;
    Index sink;
    Index module;  // that made it, if it was not a program
    bool isMuted;
    Volumes volumes;
};

struct Module {
    Index index;
    std::string name;
    std::string arguments;
};

/** All that the server held when it was asked. */
struct Snapshot {
    std::string server;  // name and version
    std::string defaultSink;
    std::vector<Stream> streams;
    std::vector<Sink> sinks;
    std::vector<Module> modules;

    /** @return null if there is none */
    const Sink* FindSink(const std::string& name) const;
    const Sink* FindSink(Index index) const;
    Sink* FindSink(Index index);

    /** PipeWire 0.3.65 now and then leaves a loopback silent that it has moved to another sink. */
    bool MayLoseMovedSound() const { return server.find("PipeWire") != std::string::npos; }
};

/** The changes that the bridge handles in a way of its own; after each OTHER one it only looks at the server. */
enum class Change { SINK_REMOVED, STREAM_CHANGED, OTHER };

/** A connection to the server. The unit tests have one of their own. */
class Server {
public:
    using Done = std::function<void(bool hasSucceeded)>;

    struct Handlers {
        std::function<void()> whenReady;
        /** After it was ready, or at the first attempt that fails. */
        std::function<void(const std::string& reason)> whenGone;
        /** May be empty. @param index of the sink, stream or module that has changed */
        std::function<void(Change change, Index index)> whenChanged;
    };

    explicit Server(tools::MainLoop& loop) : m_loop(loop) {}
    virtual ~Server() = default;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    tools::MainLoop& Loop() { return m_loop; }

    /** Tries until it is connected, at once and then after 0.1 to 2 seconds; again when the server goes. What the
     * handlers and later callbacks use must live as long as the loop runs: the server outlives the bridge. */
    virtual void Connect(Handlers handlers) = 0;
    virtual bool IsReady() const = 0;

    // Each of these does nothing without a server, and does not call back if the server goes meanwhile.

    /** Asks for everything. */
    virtual void Look(std::function<void(Snapshot&&)> done) = 0;
    /** @param done gets NO_INDEX after a failure */
    virtual void Load(const std::string& module, const std::string& arguments,
                      std::function<void(Index module)> done) = 0;

    // The callbacks of these may be empty.

    virtual void Unload(Index module, Done done) = 0;
    virtual void SetSinkVolumes(Index sink, const Volumes& volumes, Done done) = 0;
    virtual void SetSinkMute(Index sink, bool isMuted, Done done) = 0;
    virtual void SetStreamVolumes(Index stream, const Volumes& volumes, Done done) = 0;
    virtual void SetStreamMute(Index stream, bool isMuted, Done done) = 0;
    virtual void MoveStream(Index stream, Index sink, Done done) = 0;
    virtual void SetDefaultSink(const std::string& sink, Done done) = 0;

private:
    tools::MainLoop& m_loop;
};

}  // namespace sound

#endif
