#pragma once

#include "core/support/StopToken.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace veltra {

// An HFS+ volume read through a function that returns its bytes: the volume header and the
// catalog's folder listings. Anything that is not a well-formed volume gets a VeltraError (400)
// naming what is wrong; nothing is trusted (node numbers, offsets, lengths, loops).
class HFSPlusVolume {
public:
    // `length` bytes at `offset` of the volume; fewer at its end.
    using Reader = std::function<std::string(std::uint64_t offset, std::size_t length)>;

    struct Entry {
        enum class Kind { folder, file, symlink };
        // As Finder shows it (composed, NFC), though HFS+ stores it decomposed.
        std::string name;
        Kind kind = Kind::file;
        std::uint64_t size = 0;
        std::uint16_t mode = 0;
        std::uint32_t id = 0;
        // Finder's flags (hidden extension, custom icon, ...).
        std::uint16_t finderFlags = 0;
        // Where its catalog record's data starts on the volume (its Finder info is 48 bytes in).
        std::uint64_t recordOffset = 0;
    };

    explicit HFSPlusVolume(Reader reader);

    // "H+" (case-insensitive HFS+) or "HX" (case-sensitive HFSX).
    const std::string& signature() const { return signature_; }
    std::uint32_t blockSize() const { return blockSize_; }
    std::uint64_t totalBytes() const { return static_cast<std::uint64_t>(blockSize_) * blocks_; }
    const std::string& volumeName() const { return volumeName_; }
    // Whether Finder shows the volume with its .VolumeIcon.icns.
    bool hasCustomIcon() const { return customIcon_; }
    // The header's creation date, seconds since 1970.
    std::int64_t createdAt() const { return createdAt_; }
    // The folder's entries in catalog order; the root folder is ID 2, and the one entry of
    // "folder" 1 is the root folder itself.
    std::vector<Entry> list(std::uint32_t folderID = rootFolderID) const;

    static constexpr std::uint32_t rootParentID = 1;
    static constexpr std::uint32_t rootFolderID = 2;

private:
    struct Record {
        std::uint32_t parentID;
        std::string key;
        std::string data;
        // Where `data` starts in the catalog file.
        std::uint64_t catalogOffset;
    };
    // Every leaf record of the catalog, calling `visit` until it returns false.
    void forEachRecord(const std::function<bool(const Record&)>& visit) const;
    std::string readCatalog(std::uint64_t offset, std::size_t length) const;
    std::uint64_t volumeOffset(std::uint64_t catalogOffset) const;

    Reader reader_;
    std::string signature_;
    std::uint32_t blockSize_ = 0;
    std::uint32_t blocks_ = 0;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> catalogExtents_; // bytes: offset, length
    std::uint64_t catalogSize_ = 0;
    std::uint16_t nodeSize_ = 0;
    std::uint32_t firstLeaf_ = 0;
    std::string volumeName_;
    bool customIcon_ = false;
    std::int64_t createdAt_ = 0;
};

struct HFSPlusVolumeOptions {
    std::string name;
    // Finder shows the volume with its .VolumeIcon.icns.
    bool customIcon = false;
    // The volume's creation date, seconds since 1970 (now when 0): a layout written before the
    // volume names the volume by it.
    std::int64_t createdAt = 0;
};

// Writes the contents of `folder` as a case-insensitive HFS+ volume, giving its bytes in order
// to `sink` (never the whole volume at once). POSIX permissions, symbolic links and empty
// folders are kept; names are stored decomposed, as HFS+ wants them; files of any size (64-bit
// forks). Throws VeltraError when the volume cannot be made, CancellationError when stopped.
void writeHFSPlusVolume(const std::filesystem::path& folder, const HFSPlusVolumeOptions& options,
                        const std::function<void(std::span<const char>)>& sink,
                        StopToken stop = {});

} // namespace veltra
