#include "Utf8.h"

#include <cstdint>

namespace veltra::utf8 {
namespace {

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

// Length of the well-formed sequence starting at bytes[i], or 0 when it is ill-formed; in that
// case `consumed` is the length of the maximal subpart to replace with one U+FFFD.
std::size_t sequenceLength(std::string_view bytes, std::size_t i, std::size_t& consumed) noexcept {
    const auto byte = [&](std::size_t k) { return static_cast<std::uint8_t>(bytes[k]); };
    const std::uint8_t lead = byte(i);
    consumed = 1;
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;
        }
    } else {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if (i + k >= bytes.size()) {
            return 0;
        }
        const std::uint8_t b = byte(i + k);
        const std::uint8_t lo = k == 1 ? low : std::uint8_t{0x80};
        const std::uint8_t hi = k == 1 ? high : std::uint8_t{0xBF};
        if (b < lo || b > hi) {
            return 0;
        }
        consumed = k + 1;
    }
    return length;
}

} // namespace

bool isValid(std::string_view bytes) noexcept {
    std::size_t consumed = 0;
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = sequenceLength(bytes, i, consumed);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string decodeLossy(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t consumed = 0;
    std::size_t validStart = 0;
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = sequenceLength(bytes, i, consumed);
        if (length != 0) {
            i += length;
            continue;
        }
        out.append(bytes.substr(validStart, i - validStart));
        out.append(replacementCharacter);
        i += consumed;
        validStart = i;
    }
    if (validStart == 0) {
        return std::string(bytes);
    }
    out.append(bytes.substr(validStart));
    return out;
}

} // namespace veltra::utf8
