#pragma once

#include <string>
#include <string_view>

namespace veltra::utf8 {

// True when bytes are well-formed UTF-8 (no overlongs, surrogates or code points past U+10FFFF).
bool isValid(std::string_view bytes) noexcept;

// Decodes bytes as UTF-8, replacing each maximal ill-formed subpart with U+FFFD, the way the
// Unicode standard recommends. Valid input comes back unchanged.
std::string decodeLossy(std::string_view bytes);

} // namespace veltra::utf8
