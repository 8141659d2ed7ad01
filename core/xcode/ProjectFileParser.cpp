#include "ProjectFileParser.h"

#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"

#include <cstdint>

#include <fmt/format.h>

namespace veltra {

namespace {

constexpr int maxDepth = 512;

class TextPlistParser {
public:
    explicit TextPlistParser(std::string_view text) : text_(text) {}

    nlohmann::json document() {
        skipSpace();
        auto root = value(0);
        skipSpace();
        if (position_ != text_.size()) {
            fail("unexpected text after the root value");
        }
        return root;
    }

private:
    [[noreturn]] void fail(std::string_view what) const {
        std::size_t line = 1;
        for (std::size_t index = 0; index < position_ && index < text_.size(); ++index) {
            line += text_[index] == '\n' ? 1u : 0u;
        }
        throw VeltraError(
            "Veltra", errorCode::invalidSetup,
            fmt::format("The project file is not readable: {} on line {}.", what, line));
    }

    void skipSpace() {
        while (position_ < text_.size()) {
            const char c = text_[position_];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
                ++position_;
            } else if (text_.substr(position_).starts_with("//")) {
                const auto end = text_.find('\n', position_);
                position_ = end == std::string_view::npos ? text_.size() : end + 1;
            } else if (text_.substr(position_).starts_with("/*")) {
                const auto end = text_.find("*/", position_ + 2);
                if (end == std::string_view::npos) {
                    fail("an unterminated comment");
                }
                position_ = end + 2;
            } else {
                return;
            }
        }
    }

    bool peek(char expected) {
        skipSpace();
        return position_ < text_.size() && text_[position_] == expected;
    }

    void expect(char expected) {
        if (!peek(expected)) {
            fail(fmt::format("'{}' expected", expected));
        }
        ++position_;
    }

    static bool isBare(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '$' || c == '.' || c == '/' || c == ':' || c == '-' || c == '+';
    }

    nlohmann::json value(int depth) {
        if (depth > maxDepth) {
            fail("values nested too deeply");
        }
        skipSpace();
        if (position_ >= text_.size()) {
            fail("a value expected");
        }
        const char c = text_[position_];
        if (c == '{') {
            ++position_;
            auto object = nlohmann::json::object();
            while (!peek('}')) {
                auto key = string();
                expect('=');
                object[std::move(key)] = value(depth + 1);
                expect(';');
            }
            ++position_;
            return object;
        }
        if (c == '(') {
            ++position_;
            auto array = nlohmann::json::array();
            while (!peek(')')) {
                array.push_back(value(depth + 1));
                if (!peek(',')) {
                    break;
                }
                ++position_;
            }
            expect(')');
            return array;
        }
        if (c == '<') {
            const auto end = text_.find('>', position_);
            if (end == std::string_view::npos) {
                fail("unterminated data");
            }
            std::string data(text_.substr(position_, end + 1 - position_));
            position_ = end + 1;
            return data;
        }
        return string();
    }

    std::string string() {
        skipSpace();
        if (position_ >= text_.size()) {
            fail("a string expected");
        }
        if (text_[position_] != '"') {
            const auto start = position_;
            while (position_ < text_.size() && isBare(text_[position_])) {
                ++position_;
            }
            if (position_ == start) {
                fail(fmt::format("unexpected '{}'", text_[position_]));
            }
            return std::string(text_.substr(start, position_ - start));
        }
        ++position_;
        std::string out;
        while (true) {
            if (position_ >= text_.size()) {
                fail("an unterminated string");
            }
            const char c = text_[position_++];
            if (c == '"') {
                return out;
            }
            if (c != '\\') {
                out += c;
                continue;
            }
            if (position_ >= text_.size()) {
                fail("an unterminated string");
            }
            const char escaped = text_[position_++];
            switch (escaped) {
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case 'r':
                out += '\r';
                break;
            case 'a':
                out += '\a';
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'v':
                out += '\v';
                break;
            case 'U':
                appendUtf8(out, hexDigits());
                break;
            default:
                if (escaped >= '0' && escaped <= '7') {
                    unsigned code = static_cast<unsigned>(escaped - '0');
                    for (int digit = 0; digit < 2 && position_ < text_.size() &&
                                        text_[position_] >= '0' && text_[position_] <= '7';
                         ++digit) {
                        code = code * 8 + static_cast<unsigned>(text_[position_++] - '0');
                    }
                    out += static_cast<char>(code & 0xFF);
                } else {
                    out += escaped;
                }
            }
        }
    }

    std::uint32_t hexDigits() {
        std::uint32_t code = 0;
        for (int digit = 0; digit < 4 && position_ < text_.size(); ++digit) {
            const char h = text_[position_];
            const int nibble = h >= '0' && h <= '9'   ? h - '0'
                               : h >= 'a' && h <= 'f' ? h - 'a' + 10
                               : h >= 'A' && h <= 'F' ? h - 'A' + 10
                                                      : -1;
            if (nibble < 0) {
                break;
            }
            code = code * 16 + static_cast<std::uint32_t>(nibble);
            ++position_;
        }
        return code;
    }

    static void appendUtf8(std::string& out, std::uint32_t code) {
        // Lone surrogates have no UTF-8 form.
        if (code >= 0xD800 && code <= 0xDFFF) {
            code = 0xFFFD;
        }
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    std::string_view text_;
    std::size_t position_ = 0;
};

} // namespace

nlohmann::json parseProjectFile(std::string_view text) {
    auto start = text.find_first_not_of(" \t\r\n");
    if (start != std::string_view::npos && text.substr(start).starts_with("<?xml")) {
        return parsePropertyList(text);
    }
    return TextPlistParser(text).document();
}

} // namespace veltra
