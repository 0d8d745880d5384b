// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVMESSAGEFILTER_H
#define KVMESSAGEFILTER_H

#include <gio/gio.h>

#include <memory>

namespace NKavrel {

/**
 * Refuses messages that could exhaust the process, before they wait for the main loop.
 *
 * GDBus reads messages faster than the main loop serves them, and keeps their file descriptors meanwhile. So
 * the filter looks at each message where it arrives, on GDBus's own thread:
 * - No message may carry file descriptors. A reply loses them, every other message is refused.
 * - At most 64 getter calls of one sender wait, and 256 of all senders together. A sender of which nothing
 *   waits is always admitted.
 * - At most 16,384 other messages for the handlers wait of one sender.
 * - Calls of GetAll (properties), which GDBus answers on the main loop, too, have bounds of their own: those of the
 *   getters.
 * - A call that no handler gets and that asks for no reply is refused, because GDBus would answer it.
 *
 * A refused call is answered LimitsExceeded, unless it asked for no reply; a refused signal is dropped. Replies,
 * the bus's own messages, and all other calls that GDBus answers itself pass uncounted.
 *
 * The filter never waits and logs nothing, and no function of this class is traced.
 */
class KVMessageFilter {
public:
    /** Keeps a message counted while it exists. Null for a message that no filter counted. */
    using Waiting = std::shared_ptr<void>;

    /** @param interface the methods and their arguments; copied
     *  @param methodPath object path of the methods
     *  @param signalPath object path of the signals that the daemon receives */
    KVMessageFilter(GDBusConnection* connection, const GDBusInterfaceInfo& interface, const char* methodPath,
                    const char* signalPath);
    /** Messages that wait at this moment stay counted until they are gone. */
    ~KVMessageFilter();
    KVMessageFilter(const KVMessageFilter&) = delete;
    KVMessageFilter& operator=(const KVMessageFilter&) = delete;

    bool IsOn(const GDBusConnection* connection) const { return m_connection.get() == connection; }
    /**
     * For a handler: the message whose arguments it has got. The message counts as long as a copy of the
     * result exists.
     * @param arguments compared by address; may be null
     */
    Waiting Take(const GVariant* arguments);

private:
    class Counts;
    class Ticket;
    struct Unref {
        void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    };

    static GDBusMessage* OnMessage(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                   gpointer userData);

    const std::unique_ptr<GDBusConnection, Unref> m_connection;
    /** Also belongs to the registered filter function, which may run a last time after its removal. */
    const std::shared_ptr<Counts> m_counts;
    const guint m_id;
};

}  // namespace NKavrel

#endif
