// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVRELCTL_MONITOR_H
#define KAVRELCTL_MONITOR_H

#include <gio/gio.h>
#include <json/value.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "CallWatch.h"
#include "Clock.h"
#include "KavrelClient.h"
#include "MainLoop.h"
#include "State.h"
#include "Terminal.h"

namespace ctl {

/**
 * Tells on standard output what the daemon is and does: its present state, then every change, each in a line.
 * It listens, and asks only when the daemon is new: at the start, and when it is back.
 */
class Monitor {
public:
    struct Options {
        tools::KavrelClient::Timeout timeout;
        /** One object a line instead of words. */
        bool isJson;
        /** Method calls to the daemon, too. */
        bool withCalls;
    };

    /** @throws tools::ToolError if there is no bus, or it does not allow to see calls */
    explicit Monitor(const Options& options);

    /** Until Ctrl-C or the end of its reader. @return the exit code
     *  @throws tools::ToolError if there is no daemon at the start, or the bus goes */
    int Run();

private:
    void OnSignal(const std::string& sender, const std::string& signal, GVariant* body);
    void OnOwnerChanged(const std::string& owner);
    void OnCall(const Call& call);
    /** What is known of the daemon, and its answers that are still to come, count no more. */
    void Forget();
    void AskForState();
    void OnAnswer(unsigned asked, Item item, const tools::Reading& reading,
                  const std::optional<tools::ToolError>& error);
    void OnChange(Item item, int support, int value);
    void TellState();
    void TellItem(Item item);

    /** One line: in words, or `fields` as an object together with the event's name and time. */
    void Tell(const char* event, const std::string& words, Json::Value fields);
    void TellAt(tools::WallTime time, const char* event, const std::string& words, Json::Value fields);

    const Options m_options;
    const tools::Style m_style;
    tools::KavrelClient m_client;
    tools::MainLoop m_loop;
    std::unique_ptr<CallWatch> m_calls;
    /** Unique name of the daemon, empty while there is none. */
    std::string m_owner;
    /** What is known of it. */
    std::map<Item, tools::Reading> m_state;
    /** It is being asked for its state, which is told once all of it is known; changes wait until then. */
    bool m_isAsking = false;
    /** How often it was asked for its state: answers to an earlier time are late. */
    unsigned m_asked = 0;
    /** From then on a daemon that does not answer ends nothing. */
    bool m_hasBegun = false;
};

}  // namespace ctl

#endif
