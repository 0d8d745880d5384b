// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVDBUSSENDER_H
#define KVDBUSSENDER_H

#include <glib.h>

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "KVMutex.h"

namespace NKavrel {

/**
 * Logs the program behind each caller. It looks up a new caller when the main loop is idle, so that no request
 * waits for that. If the program has ended by then, or cannot be read, its name is "".
 *
 * Main loop only. Destroy the tracker only after the main loop has ended: look-ups that are still due hold a
 * pointer to it.
 */
class KVDbusSender {
public:
    KVDbusSender();
    ~KVDbusSender();
    KVDbusSender(const KVDbusSender&) = delete;
    KVDbusSender& operator=(const KVDbusSender&) = delete;

    /** Logs a known caller and queues the look-up of a new one. @param sender unique bus name */
    void Print(std::string sender);
    /** Never waits. While the map of known callers is locked, every caller is new and may be looked up twice. */
    bool IsNewSender(const std::string& sender);
    /** Looks up the first caller of the queue. An idle callback of the main loop. */
    static gboolean UpdateSenderLists(gpointer data);
    /** @return 0 on failure */
    unsigned int GetConnectionPID(std::string sender);
    /** @return the base name of the program's first argument, up to its first space; "" on failure */
    std::string GetSenderNameByPID(unsigned int pid);

    /** Set it before Print. A look-up that Print queues keeps it until the look-up has run. */
    std::shared_ptr<void> m_messageInHand;

private:
    const std::string& _ProgramOf(const std::string& knownSender) KV_NO_LOCK_ANALYSIS;

    /** Program name by unique bus name. A full map is emptied as a whole. */
    std::unordered_map<std::string, std::string> m_knownSenders KV_GUARDED_BY(m_knownMutex);
    /** The callers that wait for their look-up, oldest first. */
    std::deque<std::string> m_pendingSenders KV_GUARDED_BY(m_pendingMutex);
    /** The messages that asked for these look-ups, in the same order. */
    std::deque<std::shared_ptr<void>> m_pendingMessages KV_GUARDED_BY(m_pendingMutex);
    // No thread holds both mutexes at once.
    KVMutex m_pendingMutex;
    KVMutex m_knownMutex;
};

}  // namespace NKavrel

#endif
