#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// Without leading and trailing spaces, tabs and line breaks: how tool output and header values
// are read.
std::string_view trimWhitespace(std::string_view text) noexcept;

inline bool contains(std::string_view text, std::string_view part) noexcept {
    return text.find(part) != std::string_view::npos;
}

// ASCII letters lowered, other bytes kept: how tool output is matched without regard to case.
std::string asciiLowercase(std::string_view text);

// `text` as one segment of a URL's path: bytes other than letters, digits and -._~ as %XX
// (spaces, '#', '?', '/', non-ASCII).
std::string percentEncoded(std::string_view text);
// `text` with each %XX as its byte; nothing when a '%' is not followed by two hex digits.
std::optional<std::string> percentDecoded(std::string_view text);

// A command line a POSIX shell reads back as exactly these words, for a user to read or paste:
// words of letters, digits and _./:=@%+,- as they are, any other in single quotes.
std::string shellCommandLine(const std::vector<std::string>& words);

// Calls `visit` with each line of tool output (split at "\n"), trimmed; empty lines are skipped.
// A chunk that ends mid-line hands over the fragment as a line of its own.
template <typename Visit> void forEachTrimmedLine(std::string_view text, Visit&& visit) {
    std::size_t start = 0;
    while (start <= text.size()) {
        auto end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        const auto line = trimWhitespace(text.substr(start, end - start));
        start = end + 1;
        if (!line.empty()) {
            visit(line);
        }
    }
}

} // namespace veltra
