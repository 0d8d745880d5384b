// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_PULSESERVER_H
#define KAVREL_SOUND_PULSESERVER_H

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "GLibPtr.h"
#include "PulsePtr.h"
#include "Server.h"

namespace sound {

/** The server that libpulse connects to: PulseAudio, or PipeWire in its place. */
class PulseServer final : public Server {
public:
    /** @param name the server's; empty: the one that libpulse finds */
    PulseServer(tools::MainLoop& loop, std::string name);
    ~PulseServer() override;
    PulseServer(const PulseServer&) = delete;
    PulseServer& operator=(const PulseServer&) = delete;

    pa_context* Context() { return m_context.get(); }

    void Connect(Handlers handlers) override;
    bool IsReady() const override { return m_isReady; }

    void Look(std::function<void(Snapshot&&)> done) override;
    void Load(const std::string& module, const std::string& arguments,
              std::function<void(Index module)> done) override;
    void Unload(Index module, Done done) override;
    void SetSinkVolumes(Index sink, const Volumes& volumes, Done done) override;
    void SetSinkMute(Index sink, bool isMuted, Done done) override;
    void SetStreamVolumes(Index stream, const Volumes& volumes, Done done) override;
    void SetStreamMute(Index stream, bool isMuted, Done done) override;
    void MoveStream(Index stream, Index sink, Done done) override;
    void SetDefaultSink(const std::string& sink, Done done) override;

private:
    /** A question to the server. It ends with its last answer, or when the server goes. */
    struct Request {
        PulseServer* server = nullptr;
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

    const std::string m_name;
    Handlers m_handlers;
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
