#include "ProjectFileParser.h"

#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"

#include <cstdint>
#include <optional>
#include <string>

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
    std::size_t lineOf(std::size_t offset) const {
        std::size_t line = 1;
        for (std::size_t index = 0; index < offset && index < text_.size(); ++index) {
            line += text_[index] == '\n' ? 1u : 0u;
        }
        return line;
    }

    [[noreturn]] void fail(std::string_view what) const {
        auto message =
            fmt::format("The project file is not readable: {} on line {}", what, lineOf(position_));
        // Xcode writes every comment and string on one line: one that runs on is where the
        // reading went astray, however much later it stopped.
        if (const auto runOn = runOnText()) {
            message += " (" + *runOn + ")";
        }
        throw VeltraError("Veltra", errorCode::invalidSetup, message + ".");
    }

public:
    std::optional<std::string> runOnText() const {
        if (!runOn_) {
            return std::nullopt;
        }
        return fmt::format("the {} that opens on line {} runs on to line {}", runOn_->what,
                           lineOf(runOn_->begin), lineOf(runOn_->end));
    }

private:
    void noteRunOn(std::string_view what, std::size_t begin, std::size_t end) {
        if (!runOn_ && text_.substr(begin, end - begin).find('\n') != std::string_view::npos) {
            runOn_ = RunOn{std::string(what), begin, end};
        }
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
                noteRunOn("comment", position_, end);
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
        const auto opened = position_;
        ++position_;
        std::string out;
        while (true) {
            if (position_ >= text_.size()) {
                noteRunOn("string", opened, position_);
                fail("an unterminated string");
            }
            const char c = text_[position_++];
            if (c == '"') {
                noteRunOn("string", opened, position_);
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

    struct RunOn {
        std::string what;
        std::size_t begin;
        std::size_t end;
    };

    std::string_view text_;
    std::size_t position_ = 0;
    std::optional<RunOn> runOn_{};
};

} // namespace

std::optional<std::string> projectFileRunOn(std::string_view text) {
    TextPlistParser parser(text);
    try {
        parser.document();
    } catch (const VeltraError&) {
    }
    return parser.runOnText();
}

nlohmann::json parseProjectFile(std::string_view text) {
    auto start = text.find_first_not_of(" \t\r\n");
    if (start != std::string_view::npos && text.substr(start).starts_with("<?xml")) {
        return parsePropertyList(text);
    }
    return TextPlistParser(text).document();
}

} // namespace veltra
