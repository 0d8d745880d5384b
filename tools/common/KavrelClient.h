// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_KAVRELCLIENT_H
#define KAVREL_TOOLS_KAVRELCLIENT_H

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Deadline.h"
#include "Errors.h"
#include "GLibPtr.h"
#include "MainLoop.h"

namespace tools {

inline constexpr const char* KAVREL_NAME = "org.olvane.kavrel";
inline constexpr const char* KAVREL_INTERFACE = "org.olvane.kavrel";
/** Object path of the daemon's methods and of its change signals. */
inline constexpr const char* KAVREL_PATH = "/Org/Olvane/KavrelInternal";
/** Object path of the signals that the daemon listens to, and of its requests to change the output. */
inline constexpr const char* KAVREL_SIGNAL_PATH = "/Org/Olvane/Kavrel";

/** Statuses of the daemon. */
inline constexpr int FAILED_OR_BUSY = -1;
inline constexpr int NOT_SUPPORTED = -4;

/** Lists the abilities of the output in use: "read volume", "set volume", ... */
std::vector<std::string> SupportWords(int support);
/** "0x000f" */
std::string SupportInHex(int support);
/** "read volume, set volume; not: read mute, set mute (0x0003)". */
std::string SupportInWords(int support);
/** "failed or busy (-1)", "platform error (-1002)"; "done (0)" from 0 on. */
std::string StatusInWords(int status);

/** A client gives up when the daemon is busy (status -1), or when bus or daemon have too much to do; or it tries
 *  again a few times, for less than half a second in all. */
enum class WhenBusy { GIVE_UP, TRY_AGAIN };

/** The answer of a getter: the value is valid if the status is not below 0. */
struct Reading {
    int value = 0;
    int status = 0;
};

/** The addressee of a method call. */
struct Destination {
    const char* name;
    const char* path;
    const char* interface;
};

/**
 * A client of the daemon, over a connection of its own to the bus that GLib takes for the system bus
 * (DBUS_SYSTEM_BUS_ADDRESS). Every wait ends after the timeout, and no call starts the
 * daemon. The default main context runs the callbacks, and none of them after the object's end.
 */
class KavrelClient {
public:
    /** @param timeout of each call
     *  @throws ToolError if there is no bus, or it does not answer in time */
    explicit KavrelClient(Timeout timeout, WhenBusy whenBusy = WhenBusy::GIVE_UP);
    ~KavrelClient();
    KavrelClient(const KavrelClient&) = delete;
    KavrelClient& operator=(const KavrelClient&) = delete;

    GDBusConnection* Connection() const { return m_connection.get(); }

    /** Consumes floating arguments. @return null and sets the error without an answer */
    Variant Call(const Destination& to, const char* method, GVariant* arguments, const char* replyType,
                 GError** error) const;

    /** Calls a getter, which answers "(ii)". @throws ToolError without an answer */
    Reading Read(const char* method) const;
    /** Calls a method that answers "(i)", its status. Consumes floating arguments.
     *  @throws ToolError without an answer */
    int Command(const char* method, GVariant* arguments) const;

    /** Calls a getter without waiting; the callback gets the answer, or the error if there is none. */
    using Answered = std::function<void(const Reading&, const std::optional<ToolError>&)>;
    void ReadLater(const char* method, Answered answered);

    /** Sends the daemon one of the signals that it listens to; when it returns, the bus has passed the signal on.
     *  The signal goes to the daemon alone, because a bus drops a broadcast that it does not allow in silence.
     *  Consumes floating arguments.
     *  @throws ToolError if nobody owns the daemon's name, or the bus refuses the signal */
    void Emit(const char* signal, GVariant* arguments) const;

    /** The unique name of the owner of the daemon's name; empty if there is none.
     *  @throws ToolError without a bus */
    std::string Owner() const;
    /** Returns the unique name of the owner, too. @throws ToolError without a bus or an owner */
    std::string RequireOwner() const;
    /** Makes this connection the owner of another name. @throws ToolError if the bus does not allow it, or another
     *  program owns the name */
    void OwnName(const std::string& name) const;
    /** Process id of a connection to the bus; nothing if it has gone. */
    std::optional<unsigned> ProcessOf(const std::string& name) const;

    /** Calls back with each signal of the daemon's interface, from every sender, until the object's end. */
    using Heard = std::function<void(const std::string& sender, const std::string& signal, GVariant* body)>;
    void OnSignal(Heard heard);
    /** Calls back when the owner of the daemon's name changes, with the new one: empty if there is none. */
    using Changed = std::function<void(const std::string& owner)>;
    void OnOwnerChanged(Changed changed);
    /** Makes the loop end with a ToolError when the bus closes the connection. */
    void EndWithBus(MainLoop& loop);

private:
    struct LateAnswer;
    void Ask(std::unique_ptr<LateAnswer> late);
    /** Makes an attempt, and further ones while the client tries again. @throws ToolError without an answer */
    Variant Try(const std::function<Variant(GError** error)>& attempt) const;
    /** Calls a method of the daemon. @throws ToolError without an answer */
    Variant CallDaemon(const char* method, GVariant* arguments, const char* replyType) const;
    /** Sends the daemon a signal. @return the answer of the bus to a question sent behind it; null and the error
     *  if the bus refused the signal, or did not answer */
    Variant Send(const char* signal, GVariant* body, GError** error) const;
    void Subscribe(const char* sender, const char* interface, const char* signal, const char* name,
                   GDBusSignalCallback callback);
    int Milliseconds() const;

    const Timeout m_timeout;
    /** The pauses before the further attempts. */
    const std::span<const std::chrono::milliseconds> m_pauses;
    GLibPtr<GDBusConnection> m_connection;
    GLibPtr<GCancellable> m_cancellable;
    int m_unanswered = 0;
    std::vector<guint> m_subscriptions;
    gulong m_closed = 0;
    Heard m_heard;
    Changed m_changed;
};

}  // namespace tools

#endif
