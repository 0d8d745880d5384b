// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_SOUND_SMOOTHER_H
#define KAVREL_SOUND_SMOOTHER_H

#include <chrono>

namespace sound {

/**
 * Spreads each change of an amplitude over the time between two writes of a fade: a fade of bare steps crackles. A
 * change that comes before the last one is over goes on from the amplitude reached.
 */
class Smoother {
public:
    /** The period of the worker that raises a gain. */
    static constexpr std::chrono::milliseconds SPREAD{60};
    static constexpr int STEPS = 8;
    static constexpr std::chrono::milliseconds PERIOD = SPREAD / STEPS;  // between two steps

    /** @param steps of each change; 1: no smoothing */
    explicit Smoother(int steps = STEPS) : m_steps(steps) {}

    void Aim(double amplitude);
    /** @return the amplitude of the next step; the last one is the one aimed at, to the bit */
    double Next();
    /** Takes the amplitude aimed at without a step. */
    void Finish();

    bool IsThere() const { return m_left == 0; }
    double Present() const { return m_present; }
    double Target() const { return m_target; }

private:
    int m_steps;
    int m_left = 0;        // steps
    double m_present = 0;  // 0 to 1, as all amplitudes
    double m_target = 0;
};

}  // namespace sound

#endif
