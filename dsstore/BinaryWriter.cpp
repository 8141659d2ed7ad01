#include "BinaryWriter.h"

namespace dsstore {

std::optional<std::u16string> utf16FromUTF8(std::string_view utf8) {
    std::u16string units;
    units.reserve(utf8.size());
    std::size_t i = 0;
    while (i < utf8.size()) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        if (lead < 0x80) {
            units += static_cast<char16_t>(lead);
            ++i;
            continue;
        }
        std::size_t length = 0;
        char32_t point = 0;
        char32_t minimum = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2, point = lead & 0x1F, minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3, point = lead & 0x0F, minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4, point = lead & 0x07, minimum = 0x10000;
        } else {
            return std::nullopt;
        }
        if (i + length > utf8.size()) {
            return std::nullopt;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(utf8[i + k]);
            if ((next & 0xC0) != 0x80) {
                return std::nullopt;
            }
            point = point << 6 | (next & 0x3F);
        }
        if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return std::nullopt;
        }
        if (point >= 0x10000) {
            point -= 0x10000;
            units += static_cast<char16_t>(0xD800 + (point >> 10));
            units += static_cast<char16_t>(0xDC00 + (point & 0x3FF));
        } else {
            units += static_cast<char16_t>(point);
        }
        i += length;
    }
    return units;
}

BinaryWriter::Failure::Failure(Error kind) : DSStoreError("Invalid ASCII string"), error(kind) {}

void BinaryWriter::writeUInt16(std::uint16_t value) {
    data.push_back(static_cast<std::uint8_t>(value >> 8));
    data.push_back(static_cast<std::uint8_t>(value));
}

void BinaryWriter::writeUInt32(std::uint32_t value) {
    const std::uint8_t bytes[4] = {
        static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
        static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
    data.insert(data.end(), bytes, bytes + 4);
}

void BinaryWriter::writeUInt64(std::uint64_t value) {
    writeUInt32(static_cast<std::uint32_t>(value >> 32));
    writeUInt32(static_cast<std::uint32_t>(value));
}

void BinaryWriter::writeBytes(std::span<const std::uint8_t> bytes) {
    data.insert(data.end(), bytes.begin(), bytes.end());
}

void BinaryWriter::writeASCII(std::string_view text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) > 0x7F) {
            throw Failure(Error::invalidASCIIString);
        }
    }
    data.insert(data.end(), text.begin(), text.end());
}

void BinaryWriter::writeUTF16(std::u16string_view units) {
    const auto start = data.size();
    data.resize(start + units.size() * 2);
    auto* out = data.data() + start;
    for (const char16_t unit : units) {
        *out++ = static_cast<std::uint8_t>(unit >> 8);
        *out++ = static_cast<std::uint8_t>(unit);
    }
}

void BinaryWriter::padTo(std::size_t size) {
    if (data.size() < size) {
        data.resize(size, 0);
    }
}

} // namespace dsstore
