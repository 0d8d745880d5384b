// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Client.h"

#include <stdexcept>

namespace bench {
namespace {

constexpr const char* PATH = "/Org/Olvane/KavrelInternal";

/** Why a call failed. No exception may leave a callback of GLib, so RunUntil() throws it. */
std::string failure;

[[noreturn]] void Fail(const std::string& what, const GError* error) {
    throw std::runtime_error(what + ": " + (error != nullptr ? error->message : "no reason given"));
}

struct UnrefVariant {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Reply = std::unique_ptr<GVariant, UnrefVariant>;

}  // namespace

void RunUntil(const std::function<bool()>& met) {
    while (!met() && failure.empty()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
}

struct Client::Pending {
    Client* client;
    const char* method;
    Function onReply;
};

Client::Client(const std::string& address) {
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_autoptr(GError) error = nullptr;
    m_connection.reset(
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error));
    if (m_connection == nullptr) {
        Fail("cannot reach the bus", error);
    }
}

Client::~Client() {
    if (m_subscription != 0) {
        g_dbus_connection_signal_unsubscribe(m_connection.get(), m_subscription);
    }
}

void Client::GetVolume(Function onReply) {
    Send("GetSpeakerVolume", nullptr, std::move(onReply));
}

void Client::SetVolume(int volume, Function onReply) {
    Call("SetSpeakerVolume", volume, std::move(onReply));
}

void Client::Call(const char* method, int argument, Function onReply) {
    Send(method, g_variant_new("(i)", argument), std::move(onReply));
}

void Client::CallBus(Function onReply) {
    const auto onDone = [](GObject* connection, GAsyncResult* result, gpointer data) {
        const std::unique_ptr<Function> function(static_cast<Function*>(data));
        const Reply reply(
            g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(connection), result, nullptr));
        if (reply == nullptr) {
            failure = "the bus does not answer";
        }
        (*function)();
    };
    constexpr const char* BUS = "org.freedesktop.DBus";
    g_dbus_connection_call(m_connection.get(), BUS, "/org/freedesktop/DBus", BUS, "GetId", nullptr, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, onDone,
                           std::make_unique<Function>(std::move(onReply)).release());
}

int Client::Volume() {
    bool answered = false;
    GetVolume([&answered] { answered = true; });
    RunUntil([&answered] { return answered; });
    return m_volume;
}

void Client::Listen(Function onVolumeChanged) {
    m_onVolumeChanged = std::move(onVolumeChanged);
    m_subscription =
        g_dbus_connection_signal_subscribe(m_connection.get(), nullptr, NAME, "SpeakerVolumeChanged", PATH,
                                           nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
    Volume();  // its reply comes after the bus has taken the subscription
}

void Client::Send(const char* method, GVariant* arguments, Function onReply) {
    auto pending = std::make_unique<Pending>(Pending{this, method, std::move(onReply)});
    g_dbus_connection_call(m_connection.get(), NAME, PATH, NAME, method, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr, OnDone, pending.release());
}

void Client::OnDone(GObject* connection, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
    pending->client->Take(pending->method, reinterpret_cast<GDBusConnection*>(connection), result);
    pending->onReply();
}

void Client::Take(const char* method, GDBusConnection* connection, GAsyncResult* result) {
    g_autoptr(GError) error = nullptr;
    const Reply reply(g_dbus_connection_call_finish(connection, result, &error));
    int status = 0;
    if (reply != nullptr) {
        g_variant_get_child(reply.get(), 0, "i", &m_volume);
        g_variant_get_child(reply.get(), g_variant_n_children(reply.get()) - 1, "i", &status);
    }
    if (reply != nullptr && status == 0) {
        return;
    }
    if (m_failed != nullptr) {
        ++*m_failed;
    } else {
        failure = std::string(method) + ": " + (error != nullptr ? error->message : "not the status 0");
    }
}

void Client::OnSignal(GDBusConnection* /*connection*/, const char* /*sender*/, const char* /*path*/,
                      const char* /*interface*/, const char* /*signal*/, GVariant* /*parameters*/,
                      gpointer self) {
    static_cast<Client*>(self)->m_onVolumeChanged();
}

}  // namespace bench
