#include "Record.h"

#include "BinaryWriter.h"

#include <cstdlib>
#include <memory>
#include <utf8proc.h>

namespace dsstore {

std::u16string RecordKey::foldedName(std::string_view filename) {
    bool ascii = true;
    for (const char c : filename) {
        ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    }
    if (ascii) {
        std::u16string folded(filename.size(), u'\0');
        for (std::size_t i = 0; i < filename.size(); ++i) {
            const auto c = filename[i];
            folded[i] = static_cast<char16_t>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
        }
        return folded;
    }
    utf8proc_uint8_t* mapped = nullptr;
    const auto length =
        utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(filename.data()),
                     static_cast<utf8proc_ssize_t>(filename.size()), &mapped,
                     static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD |
                                                    UTF8PROC_STRIPMARK));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owned(mapped, &std::free);
    if (length < 0) {
        // Not valid UTF-8: such a name cannot be written anyway; order it by its raw bytes.
        return std::u16string(filename.begin(), filename.end());
    }
    auto units = utf16FromUTF8(
        std::string_view(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length)));
    return units ? std::move(*units) : std::u16string();
}

int RecordKey::compareNames(std::string_view a, std::string_view b) {
    return foldedName(a).compare(foldedName(b));
}

bool operator<(const RecordKey& a, const RecordKey& b) {
    const int names = RecordKey::compareNames(a.filename, b.filename);
    return names != 0 ? names < 0 : a.typeCode < b.typeCode;
}

} // namespace dsstore
