#pragma once

#include "core/support/StopToken.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace veltra {

// The image formats a UDIF file can be written in: zlib (UDZO), bzip2 (UDBZ), LZMA (ULMO, macOS
// 10.15 and later), uncompressed (UDRO), LZFSE (ULFO, only where an LZFSE library is built in).
enum class UDIFFormat { udzo, udbz, ulmo, udro, ulfo };
std::string_view rawValue(UDIFFormat format); // "UDZO", ...
// The format of that name; VeltraError (400) naming it for any other, and for ULFO when this
// build has no LZFSE compressor.
UDIFFormat udifFormat(std::string_view name);

// Writes a UDIF disk image of one partition (a whole-disk volume, as `hdiutil create -layout
// NONE` makes): the volume's bytes, given in order, go into the data fork in 1 MiB chunks
// compressed on every core, then the `blkx` resource with its `mish` table, and the 512-byte
// `koly` trailer, with CRC32 checksums of the partition and of the data fork. At most a few
// chunks per core are in memory, whatever the volume's size.
class UDIFWriter {
public:
    struct Options {
        UDIFFormat format = UDIFFormat::udzo;
        // zlib's level for UDZO, LZMA's preset for ULMO (1 to 9); bzip2 always uses its largest
        // blocks.
        int level = 1;
        // Compressing threads; every core when 0.
        unsigned threads = 0;
    };
    static constexpr std::size_t chunkSectors = 2048;
    static constexpr std::size_t sectorSize = 512;

    // Creates `file` (replacing nothing: VeltraError when it exists).
    UDIFWriter(const std::filesystem::path& file, Options options, StopToken stop = {});
    ~UDIFWriter();
    UDIFWriter(const UDIFWriter&) = delete;
    UDIFWriter& operator=(const UDIFWriter&) = delete;

    // The volume's next bytes.
    void write(std::span<const char> bytes);
    // Pads the volume to whole sectors and writes the tables and the trailer. Throws
    // VeltraError on a write failure, CancellationError when stopped; the file is then removed.
    void finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace veltra
