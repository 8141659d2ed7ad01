#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// The single-byte encodings a feed may declare beyond the four expat knows by name (UTF-8,
// UTF-16, ISO-8859-1, US-ASCII), as Sparkle's own reader accepts them: "ASCII", the Windows code
// pages ("windows-1252", "cp1252"), the ISO-8859 family and MacRoman ("macintosh").
class XMLEncoding {
public:
    // iconv's name for a declared encoding, compared without regard to case; nothing for an
    // encoding that is not one of these.
    static std::optional<std::string> singleByteName(std::string_view declared);

    // Each byte's Unicode code point, -1 where the byte means nothing; nothing when iconv does
    // not know the encoding.
    static std::optional<std::array<int, 256>> byteMap(std::string_view declared);

    // The encoding the XML declaration names, if any.
    static std::optional<std::string> declared(std::string_view document);
    // Whether a document that declares `name` can be read (expat's own four and the above).
    static bool isReadable(std::string_view name);
};

} // namespace veltra
