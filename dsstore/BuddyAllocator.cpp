#include "BuddyAllocator.h"

#include <algorithm>
#include <bit>

namespace dsstore {

BuddyAllocator BuddyAllocator::fresh() {
    BuddyAllocator allocator;
    for (std::uint32_t power = minimumSizePower; power < spacePower; ++power) {
        allocator.freeLists[power].push_back(std::uint32_t{1} << power);
    }
    return allocator;
}

Range BuddyAllocator::decodeAddress(std::uint32_t address) {
    const std::uint32_t power = address & 0x1F;
    const std::uint32_t offset = address & ~std::uint32_t{0x1F};
    const std::uint64_t size = std::uint64_t{1} << power;
    if (power < minimumSizePower || offset % size != 0 ||
        offset + size > (std::uint64_t{1} << spacePower)) {
        throw Failure(Error::invalidBlockAddress);
    }
    return Range{offset, size};
}

AllocatedBlock BuddyAllocator::allocate(std::uint32_t blockID, std::uint64_t byteCount) {
    const auto wanted = std::max<std::uint64_t>(
        std::bit_ceil(std::max<std::uint64_t>(byteCount, 1)), std::uint64_t{1} << minimumSizePower);
    const auto power = static_cast<std::uint32_t>(std::countr_zero(wanted));
    std::uint32_t source = power;
    while (source < spacePower && freeLists[source].empty()) {
        ++source;
    }
    if (source >= spacePower) {
        throw DSStoreError("The store does not fit in a .DS_Store file");
    }
    // Lowest offset first keeps the file short.
    auto& list = freeLists[source];
    const auto lowest = std::ranges::min_element(list);
    const std::uint32_t offset = *lowest;
    list.erase(lowest);
    for (std::uint32_t half = source; half > power; --half) {
        freeLists[half - 1].push_back(offset + (std::uint32_t{1} << (half - 1)));
    }
    if (blockAddresses.size() <= blockID) {
        blockAddresses.resize(blockID + std::size_t{1}, 0);
    }
    blockAddresses[blockID] = encodeAddress(offset, power);
    blockCount = static_cast<std::uint32_t>(blockAddresses.size());
    return AllocatedBlock{blockID, offset, power};
}

bool BuddyAllocator::coversAddressSpaceExactly() const {
    std::vector<Range> pieces{{0, std::uint64_t{1} << minimumSizePower}};
    for (const auto address : blockAddresses) {
        if (address == 0) {
            continue;
        }
        try {
            pieces.push_back(decodeAddress(address));
        } catch (const Failure&) {
            return false;
        }
    }
    for (std::uint32_t power = 0; power < freeLists.size(); ++power) {
        for (const auto offset : freeLists[power]) {
            pieces.push_back({offset, std::uint64_t{1} << power});
        }
    }
    std::ranges::sort(pieces, {}, &Range::offset);
    std::uint64_t next = 0;
    for (const auto& piece : pieces) {
        if (piece.offset != next) {
            return false;
        }
        next = piece.offset + piece.size;
    }
    return next == std::uint64_t{1} << spacePower;
}

} // namespace dsstore
