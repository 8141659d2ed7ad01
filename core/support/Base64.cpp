#include "Base64.h"

#include <array>

namespace veltra::base64 {

namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> decodingTable() {
    std::array<std::int8_t, 256> table{};
    table.fill(-1);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

} // namespace

std::string encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t group = std::uint32_t{bytes[i]} << 16 |
                                    std::uint32_t{bytes[i + 1]} << 8 | std::uint32_t{bytes[i + 2]};
        for (int shift = 18; shift >= 0; shift -= 6) {
            text += alphabet[group >> shift & 0x3F];
        }
    }
    if (const auto rest = bytes.size() - i; rest > 0) {
        const std::uint32_t group =
            std::uint32_t{bytes[i]} << 16 | (rest == 2 ? std::uint32_t{bytes[i + 1]} << 8 : 0U);
        text += alphabet[group >> 18 & 0x3F];
        text += alphabet[group >> 12 & 0x3F];
        text += rest == 2 ? alphabet[group >> 6 & 0x3F] : '=';
        text += '=';
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    static constexpr auto table = decodingTable();
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t padding =
            last ? std::size_t{text[i + 3] == '='} + std::size_t{text[i + 2] == '='} : 0;
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const auto c = static_cast<unsigned char>(text[i + k]);
            std::int8_t value = 0;
            if (k >= 4 - padding) {
                if (c != '=') {
                    return std::nullopt;
                }
            } else if ((value = table[c]) < 0) {
                return std::nullopt;
            }
            group = group << 6 | static_cast<std::uint32_t>(value);
        }
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2) {
            bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        }
        if (padding < 1) {
            bytes.push_back(static_cast<std::uint8_t>(group));
        }
    }
    return bytes;
}

} // namespace veltra::base64
