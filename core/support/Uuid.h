#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// A random (version 4) UUID. Written in upper-case hyphenated form, read in either case.
class Uuid {
public:
    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text);

    std::string string() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    auto operator<=>(const Uuid&) const = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

} // namespace veltra
