// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Agreement.h"

namespace sound {

Winner Agreement::Compare(const std::string& sink, std::optional<int> directory, int server) {
    if (sink != m_sink) {
        m_sink = sink;
        m_agreed.reset();
    }
    const bool isPush = m_isInterrupted && m_agreed;
    m_isInterrupted = false;
    if (directory == server) {
        m_agreed = server;
        return Winner::NOBODY;
    }
    if (!directory || !m_agreed) {
        return Winner::SERVER;
    }
    return isPush || *directory != *m_agreed ? Winner::DIRECTORY : Winner::SERVER;
}

void Agreement::Agree(int value) {
    m_agreed = value;
}

}  // namespace sound
