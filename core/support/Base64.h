#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltra::base64 {

// Standard alphabet with "=" padding, no line breaks.
std::string encode(std::span<const std::uint8_t> bytes);

// Strict: the standard alphabet only, padded to a multiple of four, no whitespace. nullopt for
// anything else, the way Sparkle's own tools decode keys and signatures.
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

} // namespace veltra::base64
