// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_OWNMODULE_H
#define KAVREL_SOUND_OWNMODULE_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "GLibPtr.h"
#include "Server.h"

namespace sound {

/**
 * A module of the server that the bridge needs once, and of which it may find none, one that an earlier bridge has left
 * behind, or several. A module is asked for once: what it makes may appear before or after the server's answer.
 */
class OwnModule {
public:
    /** @param whenAnswered called after each answer, since the last snapshot lacks what it changed */
    OwnModule(Server& server, std::string name, std::function<void()> whenAnswered);

    /** Loads the module if there is none, and unloads all but one.
     *  @param found those that there are, the one to keep first
     *  @return the module; NO_INDEX until a snapshot has it */
    Index Ensure(std::vector<Index> found, const std::string& arguments);
    /** Unloads those that there are, and the one that is being loaded. */
    void Remove(const std::vector<Index>& found);
    void Unload(Index module);

    /** The connection has gone, and every answer with it. */
    void Forget();

private:
    void Load(const std::string& arguments);
    void Fail();

    Server& m_server;
    const std::string m_name;
    const std::function<void()> m_whenAnswered;
    bool m_isLoading = false;
    bool m_hasComplained = false;
    tools::GLibPtr<GSource> m_retry;  // until the next attempt after one that has failed
    bool m_isWanted = true;
    bool m_hasUnloaded = false;  // since the module was asked for, which then may fail
    std::set<Index> m_unloading;
};

}  // namespace sound

#endif
