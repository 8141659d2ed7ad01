#include "UDIFImage.h"

#include "UDIFLayout.h"
#include "core/support/Base64.h"
#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <bzlib.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <lzma.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace veltra {

namespace {

using namespace udif;

// Larger tables or chunks than any image has: refused before memory is spent on them.
constexpr std::uint64_t maxPropertyList = 64ull << 20;
constexpr std::uint64_t maxChunkBytes = 64ull << 20;

[[noreturn]] void bad(const std::filesystem::path& file, const std::string& why) {
    throw VeltraError("Veltra", errorCode::invalidSetup,
                      file.filename().string() + " is not a readable UDIF disk image: " + why);
}

std::uint32_t crcOf(std::string_view bytes, std::uint32_t crc = 0) {
    while (!bytes.empty()) {
        const auto part = std::min<std::size_t>(bytes.size(), 1u << 30);
        crc = static_cast<std::uint32_t>(
            crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(part)));
        bytes.remove_prefix(part);
    }
    return crc;
}

// ULMO chunks hold what Apple's LZMA compressor writes (an xz stream); an .lzma stream is read
// too. Exactly `out.size()` bytes must come out, and no more memory than a chunk needs is used.
bool expandLZMA(const std::string& packed, std::string& out) {
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_auto_decoder(&stream, 64u << 20, 0) != LZMA_OK) {
        return false;
    }
    stream.next_in = reinterpret_cast<const std::uint8_t*>(packed.data());
    stream.avail_in = packed.size();
    stream.next_out = reinterpret_cast<std::uint8_t*>(out.data());
    stream.avail_out = out.size();
    const auto result = lzma_code(&stream, LZMA_FINISH);
    const bool whole = result == LZMA_STREAM_END && stream.avail_out == 0;
    lzma_end(&stream);
    return whole;
}

// A checksum record's CRC32, if it is one.
std::optional<std::uint32_t> checksumAt(std::string_view bytes, std::size_t at) {
    if (getUInt32(bytes, at) != checksumCRC32 || getUInt32(bytes, at + 4) != 32) {
        return std::nullopt;
    }
    return getUInt32(bytes, at + 8);
}

std::string hex(std::uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", value);
    return text;
}

} // namespace

UDIFImage::UDIFImage(const std::filesystem::path& file) : file_(file) {
    fd_ = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd_ < 0 || ::fstat(fd_, &info) != 0) {
        throw VeltraError("POSIX", errno,
                          "Could not open " + file.string() + ": " + std::strerror(errno));
    }
    fileSize_ = static_cast<std::uint64_t>(info.st_size);
    if (fileSize_ < trailerSize) {
        bad(file_, "it is too short to hold the 512-byte trailer");
    }
    // An encrypted image wraps the whole UDIF file: "encrcdsa" at its start (version 2) or
    // "cdsaencr" at its end (version 1).
    if (fileSize_ >= 8 &&
        (readFork(0, 8) == "encrcdsa" || readFork(fileSize_ - 8, 8) == "cdsaencr")) {
        bad(file_, "it is encrypted (a password-protected image); Veltra reads only images that "
                   "are not");
    }
    const auto koly = readFork(fileSize_ - trailerSize, trailerSize);
    if (getUInt32(koly, 0) != kolySignature) {
        bad(file_, "there is no 'koly' trailer at its end (a raw or read-write image?)");
    }
    if (getUInt32(koly, 8) != trailerSize) {
        bad(file_, "the trailer's size is " + std::to_string(getUInt32(koly, 8)) + ", not 512");
    }
    dataForkOffset_ = getUInt64(koly, 24);
    dataForkLength_ = getUInt64(koly, 32);
    const auto xmlOffset = getUInt64(koly, 216);
    const auto xmlLength = getUInt64(koly, 224);
    const auto end = fileSize_ - trailerSize;
    if (dataForkOffset_ > end || dataForkLength_ > end - dataForkOffset_) {
        bad(file_, "its data fork reaches past the end of the file");
    }
    if (xmlLength == 0 || xmlOffset > end || xmlLength > end - xmlOffset ||
        xmlLength > maxPropertyList) {
        bad(file_, "its property list is missing or lies outside the file");
    }
    dataForkCrc_ = checksumAt(koly, 80);
    masterCrc_ = checksumAt(koly, 352);

    nlohmann::json list;
    try {
        list = parsePropertyList(readFork(xmlOffset, xmlLength));
    } catch (const VeltraError& error) {
        bad(file_, "its property list does not read (" + error.message() + ")");
    }
    const auto* blkx =
        list.is_object() && list.contains("resource-fork") && list["resource-fork"].is_object() &&
                list["resource-fork"].contains("blkx") && list["resource-fork"]["blkx"].is_array()
            ? &list["resource-fork"]["blkx"]
            : nullptr;
    if (blkx == nullptr || blkx->empty()) {
        bad(file_, "its property list has no 'blkx' partition list");
    }
    for (const auto& entry : *blkx) {
        Partition partition;
        partition.name = entry.is_object() && entry.value("Name", nlohmann::json()).is_string()
                             ? entry["Name"].get<std::string>()
                             : "partition " + std::to_string(partitions_.size());
        const auto* data = entry.is_object() && entry.contains("Data") && entry["Data"].is_string()
                               ? &entry["Data"]
                               : nullptr;
        const auto decoded = data ? base64::decode(data->get<std::string>()) : std::nullopt;
        if (!decoded) {
            bad(file_, "the partition '" + partition.name + "' has no block table");
        }
        const std::string_view mish(reinterpret_cast<const char*>(decoded->data()),
                                    decoded->size());
        if (mish.size() < mishHeaderSize || getUInt32(mish, 0) != mishSignature) {
            bad(file_, "the block table of '" + partition.name + "' is not a 'mish' table");
        }
        partition.firstSector = getUInt64(mish, 8);
        partition.sectorCount = getUInt64(mish, 16);
        const auto base = getUInt64(mish, 24);
        partition.crc32 = checksumAt(mish, 64);
        const auto count = getUInt32(mish, 200);
        if (count > (mish.size() - mishHeaderSize) / chunkEntrySize) {
            bad(file_, "the block table of '" + partition.name + "' is cut short");
        }
        std::uint64_t expected = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            const auto at = mishHeaderSize + i * chunkEntrySize;
            Chunk chunk{getUInt32(mish, at), getUInt64(mish, at + 8), getUInt64(mish, at + 16),
                        getUInt64(mish, at + 24), getUInt64(mish, at + 32)};
            if (chunk.type == chunkEnd) {
                break;
            }
            if (chunk.type == chunkComment) {
                continue;
            }
            const auto where = "chunk " + std::to_string(i) + " of '" + partition.name + "'";
            if (chunk.sectorNumber != expected || chunk.sectorCount > maxChunkBytes / 512 ||
                chunk.sectorCount >
                    partition.sectorCount - std::min(partition.sectorCount, chunk.sectorNumber)) {
                bad(file_, where + " does not follow the one before it");
            }
            expected += chunk.sectorCount;
            if (chunk.type != chunkZero && chunk.type != chunkIgnore) {
                if (base > dataForkLength_ || chunk.offset > dataForkLength_ - base ||
                    chunk.length > dataForkLength_ - base - chunk.offset ||
                    chunk.length > maxChunkBytes) {
                    bad(file_, where + " lies outside the data fork");
                }
                chunk.offset += base;
            }
            partition.chunks.push_back(chunk);
        }
        partitions_.push_back(std::move(partition));
    }
}

UDIFImage::~UDIFImage() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

UDIFImage::UDIFImage(UDIFImage&& other) noexcept {
    *this = std::move(other);
}

UDIFImage& UDIFImage::operator=(UDIFImage&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = std::exchange(other.fd_, -1);
        file_ = std::move(other.file_);
        fileSize_ = other.fileSize_;
        dataForkOffset_ = other.dataForkOffset_;
        dataForkLength_ = other.dataForkLength_;
        dataForkCrc_ = other.dataForkCrc_;
        masterCrc_ = other.masterCrc_;
        partitions_ = std::move(other.partitions_);
        cached_.reset();
    }
    return *this;
}

std::string UDIFImage::readFork(std::uint64_t offset, std::uint64_t length) const {
    std::string bytes(length, '\0');
    std::size_t done = 0;
    while (done < length) {
        const auto count =
            ::pread(fd_, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            bad(file_, "it ends before the data its tables point to");
        }
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

std::string UDIFImage::format() const {
    for (const auto& partition : partitions_) {
        for (const auto& chunk : partition.chunks) {
            switch (chunk.type) {
            case chunkZlib:
                return "UDZO";
            case chunkBzip2:
                return "UDBZ";
            case chunkLZFSE:
                return "ULFO";
            case chunkLZMA:
                return "ULMO";
            case chunkADC:
                return "UDCO";
            default:
                break;
            }
        }
    }
    return "UDRO";
}

std::string UDIFImage::expand(const Chunk& chunk) const {
    const auto size = static_cast<std::size_t>(chunk.sectorCount * 512);
    const auto where = "a chunk at sector " + std::to_string(chunk.sectorNumber);
    switch (chunk.type) {
    case chunkZero:
    case chunkIgnore:
        return std::string(size, '\0');
    case chunkRaw: {
        auto bytes = readFork(dataForkOffset_ + chunk.offset, chunk.length);
        if (bytes.size() != size) {
            bad(file_, where + " holds " + std::to_string(bytes.size()) + " bytes, not " +
                           std::to_string(size));
        }
        return bytes;
    }
    case chunkZlib: {
        const auto packed = readFork(dataForkOffset_ + chunk.offset, chunk.length);
        std::string bytes(size, '\0');
        uLongf length = size;
        if (uncompress(reinterpret_cast<Bytef*>(bytes.data()), &length,
                       reinterpret_cast<const Bytef*>(packed.data()),
                       static_cast<uLong>(packed.size())) != Z_OK ||
            length != size) {
            bad(file_,
                where + " does not expand with zlib to its " + std::to_string(size) + " bytes");
        }
        return bytes;
    }
    case chunkBzip2: {
        auto packed = readFork(dataForkOffset_ + chunk.offset, chunk.length);
        std::string bytes(size, '\0');
        auto length = static_cast<unsigned>(size);
        if (BZ2_bzBuffToBuffDecompress(bytes.data(), &length, packed.data(),
                                       static_cast<unsigned>(packed.size()), 0, 0) != BZ_OK ||
            length != size) {
            bad(file_,
                where + " does not expand with bzip2 to its " + std::to_string(size) + " bytes");
        }
        return bytes;
    }
    case chunkLZMA: {
        const auto packed = readFork(dataForkOffset_ + chunk.offset, chunk.length);
        std::string bytes(size, '\0');
        if (!expandLZMA(packed, bytes)) {
            bad(file_,
                where + " does not expand with LZMA to its " + std::to_string(size) + " bytes");
        }
        return bytes;
    }
    case chunkLZFSE:
    case chunkADC:
        bad(file_, where + " is compressed with " +
                       (chunk.type == chunkLZFSE ? std::string("LZFSE") : std::string("ADC")) +
                       ", which this build of Veltra cannot expand");
    default:
        bad(file_, where + " has the unknown kind 0x" + hex(chunk.type));
    }
}

std::string UDIFImage::read(const Partition& partition, std::uint64_t offset,
                            std::size_t length) const {
    std::string out;
    const auto& chunks = partition.chunks;
    while (out.size() < length) {
        const auto sector = (offset + out.size()) / 512;
        const auto found = std::upper_bound(
            chunks.begin(), chunks.end(), sector,
            [](std::uint64_t s, const Chunk& chunk) { return s < chunk.sectorNumber; });
        if (found == chunks.begin()) {
            break;
        }
        const auto& chunk = *std::prev(found);
        if (sector >= chunk.sectorNumber + chunk.sectorCount) {
            break;
        }
        if (!cached_ || cached_->first != &chunk) {
            cached_.emplace(&chunk, expand(chunk));
        }
        const auto& bytes = cached_->second;
        const auto within = offset + out.size() - chunk.sectorNumber * 512;
        const auto take = std::min<std::uint64_t>(length - out.size(), bytes.size() - within);
        out.append(bytes, static_cast<std::size_t>(within), static_cast<std::size_t>(take));
    }
    return out;
}

const UDIFImage::Partition* UDIFImage::apfsPartition() const {
    for (const auto& partition : partitions_) {
        // An APFS container's superblock names itself 32 bytes into its first block.
        if (read(partition, 32, 4) == "NXSB") {
            return &partition;
        }
    }
    return nullptr;
}

const UDIFImage::Partition* UDIFImage::volumePartition() const {
    for (const auto& partition : partitions_) {
        const auto signature = read(partition, 1024, 2);
        if (signature == "H+" || signature == "HX") {
            return &partition;
        }
    }
    return nullptr;
}

void UDIFImage::verify(StopToken stop) const {
    if (dataForkCrc_) {
        std::uint32_t crc = 0;
        constexpr std::uint64_t block = 8u << 20;
        for (std::uint64_t at = 0; at < dataForkLength_; at += block) {
            if (stop.stop_requested()) {
                throw CancellationError();
            }
            crc = crcOf(readFork(dataForkOffset_ + at, std::min(block, dataForkLength_ - at)), crc);
        }
        if (crc != *dataForkCrc_) {
            bad(file_, "the data fork's CRC32 is " + hex(crc) + ", the trailer records " +
                           hex(*dataForkCrc_));
        }
    }
    std::string partitionSums;
    for (const auto& partition : partitions_) {
        std::uint32_t crc = 0;
        for (const auto& chunk : partition.chunks) {
            if (stop.stop_requested()) {
                throw CancellationError();
            }
            // hdiutil leaves 'ignore' chunks out of the partition's checksum.
            if (chunk.type != chunkIgnore) {
                crc = crcOf(expand(chunk), crc);
            }
        }
        if (partition.crc32) {
            if (crc != *partition.crc32) {
                bad(file_, "the partition '" + partition.name + "' has the CRC32 " + hex(crc) +
                               ", its table records " + hex(*partition.crc32));
            }
            putUInt32(partitionSums, crc);
        }
    }
    if (masterCrc_ && !partitionSums.empty() && crcOf(partitionSums) != *masterCrc_) {
        bad(file_, "the master checksum is " + hex(crcOf(partitionSums)) +
                       ", the trailer records " + hex(*masterCrc_));
    }
}

} // namespace veltra
