#include "FourCC.h"

#include <charconv>

#include <fmt/format.h>

namespace dsstore {

std::string FourCC::text() const {
    std::string characters(4, '\0');
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<char>(rawValue >> (24 - 8 * i) & 0xFF);
        if (byte < 0x20 || byte > 0x7E) {
            return fmt::format("0x{:08x}", rawValue);
        }
        characters[static_cast<std::size_t>(i)] = byte;
    }
    return characters;
}

bool FourCC::parse(std::string_view text, FourCC& out) {
    if (text.size() == 4) {
        for (const char c : text) {
            if (c < 0x20 || c > 0x7E) {
                return false;
            }
        }
        out = FourCC(text);
        return true;
    }
    if (text.size() == 10 && text.starts_with("0x")) {
        std::uint32_t raw = 0;
        const auto* end = text.data() + text.size();
        const auto [ptr, ec] = std::from_chars(text.data() + 2, end, raw, 16);
        if (ec == std::errc() && ptr == end) {
            out = FourCC(raw);
            return true;
        }
    }
    return false;
}

} // namespace dsstore
