// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Smoother.h"

namespace sound {

void Smoother::Aim(double amplitude) {
    if (amplitude == m_target) {
        return;  // on its way already, or there
    }
    m_target = amplitude;
    m_left = m_present == m_target ? 0 : m_steps;
}

double Smoother::Next() {
    if (m_left > 0) {
        m_present += (m_target - m_present) / m_left;
        --m_left;
    }
    if (m_left == 0) {
        m_present = m_target;
    }
    return m_present;
}

void Smoother::Finish() {
    m_left = 0;
    m_present = m_target;
}

}  // namespace sound
