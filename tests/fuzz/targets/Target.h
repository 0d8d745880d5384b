// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The parts that all fuzz targets share. A target is a function that gets bytes, does with them what a hostile or
 * careless program could, and checks that all is as it must be. libFuzzer searches for bytes that break it; Feed.cpp
 * gives a target the files of its corpus instead.
 */
#ifndef KAVREL_TESTS_FUZZ_TARGET_H
#define KAVREL_TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/** Ends the program with a message unless `isTrue`. */
inline void Require(bool isTrue, const std::string& text) {
    if (!isTrue) {
        std::fprintf(stderr, "fuzz: violated: %s\n", text.c_str());
        std::abort();
    }
}

/** Reads the bytes of an input one after the other; behind their end there are zeros. */
class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool IsEmpty() const { return m_rest.empty(); }
    std::uint8_t Byte() {
        const auto byte = m_rest.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(m_rest.front());
        m_rest.remove_prefix(m_rest.empty() ? 0 : 1);
        return byte;
    }
    int Integer() {
        std::uint32_t number = 0;
        for (int i = 0; i < 4; ++i) {
            number = number << 8U | Byte();
        }
        return static_cast<int>(number);
    }
    /** A byte with a sign, or, behind the byte 127, any integer. */
    int Number() {
        constexpr int ANY = 127;
        const auto number = static_cast<std::int8_t>(Byte());
        return number == ANY ? Integer() : number;
    }
    std::string Text(std::size_t size) {
        const std::string text(m_rest.substr(0, size));
        m_rest.remove_prefix(text.size());
        return text;
    }
    std::string Rest() { return Text(m_rest.size()); }
    template <typename Values>
    const auto& Pick(const Values& values) {
        return values[Byte() % std::size(values)];
    }

private:
    std::string_view m_rest;
};

}  // namespace fuzz

#endif
