// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_AGREEMENT_H
#define KAVREL_SOUND_AGREEMENT_H

#include <optional>
#include <string>

namespace sound {

/** Who is right if the TV directory and the sound server hold different values. */
enum class Winner { NOBODY, DIRECTORY, SERVER };

/**
 * The value on which the TV directory and a sink of the sound server last agreed. A side with another value has changed
 * it since; if both have, the directory wins.
 */
class Agreement {
public:
    /**
     * @param sink whose value is compared; another sink than before begins without an agreement
     * @param directory the value in the TV directory; nothing: there is none
     * @return who has changed the value; the server at the first contact, so that nothing becomes suddenly loud
     */
    Winner Compare(const std::string& sink, std::optional<int> directory, int server);

    /** Notes the value that both sides hold now. */
    void Agree(int value);

    /** The sink or the server has gone: when it is back, the directory wins unless it holds no value. */
    void Interrupt() { m_isInterrupted = true; }

private:
    std::string m_sink;
    std::optional<int> m_agreed;
    bool m_isInterrupted = false;
};

}  // namespace sound

#endif
