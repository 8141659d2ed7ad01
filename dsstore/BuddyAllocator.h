#pragma once

#include "DSStoreError.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace dsstore {

struct Range {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
};

struct AllocatedBlock {
    std::uint32_t blockID = 0;
    std::uint32_t offset = 0;
    std::uint32_t sizePower = 0;

    std::uint64_t size() const noexcept { return std::uint64_t{1} << sizePower; }
};

// The block table of the file: each block lives at a power-of-two size aligned to that size,
// inside a 2^31-byte space whose first 32 bytes are the file header.
struct BuddyAllocator {
    enum class Error { invalidBlockAddress };

    class Failure : public DSStoreError {
    public:
        explicit Failure(Error kind) : DSStoreError("Invalid block address"), error(kind) {}
        Error error;
    };

    static constexpr std::uint32_t minimumSizePower = 5;
    static constexpr std::uint32_t spacePower = 31;

    // Addresses by block number; 0 marks a number with no block.
    std::vector<std::uint32_t> blockAddresses;
    std::optional<std::uint32_t> blockCount;
    std::map<std::string, std::uint32_t> tableOfContents;
    // List i holds the offsets of free blocks of 2^i bytes.
    std::array<std::vector<std::uint32_t>, 32> freeLists;

    // The state of a file with nothing in it yet: one free block of every size from 32 bytes to
    // 1 GiB, each at the offset equal to its size.
    static BuddyAllocator fresh();

    // The offset and size an address stands for; throws Failure for an address that cannot be a
    // block (no block, under 32 bytes, misaligned, past the 2^31-byte space).
    static Range decodeAddress(std::uint32_t address);
    static std::uint32_t encodeAddress(std::uint32_t offset, std::uint32_t sizePower) noexcept {
        return offset | sizePower;
    }

    // Gives block blockID room for byteCount bytes: the size rounds up to a power of two, the
    // smallest free block that fits is taken, and larger ones are split, the upper halves freed.
    AllocatedBlock allocate(std::uint32_t blockID, std::uint64_t byteCount);

    // True when the header, the blocks and the free lists tile the whole space without gaps or
    // overlaps, which is how Finder keeps its files.
    bool coversAddressSpaceExactly() const;
};

} // namespace dsstore
