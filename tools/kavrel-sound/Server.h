// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The sound server: the connection to it, what it holds, and what it can be asked to do. */
#ifndef KAVREL_SOUND_SERVER_H
#define KAVREL_SOUND_SERVER_H

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "MainLoop.h"
#include "PulsePtr.h"

namespace sound {

using Index = std::uint32_t;  // of a sink, a stream or a module; PA_INVALID_INDEX: none

struct Sink {
    Index index;
    std::string name;
    std::string description;
    pa_cvolume volume;
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
    pa_cvolume volume;
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

class Server {
public:
    /** @param facility, type of the change: PA_SUBSCRIPTION_EVENT_... */
    using OnChange = std::function<void(int facility, int type, Index index)>;
    using Done = std::function<void(bool hasSucceeded)>;

    struct Handlers {
        std::function<void()> whenReady;
        /** After it was ready, or at the first attempt that fails. */
        std::function<void(const std::string& reason)> whenGone;
        OnChange whenChanged;  // may be empty
    };

    /** @param name the server's; empty: the one that libpulse finds */
    Server(tools::MainLoop& loop, std::string name, Handlers handlers);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /** Tries until it is connected, at once and then after 0.1 to 2 seconds; again when the server goes. */
    void Connect();
    bool IsReady() const { return m_isReady; }
    tools::MainLoop& Loop() { return m_loop; }
    pa_context* Context() { return m_context.get(); }

    // Each of these does nothing without a server, and does not call back if the server goes meanwhile.

    /** Asks for everything. */
    void Look(std::function<void(Snapshot&&)> done);
    void Load(const std::string& module, const std::string& arguments,
              std::function<void(Index module)> done);
    void Unload(Index module, Done done = {});
    void SetSinkVolume(Index sink, const pa_cvolume& volume, Done done);
    void SetSinkMute(Index sink, bool isMuted, Done done);
    void SetStreamVolume(Index stream, const pa_cvolume& volume, Done done);
    void SetStreamMute(Index stream, bool isMuted, Done done = {});
    void MoveStream(Index stream, Index sink, Done done = {});
    void SetDefaultSink(const std::string& sink, Done done = {});

private:
    /** A question to the server. It ends with its last answer, or when the server goes. */
    struct Request {
        Server* server = nullptr;
        PulsePtr<pa_operation> operation = nullptr;
        virtual ~Request() = default;
    };
    template <typename Info>
    struct ListRequest;
    struct DoneRequest;
    struct LoadRequest;

    void Attempt();
    void OnState();
    void Leave();
    void End(const Request& request);
    void Keep(std::unique_ptr<Request> request, pa_operation* operation);
    template <typename Info>
    void List(pa_operation* (*ask)(pa_context*, void (*)(pa_context*, const Info*, int, void*), void*),
              std::function<void(const Info&)> each, const std::function<void()>& done);
    /** @param ask makes the operation, with the callback and its argument */
    void Do(const std::function<pa_operation*(pa_context_success_cb_t, void*)>& ask, Done done);
    static void OnServerInfo(pa_context* context, const pa_server_info* info, void* request);

    tools::MainLoop& m_loop;
    const std::string m_name;
    const Handlers m_handlers;
    PulsePtr<pa_glib_mainloop> m_glib;
    PulsePtr<pa_context> m_context;
    std::list<std::unique_ptr<Request>> m_requests;
    bool m_isReady = false;
    bool m_hasComplained = false;
    std::chrono::milliseconds m_delay;
    tools::GLibPtr<GSource> m_retry;
};

}  // namespace sound

#endif
