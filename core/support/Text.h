#pragma once

#include <string_view>

namespace veltra {

// Without leading and trailing spaces, tabs and line breaks: how tool output and header values
// are read.
std::string_view trimWhitespace(std::string_view text) noexcept;

} // namespace veltra
