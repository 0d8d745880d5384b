// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_CALLWATCH_H
#define KAVRELCTL_CALLWATCH_H

#include <gio/gio.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Call.h"
#include "GLibPtr.h"
#include "KavrelClient.h"
#include "MainLoop.h"

namespace ctl {

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
    CallWatch(tools::MainLoop& loop, const tools::KavrelClient& client, tools::KavrelClient::Timeout timeout,
              Seen seen);
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

private:
    struct Inbox;
    struct Message;
    /** Unique name of the caller, serial of the call. */
    using Key = std::pair<std::string, guint32>;
    struct Pending {
        Call call;
        std::int64_t begin;
        tools::GLibPtr<GSource> limit;
    };

    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                                void* inbox);
    void BecomeMonitor();
    void TakeMessages();
    void OnMessage(const Message& message);
    void OnCall(const Message& message);
    void OnReply(const Message& message);
    void OnOwnerChanged(const Message& message);
    void Finish(const Key& key, Call::End end, std::int64_t now);
    const Caller& CallerOf(const std::string& name);

    tools::MainLoop& m_loop;
    const tools::KavrelClient& m_client;
    const tools::KavrelClient::Timeout m_timeout;
    const Seen m_seen;
    const std::string m_ownName;
    tools::GLibPtr<GDBusConnection> m_connection;
    std::shared_ptr<Inbox> m_inbox;
    tools::GLibPtr<GSource> m_mail;
    guint m_filter = 0;
    gulong m_closed = 0;
    std::map<Key, Pending> m_pending;
    std::map<std::string, Caller> m_callers;
};

}  // namespace ctl

#endif
