// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVDbusSender.h"

#include <gio/gio.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <utility>

#include "KVDebug.h"
#include "KVUtils.h"

namespace NKavrel {
namespace {

constexpr size_t KNOWN_SENDERS_MAX = 50;
constexpr size_t CMDLINE_BUFFER_SIZE = 256;
constexpr const char* GET_PID = "GetConnectionUnixProcessID";

}  // namespace

KVDbusSender::KVDbusSender() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

KVDbusSender::~KVDbusSender() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

void KVDbusSender::Print(std::string sender) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    const std::shared_ptr<void> message = std::exchange(m_messageInHand, nullptr);
    if (IsNewSender(sender)) {
        const KVLockGuard lock(m_pendingMutex);
        m_pendingMessages.push_back(message);
        m_pendingSenders.push_back(std::move(sender));
        g_idle_add(UpdateSenderLists, this);
        return;
    }
    LOGI("Called by [%s/%s]", sender.c_str(), _ProgramOf(sender).c_str());
}

// Reads without the lock: only this thread, the main loop's, changes the map.
const std::string& KVDbusSender::_ProgramOf(const std::string& knownSender) {
    return m_knownSenders.at(knownSender);
}

bool KVDbusSender::IsNewSender(const std::string& sender) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_knownMutex.try_lock()) {
        return true;
    }
    const KVLockGuard lock(m_knownMutex, std::adopt_lock);
    return !m_knownSenders.contains(sender);
}

gboolean KVDbusSender::UpdateSenderLists(gpointer data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "Data is Null")) {
        return G_SOURCE_REMOVE;
    }
    auto& self = *static_cast<KVDbusSender*>(data);
    std::string sender;
    std::shared_ptr<void> message;  // released when the look-up has run
    {
        const KVLockGuard lock(self.m_pendingMutex);
        if (self.m_pendingSenders.empty()) {
            return G_SOURCE_REMOVE;
        }
        sender = self.m_pendingSenders.front();
        self.m_pendingSenders.pop_front();
        if (!self.m_pendingMessages.empty()) {
            message = self.m_pendingMessages.front();
            self.m_pendingMessages.pop_front();
        }
    }
    const std::string program = self.GetSenderNameByPID(self.GetConnectionPID(sender));

    const KVLockGuard lock(self.m_knownMutex);
    if (self.m_knownSenders.size() >= KNOWN_SENDERS_MAX) {
        self.m_knownSenders.clear();
    }
    self.m_knownSenders[sender] = program;
    LOGI("Called by [%s/%s] size:%ld", sender.c_str(), program.c_str(),
         static_cast<long>(self.m_knownSenders.size()));
    return G_SOURCE_REMOVE;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is public
unsigned int KVDbusSender::GetConnectionPID(std::string sender) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    GDBusConnection* connection = KVUtils::GetConnection();
    if (IsNull(connection, "Failed to get GDBus Connection")) {
        return 0;
    }
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", GET_PID,
        g_variant_new("(s)", sender.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply == nullptr || !KVUtils::IsReplyOfType(reply, "(u)", GET_PID)) {
        return 0;
    }
    guint32 pid = 0;
    g_variant_get(reply, "(u)", &pid);
    return pid;
}

std::string KVDbusSender::GetSenderNameByPID(unsigned int pid) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (pid == 0) {
        return "";
    }
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    std::ifstream file(path);
    if (!file) {
        LOGW("Failed to open cmdLine(%u,%s) : %d", pid, path.c_str(), errno);
        return "";
    }
    // The stream fails on an empty file and on a first argument that fills the buffer. Neither is an error, so
    // only the buffer is examined.
    std::array<char, CMDLINE_BUFFER_SIZE> buffer{};
    file.getline(buffer.data(), buffer.size(), ' ');
    const std::string program = buffer.data();  // NUL separates the arguments: this is the first one
    return program.substr(program.rfind('/') + 1);
}

}  // namespace NKavrel
