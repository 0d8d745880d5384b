// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_TOOLS_TV_PLAYER_H
#define KAVREL_TOOLS_TV_PLAYER_H

#include <items.h>

namespace tv {

/**
 * The right to play the components behind the external outputs of the open TV. Several programs can: the one that began
 * last plays, the others wait until it has ended. The TV directory holds its process id.
 */
class Player {
public:
    Player() = default;
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    /** No value of the TV has a name with a dot in front. */
    static host::Value File();

    /** @throws tools::ToolError if the directory cannot be written */
    void Take();

    enum class Change { NONE, TAKEN_AWAY, GIVEN_BACK };
    /** Finds out who plays; the right of a program that has gone falls to the one that looks first.
     *  @throws tools::ToolError as Take() */
    Change Look();

    bool IsThisProcess() const { return m_isThisProcess; }
    /** The process that plays, as far as the last look saw. */
    int Process() const { return m_process; }

private:
    bool m_isThisProcess = false;
    int m_process = 0;
};

}  // namespace tv

#endif
