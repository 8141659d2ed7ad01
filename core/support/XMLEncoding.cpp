#include "XMLEncoding.h"

#include "Text.h"

#include <cerrno>
#include <iconv.h>

namespace veltra {

std::optional<std::string> XMLEncoding::singleByteName(std::string_view declared) {
    const auto name = asciiLowercase(trimWhitespace(declared));
    if (name == "ascii" || name == "us-ascii" || name == "ansi_x3.4-1968") {
        return "ASCII";
    }
    if (name == "macintosh" || name == "macroman" || name == "mac-roman" || name == "x-mac-roman") {
        return "MACINTOSH";
    }
    for (const std::string_view prefix : {"windows-", "cp", "x-cp"}) {
        if (name.starts_with(prefix)) {
            const auto page = name.substr(prefix.size());
            if (page.size() == 4 && page.starts_with("125") && page[3] >= '0' && page[3] <= '8') {
                return "CP" + page;
            }
        }
    }
    for (const std::string_view prefix : {"iso-8859-", "iso8859-", "iso_8859-", "latin"}) {
        if (name.starts_with(prefix)) {
            const auto part = name.substr(prefix.size());
            if (part.empty() || part.size() > 2 ||
                part.find_first_not_of("0123456789") != std::string::npos) {
                return std::nullopt;
            }
            const int number = std::stoi(part);
            if (prefix == "latin") {
                // latin1..latin10 name ISO-8859 parts that iconv knows as LATIN<n>.
                return number >= 1 && number <= 10 ? std::optional("LATIN" + part) : std::nullopt;
            }
            if (number >= 1 && number <= 16 && number != 12) {
                return "ISO-8859-" + part;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::array<int, 256>> XMLEncoding::byteMap(std::string_view declared) {
    const auto name = singleByteName(declared);
    if (!name) {
        return std::nullopt;
    }
    const iconv_t converter = iconv_open("UTF-32BE", name->c_str());
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        return std::nullopt;
    }
    std::array<int, 256> map{};
    for (int byte = 0; byte < 256; ++byte) {
        char in = static_cast<char>(byte);
        unsigned char out[8] = {};
        char* input = &in;
        std::size_t inLeft = 1;
        char* output = reinterpret_cast<char*>(out);
        std::size_t outLeft = sizeof out;
        iconv(converter, nullptr, nullptr, nullptr, nullptr);
        if (iconv(converter, &input, &inLeft, &output, &outLeft) == static_cast<std::size_t>(-1) ||
            sizeof out - outLeft != 4) {
            map[static_cast<std::size_t>(byte)] = -1;
            continue;
        }
        map[static_cast<std::size_t>(byte)] = out[0] << 24 | out[1] << 16 | out[2] << 8 | out[3];
    }
    iconv_close(converter);
    return map;
}

std::optional<std::string> XMLEncoding::declared(std::string_view document) {
    if (document.starts_with("\xEF\xBB\xBF")) {
        document.remove_prefix(3);
    }
    if (!document.starts_with("<?xml")) {
        return std::nullopt;
    }
    const auto end = document.find("?>");
    const auto declaration = document.substr(0, end);
    const auto key = declaration.find("encoding");
    if (key == std::string_view::npos) {
        return std::nullopt;
    }
    const auto quote = declaration.find_first_of("\"'", key);
    if (quote == std::string_view::npos) {
        return std::nullopt;
    }
    const auto close = declaration.find(declaration[quote], quote + 1);
    if (close == std::string_view::npos) {
        return std::nullopt;
    }
    return std::string(declaration.substr(quote + 1, close - quote - 1));
}

bool XMLEncoding::isReadable(std::string_view name) {
    const auto lower = asciiLowercase(trimWhitespace(name));
    return lower == "utf-8" || lower == "utf8" || lower == "utf-16" || lower == "iso-8859-1" ||
           lower == "us-ascii" || byteMap(name).has_value();
}

} // namespace veltra
