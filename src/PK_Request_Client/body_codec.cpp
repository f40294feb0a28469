#include "body_codec.h"

#include <array>

namespace {

constexpr unsigned NO_INDEX = 64;
constexpr std::size_t GROUP = 4;

// The index of every character; NO_INDEX for one outside the alphabet.
constexpr std::array<unsigned, 256> make_reverse_table() {
    std::array<unsigned, 256> table{};
    table.fill(NO_INDEX);
    for (unsigned index = 0; index < BODY_ALPHABET.size(); ++index) {
        table[static_cast<unsigned char>(BODY_ALPHABET[index])] = index;
    }
    return table;
}

constexpr std::array<unsigned, 256> REVERSE = make_reverse_table();

char byte_of(unsigned value) {
    return static_cast<char>(value & 0xFFU);
}

void decode_group(std::string_view group, std::string& text) {
    // How many characters carry bits: the rest must be "=".
    const std::size_t used = group.ends_with("==") ? 2 : group.ends_with('=') ? 3 : GROUP;
    std::array<unsigned, GROUP> index{};
    for (std::size_t n = 0; n < used; ++n) {
        index[n] = REVERSE[static_cast<unsigned char>(group[n])];
        if (index[n] == NO_INDEX) {
            return;
        }
    }
    if (used == 2) {
        text += byte_of(index[1] | (index[0] << 2U));
        return;
    }
    text += byte_of((index[1] >> 4U) | (index[0] << 2U));
    if (used == 3) {
        text += byte_of(index[2] | (index[1] << 4U));
        return;
    }
    text += byte_of((index[2] >> 2U) | (index[1] << 4U));
    text += byte_of(index[3] | (index[2] << 6U));
}

}  // namespace

std::string encode_body(std::string_view text) {
    std::string encoded;
    encoded.reserve((text.size() / 3 + 1) * GROUP);
    const auto byte = [&text](std::size_t n) -> unsigned {
        return static_cast<unsigned char>(text[n]);
    };
    const auto put = [&encoded](unsigned index) {
        encoded += BODY_ALPHABET[index];
    };
    std::size_t n = 0;
    for (; n + 3 <= text.size(); n += 3) {
        put(byte(n) >> 2U);
        put((byte(n + 1) >> 4U) | ((byte(n) & 3U) << 4U));
        put((byte(n + 2) >> 6U) | ((byte(n + 1) & 15U) << 2U));
        put(byte(n + 2) & 63U);
    }
    if (text.size() - n == 1) {
        put(byte(n) >> 2U);
        put(byte(n) & 3U);
        encoded += "==";
    } else if (text.size() - n == 2) {
        put(byte(n) >> 2U);
        put((byte(n + 1) >> 4U) | ((byte(n) & 3U) << 4U));
        put(byte(n + 1) & 15U);
        encoded += '=';
    }
    return encoded;
}

std::string decode_body(std::string_view encoded) {
    std::string text;
    for (std::size_t n = 0; n + GROUP <= encoded.size(); n += GROUP) {
        decode_group(encoded.substr(n, GROUP), text);
    }
    return text;
}
