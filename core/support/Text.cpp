#include "Text.h"

#include <algorithm>
#include <cctype>

namespace veltra {

std::string_view trimWhitespace(std::string_view text) noexcept {
    constexpr std::string_view whitespace = " \t\r\n\v\f";
    const auto first = text.find_first_not_of(whitespace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(whitespace) - first + 1);
}

std::string asciiLowercase(std::string_view text) {
    std::string lower(text);
    for (auto& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lower;
}

std::string shellCommandLine(const std::vector<std::string>& words) {
    std::string line;
    for (const auto& word : words) {
        const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                   std::string_view("_./:=@%+,-").find(c) != std::string_view::npos;
        });
        if (!line.empty()) {
            line += ' ';
        }
        if (plain) {
            line += word;
            continue;
        }
        line += '\'';
        for (const char c : word) {
            line += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        line += '\'';
    }
    return line;
}

} // namespace veltra
