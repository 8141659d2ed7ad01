#pragma once

// The on-disk records of a UDIF image, shared by its writer and its reader. Every number is
// big-endian.

#include <cstdint>
#include <string>
#include <string_view>

namespace veltra::udif {

inline constexpr std::uint32_t kolySignature = 0x6b6f6c79; // "koly"
inline constexpr std::uint32_t mishSignature = 0x6d697368; // "mish"
inline constexpr std::uint32_t checksumCRC32 = 2;
inline constexpr std::size_t trailerSize = 512;
inline constexpr std::size_t mishHeaderSize = 204;
inline constexpr std::size_t chunkEntrySize = 40;

// What a chunk of the data fork holds.
inline constexpr std::uint32_t chunkZero = 0x00000000;
inline constexpr std::uint32_t chunkRaw = 0x00000001;
inline constexpr std::uint32_t chunkIgnore = 0x00000002; // free space, read as zeros
inline constexpr std::uint32_t chunkADC = 0x80000004;
inline constexpr std::uint32_t chunkZlib = 0x80000005;
inline constexpr std::uint32_t chunkBzip2 = 0x80000006;
inline constexpr std::uint32_t chunkLZFSE = 0x80000007;
inline constexpr std::uint32_t chunkLZMA = 0x80000008;
inline constexpr std::uint32_t chunkComment = 0x7ffffffe;
inline constexpr std::uint32_t chunkEnd = 0xffffffff;

inline constexpr std::string_view partitionName = "whole disk (Apple_HFS : 0)";

struct ChunkEntry {
    std::uint32_t type = chunkRaw;
    // Relative to the partition's first sector.
    std::uint64_t sectorNumber = 0;
    std::uint64_t sectorCount = 0;
    std::uint64_t compressedOffset = 0;
    std::uint64_t compressedLength = 0;
};

inline void putUInt32(std::string& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>((value >> shift) & 0xff);
    }
}

inline void putUInt64(std::string& out, std::uint64_t value) {
    putUInt32(out, static_cast<std::uint32_t>(value >> 32));
    putUInt32(out, static_cast<std::uint32_t>(value));
}

inline std::uint32_t getUInt32(std::string_view bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = (value << 8) | static_cast<std::uint8_t>(bytes[at + i]);
    }
    return value;
}

inline std::uint64_t getUInt64(std::string_view bytes, std::size_t at) {
    return (static_cast<std::uint64_t>(getUInt32(bytes, at)) << 32) | getUInt32(bytes, at + 4);
}

// A checksum record: its kind, its width in bits and 128 bytes of value.
inline void putChecksum(std::string& out, std::uint32_t crc) {
    putUInt32(out, checksumCRC32);
    putUInt32(out, 32);
    putUInt32(out, crc);
    out.append(124, '\0');
}

inline void putChunkEntry(std::string& out, const ChunkEntry& entry) {
    putUInt32(out, entry.type);
    putUInt32(out, 0);
    putUInt64(out, entry.sectorNumber);
    putUInt64(out, entry.sectorCount);
    putUInt64(out, entry.compressedOffset);
    putUInt64(out, entry.compressedLength);
}

} // namespace veltra::udif
