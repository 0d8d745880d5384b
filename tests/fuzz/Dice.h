// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Random and hostile values. The same seed gives the same values on every machine. */
#ifndef KAVREL_TESTS_DICE_H
#define KAVREL_TESTS_DICE_H

#include <gio/gio.h>

#include <cstdint>
#include <random>
#include <string>

class Dice {
public:
    explicit Dice(std::uint32_t seed) : m_random(seed) {}

    /** A number from 0 to limit - 1. */
    std::uint32_t Below(std::uint32_t limit) { return m_random() % limit; }
    bool OneIn(std::uint32_t chances) { return Below(chances) == 0; }
    template <typename Values>
    const typename Values::value_type& Pick(const Values& values) {
        return values[Below(static_cast<std::uint32_t>(values.size()))];
    }

    /** A small number, a limit of some type or range, or any integer. */
    int Integer();
    /** A text of valid UTF-8, which the bus requires. */
    std::string Text();
    /** Up to 39 bytes of any value but NUL. */
    std::string Bytes();
    /** A valid name of a bus member. */
    std::string Member();
    /** JSON as the platform writes it, or damaged JSON. */
    std::string Json();

    /** A value of a random type (floating). */
    GVariant* Value(int depth = 3);
    /** A message body (floating). */
    GVariant* Body();

private:
    GVariant* Tuple(std::uint32_t size, int depth);

    std::mt19937 m_random;
};

#endif
