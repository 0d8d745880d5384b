// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVDBUSSENDER_H
#define KVDBUSSENDER_H

#include <glib.h>

#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

namespace NKavrel {

/**
 * Tells in the log which program is behind each caller. A caller seen for the first time is looked up when
 * the main loop is idle, so that its request is not delayed; a program that is gone by then, or cannot be
 * read, is remembered as "".
 *
 * Main loop only. Destroy it only when the main loop runs no more: look-ups that are still due hold a
 * pointer.
 */
class KVDbusSender {
public:
    KVDbusSender();
    ~KVDbusSender();
    KVDbusSender(const KVDbusSender&) = delete;
    KVDbusSender& operator=(const KVDbusSender&) = delete;

    /** @param sender unique bus name */
    void Print(std::string sender);
    /** Never waits: also true while the known callers are busy, so that a name may be looked up twice. */
    bool IsNewSender(const std::string& sender);
    static gboolean UpdateSenderLists(gpointer data);
    /** @return 0 on failure */
    unsigned int GetConnectionPID(std::string sender);
    /** @return base name of the program's first argument, up to its first space; "" on failure */
    std::string GetSenderNameByPID(unsigned int pid);

private:
    /** Unique name to program name; emptied as a whole when full. */
    std::unordered_map<std::string, std::string> m_knownSenders;
    /** Waiting for their look-up, oldest first. */
    std::deque<std::string> m_pendingSenders;
    std::mutex m_pendingMutex; /**< guards m_pendingSenders; never held together with the other */
    std::mutex m_knownMutex;   /**< guards m_knownSenders */
};

}  // namespace NKavrel

#endif
