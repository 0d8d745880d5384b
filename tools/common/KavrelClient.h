// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_KAVRELCLIENT_H
#define KAVREL_TOOLS_KAVRELCLIENT_H

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Errors.h"
#include "GLibPtr.h"

namespace tools {

inline constexpr const char* KAVREL_NAME = "org.olvane.kavrel";
inline constexpr const char* KAVREL_INTERFACE = "org.olvane.kavrel";
/** Where its methods are, and where its change signals come from. */
inline constexpr const char* KAVREL_PATH = "/Org/Olvane/KavrelInternal";
/** Where it listens for signals, and where its requests to change the output come from. */
inline constexpr const char* KAVREL_SIGNAL_PATH = "/Org/Olvane/Kavrel";

/** Bits of the support word: what the output in use can do. */
enum Support : int { READ_VOLUME = 1, SET_VOLUME = 2, READ_MUTE = 4, SET_MUTE = 8 };

/** "read volume", "set volume", ... */
std::vector<std::string> SupportWords(int support);
/** "0x000f" */
std::string SupportInHex(int support);
/** "read volume, set volume (0x0003)"; "nothing (0x0000)". */
std::string SupportInWords(int support);
/** "failed or busy (-1)", "platform error (-1002)"; "done (0)" from 0 on. */
std::string StatusInWords(int status);

/** One connection of its own to the bus that GLib takes for the system bus (DBUS_SYSTEM_BUS_ADDRESS).
 *  @param timeout at most; nothing: no limit
 *  @throws ToolError if there is no bus, or it does not answer in time */
GLibPtr<GDBusConnection> ConnectToSystemBus(std::optional<std::chrono::milliseconds> timeout);

/** The answer of a getter: the value counts if the status is not below 0. */
struct Reading {
    int value = 0;
    int status = 0;
};

/**
 * The daemon, over a connection of its own. Whatever waits gives up after the timeout; nothing ever starts
 * the daemon. Callbacks come from the default main context and not after the object's end.
 */
class KavrelClient {
public:
    using Timeout = std::optional<std::chrono::milliseconds>;

    /** @param timeout of each call; nothing: no limit
     *  @throws ToolError if there is no bus, or it does not answer in time */
    explicit KavrelClient(Timeout timeout);
    ~KavrelClient();
    KavrelClient(const KavrelClient&) = delete;
    KavrelClient& operator=(const KavrelClient&) = delete;

    GDBusConnection* Connection() const { return m_connection.get(); }

    /** Calls a getter, "(ii)". @throws ToolError without an answer */
    Reading Read(const char* method) const;
    /** Calls a method that answers "(i)", its status. Consumes floating arguments. @throws ToolError without
     * an answer */
    int Command(const char* method, GVariant* arguments) const;

    /** Calls a getter and goes on; the callback gets the answer, or the error if there is none. */
    using Answered = std::function<void(const Reading&, const std::optional<ToolError>&)>;
    void ReadLater(const char* method, Answered answered);

    /** Broadcasts one of the signals that the daemon listens to, and has handed it to the bus when it
     * returns. Consumes floating arguments. @throws ToolError if nobody owns the daemon's name */
    void Emit(const char* signal, GVariant* arguments) const;

    /** The unique name of who owns the daemon's name; empty if nobody does.
     *  @throws ToolError without a bus */
    std::string Owner() const;
    /** The same. @throws ToolError if nobody does, too */
    std::string RequireOwner() const;
    /** Process id of a connection to the bus; nothing if it has gone. */
    std::optional<unsigned> ProcessOf(const std::string& name) const;

    /** Calls back with each signal of the daemon's interface, whoever sends it, until the object's end. */
    using Heard = std::function<void(const std::string& sender, const std::string& signal, GVariant* body)>;
    void OnSignal(Heard heard);
    /**
     * Calls back when the daemon's name changes hands; empty if
     * nobody owns it now. Not for the present one.
     */
    using Changed = std::function<void(const std::string& owner)>;
    void OnOwnerChanged(Changed changed);
    /** Calls back when the connection to the bus has ended. */
    void OnBusGone(std::function<void()> gone);

private:
    struct LateAnswer;
    Variant Call(const char* name, const char* path, const char* interface, const char* method,
                 GVariant* arguments, const char* replyType) const;
    Variant CallBus(const char* method, GVariant* arguments, const char* replyType) const;
    [[noreturn]] void ThrowAs(const GLibError& failure) const;
    int Milliseconds() const;

    const Timeout m_timeout;
    GLibPtr<GDBusConnection> m_connection;
    GLibPtr<GCancellable> m_cancellable;
    int m_unanswered = 0;
    guint m_signals = 0;
    guint m_owners = 0;
    gulong m_closed = 0;
    Heard m_heard;
    Changed m_changed;
    std::function<void()> m_gone;
};

}  // namespace tools

#endif
