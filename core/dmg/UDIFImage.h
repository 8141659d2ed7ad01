#pragma once

#include "core/support/StopToken.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// A UDIF disk image read back: the trailer, the partitions of its `blkx` list and their chunk
// tables, any partition's bytes on demand, and every checksum verified. Bad input of any kind
// gets a VeltraError (400) saying what is wrong and where; nothing is written.
class UDIFImage {
public:
    struct Chunk {
        std::uint32_t type = 0;
        std::uint64_t sectorNumber = 0;
        std::uint64_t sectorCount = 0;
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
    };
    struct Partition {
        std::string name;
        std::uint64_t firstSector = 0;
        std::uint64_t sectorCount = 0;
        std::optional<std::uint32_t> crc32;
        std::vector<Chunk> chunks;
    };

    explicit UDIFImage(const std::filesystem::path& file);
    ~UDIFImage();
    UDIFImage(UDIFImage&&) noexcept;
    UDIFImage& operator=(UDIFImage&&) noexcept;

    const std::vector<Partition>& partitions() const { return partitions_; }
    // "UDZO", "UDBZ", "ULFO", "UDRO" (or "UDCO" for ADC), by the chunks' compression.
    std::string format() const;
    std::uint64_t dataForkLength() const { return dataForkLength_; }

    // The partition that holds an HFS+ or HFSX volume (its signature 1024 bytes in), if any:
    // the only one of a whole-disk image, the Apple_HFS one of a partitioned image.
    const Partition* volumePartition() const;
    // The partition that holds an APFS container, if any.
    const Partition* apfsPartition() const;
    // The partition's bytes at `offset` (zeros past its end are not given: fewer bytes).
    std::string read(const Partition& partition, std::uint64_t offset, std::size_t length) const;
    // Reads every chunk and compares the data fork's, each partition's and the master
    // checksum with the ones recorded. Throws VeltraError naming the first that differs, or
    // the chunk that cannot be expanded; CancellationError when stopped.
    void verify(StopToken stop = {}) const;

private:
    std::string readFork(std::uint64_t offset, std::uint64_t length) const;
    std::string expand(const Chunk& chunk) const;

    int fd_ = -1;
    std::filesystem::path file_;
    std::uint64_t fileSize_ = 0;
    std::uint64_t dataForkOffset_ = 0;
    std::uint64_t dataForkLength_ = 0;
    std::optional<std::uint32_t> dataForkCrc_;
    std::optional<std::uint32_t> masterCrc_;
    std::vector<Partition> partitions_;
    mutable std::optional<std::pair<const Chunk*, std::string>> cached_;
};

} // namespace veltra
