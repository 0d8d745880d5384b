// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_CALLWATCH_H
#define KAVRELCTL_CALLWATCH_H

#include <gio/gio.h>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Caller.h"
#include "GLibPtr.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "Print.h"

namespace ctl {

/** One method call to the daemon, with its end. */
struct Call {
    tools::WallTime time = 0;
    Caller caller;
    std::string interface;
    std::string method;
    /** A tuple; null without arguments. */
    tools::Variant arguments;

    enum class End { ANSWERED, REFUSED, NO_REPLY_WANTED, NO_ANSWER } end = End::NO_ANSWER;
    /** The answer's tuple; null without values. */
    tools::Variant answer;
    /** Name of the D-Bus error, if the call was refused. */
    std::string error;
    /** Microseconds from the time the bus passed the call to the time it passed the answer. */
    std::int64_t duration = 0;
};

/** "SetSpeakerVolume(30) -> 0, 0.4 ms, by kavrelctl volume 30 (pid 4711)". */
std::string InWords(const Call& call);
/** Returns the call as fields of a JSON object; an unknown one is null. */
Json::Value InJson(const Call& call);

/**
 * Sees every method call to the daemon through the bus's monitoring interface, over a connection of its own
 * that can do nothing else. It looks a caller up as soon as the caller joins the bus: many callers leave right
 * after their call.
 */
class CallWatch {
public:
    using Seen = std::function<void(const Call&)>;

    /** Watches from now on, but leaves out the calls of `client`, with which it looks callers up.
     *  @param seen called on the main loop when a call has ended, or had no answer within the timeout
     *  @throws tools::ToolError if there is no bus or it does not allow monitoring; the loop ends with one when
     *  the bus closes the connection */
    CallWatch(tools::MainLoop& loop, const tools::KavrelClient& client, tools::Timeout timeout, Seen seen);
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

private:
    struct Message;
    /** Unique name of the caller, serial of the call. */
    using Key = std::pair<std::string, guint32>;
    struct Pending {
        Call call;
        std::int64_t begin;
        tools::GLibPtr<GSource> limit;
    };

    guint AddFilter();
    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                void* watch);
    static gboolean Receive(void* data);
    void OnMessage(const Message& message);
    void OnCall(const Message& message);
    void OnReply(const Message& message);
    void OnOwnerChanged(const Message& message);
    void Finish(const Key& key, Call::End end, std::int64_t now);
    const Caller& CallerOf(const std::string& name);

    tools::MainLoop& m_loop;
    const tools::KavrelClient& m_client;
    const tools::Timeout m_timeout;
    const Seen m_seen;
    tools::KavrelClient m_monitor;
    const std::shared_ptr<CallWatch*> m_self;
    const guint m_filter;
    std::map<Key, Pending> m_pending;
    std::map<std::string, Caller> m_callers;
};

}  // namespace ctl

#endif
