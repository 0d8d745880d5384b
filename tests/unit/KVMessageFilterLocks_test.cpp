// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Tests that the message filter changes its counts under its lock: another thread that gets the lock finds each change
 * complete. This program replaces functions of the thread library, to act when the filter has unlocked, and two of
 * GDBus, to get the filter function. It needs no bus.
 */
#include <dlfcn.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <utility>
#include <vector>

#include "GLibPtr.h"
#include "KVMessageFilter.h"

using NKavrel::KVMessageFilter;

namespace {

/** The library's function that a function of this program replaces. */
template <typename Function>
Function* Library(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

using Mutex = const pthread_mutex_t*;

/** The action runs once, right after this thread has unlocked the mutex; so many unlocks of it come before. */
struct UnlockHook {
    Mutex mutex = nullptr;
    int unlocksBefore = 0;
    std::function<void()> action;
};
thread_local UnlockHook* hook = nullptr;
thread_local Mutex lastLocked = nullptr;

struct FilterFunction {
    GDBusMessageFilterFunction function = nullptr;
    void* data = nullptr;
    GDestroyNotify release = nullptr;
} added;

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static auto* const lock = Library<decltype(pthread_mutex_lock)>("pthread_mutex_lock");
    lastLocked = mutex;
    return lock(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static auto* const unlock = Library<decltype(pthread_mutex_unlock)>("pthread_mutex_unlock");
    const int result = unlock(mutex);
    if (hook != nullptr && hook->mutex == mutex && hook->unlocksBefore-- == 0) {
        std::exchange(hook, nullptr)->action();
    }
    return result;
}

guint g_dbus_connection_add_filter(GDBusConnection*, GDBusMessageFilterFunction filter_function,
                                   gpointer user_data, GDestroyNotify user_data_free_func) {
    added = {filter_function, user_data, user_data_free_func};
    return 1;
}

void g_dbus_connection_remove_filter(GDBusConnection*, guint) {
    added.release(added.data);
}

}  // extern "C"

namespace {

constexpr const char* XML = R"(<node><interface name="a.b"><method name="GetOne"/></interface></node>)";

constexpr int MOST_OF_SENDER = 64;

class KVMessageFilterLocksTest : public testing::Test {
protected:
    using Message = tools::GLibPtr<GDBusMessage>;

    static Message Getter() {
        Message call(g_dbus_message_new_method_call("a.b", "/methods", "a.b", "GetOne"));
        g_dbus_message_set_sender(call.get(), ":1.1");
        g_dbus_message_set_flags(call.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_message_set_body(call.get(), g_variant_new("()"));
        return call;
    }
    /** @return null if the filter refused it */
    Message Filtered(Message message) {
        return Message(added.function(m_connection.get(), message.release(), TRUE, added.data));
    }
    std::vector<Message> Admitted(int count) {
        std::vector<Message> messages;
        for (int i = 0; i < count; ++i) {
            messages.push_back(Filtered(Getter()));
            EXPECT_NE(messages.back(), nullptr);
        }
        return messages;
    }
    KVMessageFilter::Waiting Taken(const Message& message) {
        return m_filter.Take(g_dbus_message_get_body(message.get()));
    }

    /** Expects that the step unlocks, and acts in that moment. @param unlocksBefore other unlocks of the step */
    void AtTheUnlockOf(const std::function<void()>& step, const std::function<void()>& act,
                       int unlocksBefore = 0) {
        lastLocked = nullptr;
        m_filter.Take(nullptr);
        ASSERT_NE(lastLocked, nullptr);
        UnlockHook planned{lastLocked, unlocksBefore, act};
        hook = &planned;
        step();
        EXPECT_EQ(std::exchange(hook, nullptr), nullptr) << "the step does not unlock so often";
    }

    tools::GLibPtr<GDBusNodeInfo> m_node{g_dbus_node_info_new_for_xml(XML, nullptr)};
    tools::GLibPtr<GDBusConnection> m_connection{
        static_cast<GDBusConnection*>(g_object_new(G_TYPE_DBUS_CONNECTION, nullptr))};
    KVMessageFilter m_filter{m_connection.get(), *m_node->interfaces[0], "/methods", "/signals"};
};

TEST_F(KVMessageFilterLocksTest, AMessageIsCountedUnderTheLock) {
    const auto others = Admitted(MOST_OF_SENDER - 1);
    Message last = Getter();
    GVariant* const body = g_dbus_message_get_body(last.get());
    Message counted;
    AtTheUnlockOf([&] { counted = Filtered(std::move(last)); },
                  [&] {
                      EXPECT_EQ(Filtered(Getter()), nullptr) << "it is counted";
                      EXPECT_EQ(m_filter.Take(body), nullptr) << "but has no ticket yet";
                  });
    EXPECT_NE(counted, nullptr);
}

TEST_F(KVMessageFilterLocksTest, ATicketIsKeptUnderTheLock) {
    Message call = Getter();
    GVariant* const body = g_dbus_message_get_body(call.get());
    Message counted;
    AtTheUnlockOf([&] { counted = Filtered(std::move(call)); },
                  [&] { EXPECT_NE(m_filter.Take(body), nullptr); }, 1);
}

TEST_F(KVMessageFilterLocksTest, AMessageThatGoesAsItIsTakenStaysCounted) {
    Message counted = Filtered(Getter());
    KVMessageFilter::Waiting waiting;
    AtTheUnlockOf([&] { waiting = Taken(counted); }, [&] { counted.reset(); });
    EXPECT_NE(waiting, nullptr);
    const auto others = Admitted(MOST_OF_SENDER - 1);
    EXPECT_EQ(Filtered(Getter()), nullptr);
}

TEST_F(KVMessageFilterLocksTest, AMessageThatAHandlerServedIsTakenOffUnderTheLock) {
    const auto messages = Admitted(MOST_OF_SENDER);
    auto waiting = Taken(messages.front());
    Message next;
    AtTheUnlockOf([&] { waiting.reset(); }, [&] { next = Filtered(Getter()); });
    EXPECT_NE(next, nullptr);
}

TEST_F(KVMessageFilterLocksTest, AMessageThatNoHandlerGotIsTakenOffUnderTheLock) {
    auto messages = Admitted(MOST_OF_SENDER);
    Message next;
    AtTheUnlockOf([&] { messages.pop_back(); }, [&] { next = Filtered(Getter()); });
    EXPECT_NE(next, nullptr);
}

}  // namespace
