// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Random and hostile values; the same seed gives the same values on every machine. */
#ifndef KAVREL_TESTS_DICE_H
#define KAVREL_TESTS_DICE_H

#include <gio/gio.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>

class Dice {
public:
    explicit Dice(std::uint32_t seed) : m_random(seed) {}

    /** 0 to limit - 1. */
    std::uint32_t Below(std::uint32_t limit) { return m_random() % limit; }
    bool OneIn(std::uint32_t chances) { return Below(chances) == 0; }
    template <typename Value, std::size_t size>
    const Value& Pick(const std::array<Value, size>& values) {
        return values[Below(size)];
    }

    /** Small ones, edges and anything. */
    int Number();
    /** Valid UTF-8, as the bus demands of text. */
    std::string Text();
    /** Any bytes but NUL. */
    std::string Bytes();
    /** Characters of a bus member name. */
    std::string Member();
    /** JSON as the platform writes it, and damaged JSON. */
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
