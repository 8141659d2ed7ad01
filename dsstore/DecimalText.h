#pragma once

// Decimal numbers read from text the way std::from_chars reads a double (no leading blanks or
// "+", the C locale's "."), for libraries whose standard library lacks floating-point
// from_chars (Apple's libc++).

#include <cstddef>
#include <locale>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace dsstore {

struct DecimalPrefix {
    double value = 0;
    std::size_t length = 0; // characters read
};

// The longest prefix of `text` of the form -?digits[.digits][(e|E)[+-]digits] (digits may be
// absent on one side of the point, not both), or none.
inline std::optional<DecimalPrefix> readDecimal(std::string_view text) {
    std::size_t at = 0;
    const auto digits = [&] {
        const auto start = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            ++at;
        }
        return at - start;
    };
    if (at < text.size() && text[at] == '-') {
        ++at;
    }
    auto mantissa = digits();
    if (at < text.size() && text[at] == '.') {
        const auto point = at++;
        const auto fraction = digits();
        if (fraction == 0) {
            at = point; // "1." reads as "1", as from_chars does
        }
        mantissa += fraction;
    }
    if (mantissa == 0) {
        return std::nullopt;
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        const auto mark = at++;
        if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
            ++at;
        }
        if (digits() == 0) {
            at = mark;
        }
    }
    std::istringstream in{std::string(text.substr(0, at))};
    in.imbue(std::locale::classic());
    DecimalPrefix prefix{0, at};
    in >> prefix.value;
    if (in.fail()) {
        return std::nullopt; // out of range
    }
    return prefix;
}

} // namespace dsstore
