// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_BENCHMARKS_CLIENT_H
#define KAVREL_BENCHMARKS_CLIENT_H

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace bench {

/** The daemon's, and that of the servers it is compared with. */
inline constexpr const char* NAME = "org.olvane.kavrel";

using Clock = std::chrono::steady_clock;

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};

/**
 * Runs the default main context until the condition holds.
 * @throws std::runtime_error when a call has failed
 */
void RunUntil(const std::function<bool()>& met);

/**
 * One client of the server under test, which it reaches by the daemon's name. All calls are asynchronous: a
 * reply runs its function within RunUntil().
 */
class Client {
public:
    using Function = std::function<void()>;

    /** @param address of the bus
     *  @throws std::runtime_error if it cannot be reached */
    explicit Client(const std::string& address);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /** A call that fails from now on counts in `failed` and is over, instead of ending RunUntil(). */
    void CountFailures(int& failed) { m_failed = &failed; }

    GDBusConnection* Connection() const { return m_connection.get(); }

    // When a call fails, or its status is not 0, RunUntil() throws.

    void GetVolume(Function onReply);
    void SetVolume(int volume, Function onReply);
    /** Calls a method that takes and returns one integer. */
    void Call(const char* method, int argument, Function onReply);
    /** Calls the bus itself. */
    void CallBus(Function onReply);
    /** The volume at this moment. */
    int Volume();

    /** Calls the function at each SpeakerVolumeChanged from now on. May be called once. */
    void Listen(Function onVolumeChanged);

private:
    struct Pending;
    void Take(const char* method, GDBusConnection* connection, GAsyncResult* result);
    void Send(const char* method, GVariant* arguments, Function onReply);
    static void OnDone(GObject* connection, GAsyncResult* result, gpointer data);
    static void OnSignal(GDBusConnection* connection, const char* sender, const char* path,
                         const char* interface, const char* signal, GVariant* parameters, gpointer self);

    std::unique_ptr<GDBusConnection, Unref> m_connection;
    Function m_onVolumeChanged;
    guint m_subscription = 0;
    int* m_failed = nullptr;
    int m_volume = 0;  // the first value of the latest reply
};

}  // namespace bench

#endif
