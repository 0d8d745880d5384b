// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Dice.h"

#include <array>
#include <limits>
#include <string_view>

int Dice::Integer() {
    static constexpr std::array EDGES = {0,
                                         1,
                                         -1,
                                         2,
                                         3,
                                         -2,
                                         99,
                                         100,
                                         101,
                                         255,
                                         256,
                                         65535,
                                         65536,
                                         std::numeric_limits<int>::max(),
                                         std::numeric_limits<int>::min(),
                                         static_cast<int>(0xFE6A0004U)};
    switch (Below(4)) {
        case 0:
            return Pick(EDGES);
        case 1:
            return static_cast<int>(m_random());
        default:
            return static_cast<int>(Below(24)) - 2;
    }
}

std::string Dice::Text() {
    static const std::array<std::string, 11> PIECES = {
        "",      "%s%n%x%d", "../../etc/passwd", "\n",      "E fake line\n", "\xF0\x9F\x94\x8A",
        "'\"\\", "SPK",      "\x01\x7F",         "memory/", "\t[IN]",
    };
    std::string text;
    for (std::uint32_t pieces = Below(4); pieces > 0; --pieces) {
        text += Pick(PIECES);
    }
    return OneIn(50) ? text + std::string(5000, 'A') : text;
}

std::string Dice::Bytes() {
    std::string bytes(Below(40), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(1 + Below(255));
    }
    return bytes;
}

std::string Dice::Member() {
    static constexpr std::string_view CHARACTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
    std::string name(1 + Below(OneIn(20) ? 200 : 20), ' ');
    for (char& character : name) {
        character = CHARACTERS[Below(CHARACTERS.size())];
    }
    return name;
}

std::string Dice::Json() {
    static const std::array<std::string, 14> TEXTS = {R"({"mode":"on"})",
                                                      R"({"mode":"off"})",
                                                      R"({"mode":1})",
                                                      R"({"mode":{"mode":"on"}})",
                                                      R"({"mode":["on"]})",
                                                      R"({"mode":null})",
                                                      R"({"mode":true,"mode":"on"})",
                                                      R"(["mode"])",
                                                      R"("on")",
                                                      "null",
                                                      "",
                                                      R"({"a":1e999,"mode":"on"})",
                                                      R"({"mode":"\u0000on"})",
                                                      "// on\n{}"};
    std::string text = Pick(TEXTS);
    if (OneIn(30)) {
        text = std::string(2000, OneIn(2) ? '[' : '{');
    }
    for (std::uint32_t damages = Below(3); damages > 0 && !text.empty(); --damages) {
        const std::size_t place = Below(static_cast<std::uint32_t>(text.size()));
        if (OneIn(2)) {
            text.erase(place, 1 + Below(3));
        } else {
            text.insert(place, Bytes());
        }
    }
    return text;
}

GVariant* Dice::Value(int depth) {
    const std::uint32_t containers = depth > 0 ? 4 : 0;
    switch (Below(11 + containers)) {
        case 0:
            return g_variant_new_boolean(OneIn(2));
        case 1:
            return g_variant_new_byte(static_cast<guchar>(Below(256)));
        case 2:
            return g_variant_new_uint32(static_cast<guint32>(Integer()));
        case 3:
            return g_variant_new_int64(Integer());
        case 4:
            return g_variant_new_double(Integer() / 3.0);
        case 5:
        case 6:
            return g_variant_new_string(Text().c_str());
        case 7:
            return g_variant_new_object_path(("/" + Member()).c_str());
        case 8:
            return g_variant_new_signature("a{sv}");
        case 9:
        case 10:
            return g_variant_new_int32(Integer());
        case 11:
            return g_variant_new_variant(Value(depth - 1));
        case 12: {
            GVariant* element = Value(depth - 1);
            return g_variant_new_array(nullptr, &element, 1);
        }
        case 13:
            return g_variant_new("a{sv}", nullptr);
        default:
            return Tuple(1 + Below(3), depth - 1);  // D-Bus has no empty structs
    }
}

GVariant* Dice::Body() {
    return Tuple(Below(5), 2);
}

GVariant* Dice::Tuple(std::uint32_t size, int depth) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (std::uint32_t values = 0; values < size; ++values) {
        g_variant_builder_add_value(&builder, Value(depth));
    }
    return g_variant_builder_end(&builder);
}
