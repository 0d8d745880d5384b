// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "PulseServer.h"

#include <algorithm>
#include <utility>

namespace sound {

namespace {

constexpr std::chrono::milliseconds FIRST_DELAY{100};
constexpr std::chrono::milliseconds LONGEST_DELAY{2000};

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

static_assert(FULL_VOLUME == PA_VOLUME_NORM && NO_INDEX == PA_INVALID_INDEX);

Volumes ToVolumes(const pa_cvolume& volume) {
    return {volume.values, volume.values + volume.channels};
}

pa_cvolume ToPulse(const Volumes& volumes) {
    pa_cvolume volume;
    pa_cvolume_init(&volume);
    volume.channels = static_cast<std::uint8_t>(std::min<std::size_t>(volumes.size(), PA_CHANNELS_MAX));
    std::copy_n(volumes.begin(), volume.channels, volume.values);
    return volume;
}

Sink ToSink(const pa_sink_info& info) {
    return {info.index,     Text(info.name),  Text(info.description), ToVolumes(info.volume),
            info.mute != 0, info.owner_module};
}

Stream ToStream(const pa_sink_input_info& info) {
    return {info.index,        Text(info.name), info.sink,
            info.owner_module, info.mute != 0,  ToVolumes(info.volume)};
}

Module ToModule(const pa_module_info& info) {
    return {info.index, Text(info.name), Text(info.argument)};
}

Change ToChange(pa_subscription_event_type_t event) {
    const int facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const int type = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SINK && type == PA_SUBSCRIPTION_EVENT_REMOVE) {
        return Change::SINK_REMOVED;
    }
    if (facility == PA_SUBSCRIPTION_EVENT_SINK_INPUT && type == PA_SUBSCRIPTION_EVENT_CHANGE) {
        return Change::STREAM_CHANGED;
    }
    return Change::OTHER;
}

}  // namespace

// --- Requests

template <typename Info>
struct PulseServer::ListRequest : Request {
    std::function<void(const Info&)> each;
    std::function<void()> done;

    /** @param isLast above 0 at the end of the list, below 0 after a failure */
    static void Answer(pa_context* /*context*/, const Info* info, int isLast, void* data) {
        auto* request = static_cast<ListRequest*>(data);
        PulseServer& server = *request->server;
        if (isLast == 0) {
            server.Loop().Guard([&] { request->each(*info); });
            return;
        }
        const auto done = std::move(request->done);
        server.End(*request);
        server.Loop().Guard(done);
    }
};

struct PulseServer::DoneRequest : Request {
    Done done;

    static void Answer(pa_context* /*context*/, int hasSucceeded, void* data) {
        auto* request = static_cast<DoneRequest*>(data);
        PulseServer& server = *request->server;
        const auto done = std::move(request->done);
        server.End(*request);
        if (done) {
            server.Loop().Guard([&] { done(hasSucceeded != 0); });
        }
    }
};

struct PulseServer::LoadRequest : Request {
    std::function<void(Index)> done;

    static void Answer(pa_context* /*context*/, Index module, void* data) {
        auto* request = static_cast<LoadRequest*>(data);
        PulseServer& server = *request->server;
        const auto done = std::move(request->done);
        server.End(*request);
        server.Loop().Guard([&] { done(module); });
    }
};

void PulseServer::Keep(std::unique_ptr<Request> request, pa_operation* operation) {
    if (operation != nullptr) {
        request->operation.reset(operation);
        m_requests.push_back(std::move(request));
    }
}

void PulseServer::End(const Request& request) {
    m_requests.remove_if([&](const auto& kept) { return kept.get() == &request; });
}

template <typename Info>
void PulseServer::List(pa_operation* (*ask)(pa_context*, void (*)(pa_context*, const Info*, int, void*),
                                            void*),
                       std::function<void(const Info&)> each, const std::function<void()>& done) {
    auto request = std::make_unique<ListRequest<Info>>();
    request->server = this;
    request->each = std::move(each);
    request->done = done;
    auto* const data = request.get();
    Keep(std::move(request), ask(m_context.get(), ListRequest<Info>::Answer, data));
}

void PulseServer::Do(const std::function<pa_operation*(pa_context_success_cb_t, void*)>& ask, Done done) {
    if (!m_isReady) {
        return;
    }
    auto request = std::make_unique<DoneRequest>();
    request->server = this;
    request->done = std::move(done);
    auto* const data = request.get();
    Keep(std::move(request), ask(DoneRequest::Answer, data));
}

// --- Questions

/** @param info null after a failure */
void PulseServer::OnServerInfo(pa_context* context, const pa_server_info* info, void* request) {
    if (info != nullptr) {
        ListRequest<pa_server_info>::Answer(context, info, 0, request);
    }
    ListRequest<pa_server_info>::Answer(context, info, 1, request);
}

/** The server answers in order. The streams come before the sinks: so a stream that was moved away from a sink that
 * was removed is never seen beside that sink. */
void PulseServer::Look(std::function<void(Snapshot&&)> done) {
    if (!m_isReady) {
        return;
    }
    const auto snapshot = std::make_shared<Snapshot>();
    auto info = std::make_unique<ListRequest<pa_server_info>>();
    info->server = this;
    info->each = [snapshot](const pa_server_info& server) {
        snapshot->server = Text(server.server_name) + " " + Text(server.server_version);
        snapshot->defaultSink = Text(server.default_sink_name);
    };
    info->done = [] {};
    auto* const data = info.get();
    Keep(std::move(info), pa_context_get_server_info(m_context.get(), OnServerInfo, data));
    List<pa_sink_input_info>(
        pa_context_get_sink_input_info_list,
        [snapshot](const auto& stream) { snapshot->streams.push_back(ToStream(stream)); }, [] {});
    List<pa_sink_info>(
        pa_context_get_sink_info_list,
        [snapshot](const auto& sink) { snapshot->sinks.push_back(ToSink(sink)); }, [] {});
    List<pa_module_info>(
        pa_context_get_module_info_list,
        [snapshot](const auto& module) { snapshot->modules.push_back(ToModule(module)); },
        [snapshot, done = std::move(done)] { done(std::move(*snapshot)); });
}

void PulseServer::Load(const std::string& module, const std::string& arguments,
                       std::function<void(Index)> done) {
    if (!m_isReady) {
        return;
    }
    auto request = std::make_unique<LoadRequest>();
    request->server = this;
    request->done = std::move(done);
    auto* const data = request.get();
    Keep(std::move(request), pa_context_load_module(m_context.get(), module.c_str(), arguments.c_str(),
                                                    LoadRequest::Answer, data));
}

void PulseServer::Unload(Index module, Done done) {
    Do([&](auto answer,
           void* data) { return pa_context_unload_module(m_context.get(), module, answer, data); },
       std::move(done));
}

void PulseServer::SetSinkVolumes(Index sink, const Volumes& volumes, Done done) {
    const pa_cvolume volume = ToPulse(volumes);
    Do(
        [&](auto answer, void* data) {
            return pa_context_set_sink_volume_by_index(m_context.get(), sink, &volume, answer, data);
        },
        std::move(done));
}

void PulseServer::SetSinkMute(Index sink, bool isMuted, Done done) {
    Do(
        [&](auto answer, void* data) {
            return pa_context_set_sink_mute_by_index(m_context.get(), sink, isMuted ? 1 : 0, answer, data);
        },
        std::move(done));
}

void PulseServer::SetStreamVolumes(Index stream, const Volumes& volumes, Done done) {
    const pa_cvolume volume = ToPulse(volumes);
    Do(
        [&](auto answer, void* data) {
            return pa_context_set_sink_input_volume(m_context.get(), stream, &volume, answer, data);
        },
        std::move(done));
}

void PulseServer::SetStreamMute(Index stream, bool isMuted, Done done) {
    Do(
        [&](auto answer, void* data) {
            return pa_context_set_sink_input_mute(m_context.get(), stream, isMuted ? 1 : 0, answer, data);
        },
        std::move(done));
}

void PulseServer::MoveStream(Index stream, Index sink, Done done) {
    Do(
        [&](auto answer, void* data) {
            return pa_context_move_sink_input_by_index(m_context.get(), stream, sink, answer, data);
        },
        std::move(done));
}

void PulseServer::SetDefaultSink(const std::string& sink, Done done) {
    Do([&](auto answer,
           void* data) { return pa_context_set_default_sink(m_context.get(), sink.c_str(), answer, data); },
       std::move(done));
}

// --- The connection

PulseServer::PulseServer(tools::MainLoop& loop, std::string name)
    : Server(loop), m_name(std::move(name)), m_glib(pa_glib_mainloop_new(nullptr)), m_delay(FIRST_DELAY) {}

PulseServer::~PulseServer() {
    Leave();
}

void PulseServer::Connect(Handlers handlers) {
    m_handlers = std::move(handlers);
    m_delay = FIRST_DELAY;
    m_hasComplained = false;
    Attempt();
}

void PulseServer::Attempt() {
    Leave();
    m_context.reset(pa_context_new(pa_glib_mainloop_get_api(m_glib.get()), "kavrel-sound"));
    const auto onState = [](pa_context* /*context*/, void* server) {
        static_cast<PulseServer*>(server)->OnState();
    };
    const auto onChange = [](pa_context* /*context*/, pa_subscription_event_type_t event, Index index,
                             void* data) {
        auto* server = static_cast<PulseServer*>(data);
        server->Loop().Guard([=] { server->m_handlers.whenChanged(ToChange(event), index); });
    };
    pa_context_set_state_callback(m_context.get(), onState, this);
    if (m_handlers.whenChanged) {
        pa_context_set_subscribe_callback(m_context.get(), onChange, this);
    }
    const char* const name = m_name.empty() ? nullptr : m_name.c_str();
    pa_context_connect(m_context.get(), name, PA_CONTEXT_NOAUTOSPAWN, nullptr);
}

void PulseServer::OnState() {
    const pa_context_state_t state = pa_context_get_state(m_context.get());
    if (state == PA_CONTEXT_READY) {
        m_isReady = true;
        m_hasComplained = false;
        m_delay = FIRST_DELAY;
        if (m_handlers.whenChanged) {
            const auto mask = static_cast<pa_subscription_mask_t>(
                PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT |
                PA_SUBSCRIPTION_MASK_MODULE);
            Do([&](auto answer,
                   void* data) { return pa_context_subscribe(m_context.get(), mask, answer, data); },
               {});
        }
        Loop().Guard(m_handlers.whenReady);
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        m_isReady = false;
        m_requests.clear();
        const std::string reason = pa_strerror(pa_context_errno(m_context.get()));
        m_retry = Loop().After(m_delay, [this] { Attempt(); });
        m_delay = std::min(m_delay * 2, LONGEST_DELAY);
        if (!std::exchange(m_hasComplained, true)) {
            Loop().Guard([&] { m_handlers.whenGone(reason); });
        }
    }
}

void PulseServer::Leave() {
    m_isReady = false;
    m_requests.clear();
    m_context.reset();
}

}  // namespace sound
