#pragma once

#include "DSStoreError.h"
#include "FourCC.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace dsstore {

using Bytes = std::vector<std::uint8_t>;

// A big-endian cursor over bytes it does not own. Every read checks the remaining length first,
// so a length field read from a file can never make it allocate more than the file holds.
class BinaryReader {
public:
    enum class Error {
        unexpectedEnd,
        invalidOffset,
        invalidSkip,
        invalidASCIIString,
        invalidUTF16String
    };

    class Failure : public DSStoreError {
    public:
        explicit Failure(Error kind);
        Error error;
    };

    static const char* message(Error error) noexcept;

    explicit BinaryReader(std::span<const std::uint8_t> data) : data_(data) {}

    std::size_t position() const noexcept { return position_; }
    std::size_t remaining() const noexcept { return data_.size() - position_; }
    std::span<const std::uint8_t> data() const noexcept { return data_; }

    void seek(std::size_t offset);
    void skip(std::size_t length);

    std::uint8_t readUInt8();
    std::uint16_t readUInt16();
    std::uint32_t readUInt32();
    std::uint64_t readUInt64();
    FourCC readFourCC() { return FourCC(readUInt32()); }
    // A view of the next bytes, valid as long as the underlying data.
    std::span<const std::uint8_t> readSpan(std::size_t length);
    Bytes readBytes(std::size_t length);
    // Bytes that must all be 7-bit ASCII.
    std::string readASCII(std::size_t length);
    // UTF-16BE code units, returned as UTF-8; unpaired surrogates are an error.
    std::string readUTF16String(std::size_t codeUnits);

private:
    void require(std::size_t length) const;

    std::span<const std::uint8_t> data_;
    std::size_t position_ = 0;
};

} // namespace dsstore
