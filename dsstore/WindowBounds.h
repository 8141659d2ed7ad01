#pragma once

#include "FourCC.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace dsstore {

// The 16-byte "fwi0" blob older Finders keep for a folder window: the window rectangle, its view
// style and four bytes of flags.
struct WindowBounds {
    std::int16_t top = 0;
    std::int16_t left = 0;
    std::int16_t bottom = 0;
    std::int16_t right = 0;
    FourCC viewStyle;
    std::uint32_t flags = 0;

    // nullopt unless the blob is exactly 16 bytes.
    static std::optional<WindowBounds> decode(std::span<const std::uint8_t> blob);
    std::vector<std::uint8_t> encode() const;

    friend bool operator==(const WindowBounds&, const WindowBounds&) = default;
};

} // namespace dsstore
