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

std::string percentEncoded(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || c == '-' || c == '_' || c == '.' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += hex[byte >> 4];
            out += hex[byte & 0xF];
        }
    }
    return out;
}

std::optional<std::string> percentDecoded(std::string_view text) {
    const auto digit = [](char c) -> int {
        return c >= '0' && c <= '9'   ? c - '0'
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                      : -1;
    };
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            out += text[at];
            continue;
        }
        if (at + 2 >= text.size() || digit(text[at + 1]) < 0 || digit(text[at + 2]) < 0) {
            return std::nullopt;
        }
        out += static_cast<char>(digit(text[at + 1]) * 16 + digit(text[at + 2]));
        at += 2;
    }
    return out;
}

} // namespace veltra
