#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dsstore {

// A four-character code, stored as the 32-bit big-endian word it is on disk.
struct FourCC {
    std::uint32_t rawValue = 0;

    constexpr FourCC() = default;
    constexpr explicit FourCC(std::uint32_t raw) : rawValue(raw) {}
    // Exactly four bytes; callers check the length.
    constexpr explicit FourCC(std::string_view text)
        : rawValue(static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24 |
                   static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16 |
                   static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8 |
                   static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]))) {}

    // The four characters; a code with bytes outside printable ASCII comes back as "0x" and eight
    // hex digits so that it survives text and JSON unchanged.
    std::string text() const;
    // Reads either form that text() produces.
    static bool parse(std::string_view text, FourCC& out);

    friend constexpr auto operator<=>(FourCC, FourCC) = default;
};

} // namespace dsstore
