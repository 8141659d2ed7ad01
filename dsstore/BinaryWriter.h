#pragma once

#include "DSStoreError.h"
#include "FourCC.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace dsstore {

// Converts UTF-8 to UTF-16 code units; nullopt when the bytes are not well-formed UTF-8.
std::optional<std::u16string> utf16FromUTF8(std::string_view utf8);

// A big-endian byte sink that grows as it is written.
class BinaryWriter {
public:
    enum class Error { invalidASCIIString };

    class Failure : public DSStoreError {
    public:
        explicit Failure(Error kind);
        Error error;
    };

    std::vector<std::uint8_t> data;

    std::size_t size() const noexcept { return data.size(); }

    void writeUInt8(std::uint8_t value) { data.push_back(value); }
    void writeUInt16(std::uint16_t value);
    void writeUInt32(std::uint32_t value);
    void writeUInt64(std::uint64_t value);
    void writeFourCC(FourCC code) { writeUInt32(code.rawValue); }
    void writeBytes(std::span<const std::uint8_t> bytes);
    // Rejects text with any byte outside 7-bit ASCII.
    void writeASCII(std::string_view text);
    void writeUTF16(std::u16string_view units);
    // Zero bytes up to the given size.
    void padTo(std::size_t size);
};

} // namespace dsstore
