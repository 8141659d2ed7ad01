#include "BinaryReader.h"

namespace dsstore {

BinaryReader::Failure::Failure(Error kind) : DSStoreError(message(kind)), error(kind) {}

const char* BinaryReader::message(Error error) noexcept {
    switch (error) {
    case Error::unexpectedEnd:
        return "Unexpected end of data";
    case Error::invalidOffset:
        return "Invalid seek offset";
    case Error::invalidSkip:
        return "Invalid skip length";
    case Error::invalidASCIIString:
        return "Invalid ASCII string";
    case Error::invalidUTF16String:
        return "Invalid UTF-16 string";
    }
    return "Unexpected end of data";
}

void BinaryReader::require(std::size_t length) const {
    if (length > remaining()) {
        throw Failure(Error::unexpectedEnd);
    }
}

void BinaryReader::seek(std::size_t offset) {
    if (offset > data_.size()) {
        throw Failure(Error::invalidOffset);
    }
    position_ = offset;
}

void BinaryReader::skip(std::size_t length) {
    if (length > remaining()) {
        throw Failure(Error::invalidSkip);
    }
    position_ += length;
}

std::uint8_t BinaryReader::readUInt8() {
    require(1);
    return data_[position_++];
}

std::uint16_t BinaryReader::readUInt16() {
    require(2);
    const auto value = static_cast<std::uint16_t>(data_[position_] << 8 | data_[position_ + 1]);
    position_ += 2;
    return value;
}

std::uint32_t BinaryReader::readUInt32() {
    require(4);
    const auto* p = data_.data() + position_;
    position_ += 4;
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | static_cast<std::uint32_t>(p[3]);
}

std::uint64_t BinaryReader::readUInt64() {
    const std::uint64_t high = readUInt32();
    return high << 32 | readUInt32();
}

std::span<const std::uint8_t> BinaryReader::readSpan(std::size_t length) {
    require(length);
    const auto view = data_.subspan(position_, length);
    position_ += length;
    return view;
}

Bytes BinaryReader::readBytes(std::size_t length) {
    const auto view = readSpan(length);
    return Bytes(view.begin(), view.end());
}

std::string BinaryReader::readASCII(std::size_t length) {
    const auto view = readSpan(length);
    std::string text(view.begin(), view.end());
    for (const char c : text) {
        if (static_cast<unsigned char>(c) > 0x7F) {
            throw Failure(Error::invalidASCIIString);
        }
    }
    return text;
}

std::string BinaryReader::readUTF16String(std::size_t codeUnits) {
    if (codeUnits > remaining() / 2) {
        throw Failure(Error::unexpectedEnd);
    }
    const auto view = readSpan(codeUnits * 2);
    std::string text;
    text.reserve(codeUnits);
    for (std::size_t i = 0; i < codeUnits; ++i) {
        char32_t unit = static_cast<char32_t>(view[2 * i] << 8 | view[2 * i + 1]);
        if (unit >= 0xD800 && unit <= 0xDFFF) {
            if (unit > 0xDBFF || i + 1 == codeUnits) {
                throw Failure(Error::invalidUTF16String);
            }
            const auto low = static_cast<char32_t>(view[2 * i + 2] << 8 | view[2 * i + 3]);
            if (low < 0xDC00 || low > 0xDFFF) {
                throw Failure(Error::invalidUTF16String);
            }
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        }
        if (unit < 0x80) {
            text += static_cast<char>(unit);
        } else if (unit < 0x800) {
            text += static_cast<char>(0xC0 | unit >> 6);
            text += static_cast<char>(0x80 | (unit & 0x3F));
        } else if (unit < 0x10000) {
            text += static_cast<char>(0xE0 | unit >> 12);
            text += static_cast<char>(0x80 | (unit >> 6 & 0x3F));
            text += static_cast<char>(0x80 | (unit & 0x3F));
        } else {
            text += static_cast<char>(0xF0 | unit >> 18);
            text += static_cast<char>(0x80 | (unit >> 12 & 0x3F));
            text += static_cast<char>(0x80 | (unit >> 6 & 0x3F));
            text += static_cast<char>(0x80 | (unit & 0x3F));
        }
    }
    return text;
}

} // namespace dsstore
