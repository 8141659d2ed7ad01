#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace dsstore {

// A classic Mac OS alias record (version 2): what Finder keeps in the icon view's
// "backgroundImageAlias" to find the window's picture again. Finder resolves it by the volume
// (name and creation date) and then by the file's ID or, failing that, by its path on the volume.
struct AliasRecord {
    // Extra fields after the fixed part, each a code, a length and the data.
    enum class Tag : std::int16_t {
        parentName = 0,         // the parent folder's name (Mac Roman)
        parentIDs = 1,          // the folder IDs from the file up, 4 bytes each
        carbonPath = 2,         // "Volume:folder:\0file" (Mac Roman)
        unicodeFileName = 14,   // length-prefixed UTF-16BE
        unicodeVolumeName = 15, // length-prefixed UTF-16BE
        volumeCreatedUTC = 16,  // 48.16 fixed seconds since 1904, UTC
        fileCreatedUTC = 17,    // likewise
        posixPath = 18,         // the path below the volume's root ("/.background/x.png")
        volumeMountPoint = 19,  // where the volume was mounted ("/Volumes/Name")
        end = -1,
    };
    struct Field {
        std::int16_t tag = 0;
        std::vector<std::uint8_t> data;
        friend bool operator==(const Field&, const Field&) = default;
    };

    std::uint32_t creatorCode = 0;
    std::uint16_t kind = 0;                 // 0 file, 1 folder
    std::string volumeName;                 // UTF-8; written as Mac Roman, at most 27 bytes
    std::uint32_t volumeCreated = 0;        // seconds since 1904 in local time (HFS style)
    std::uint16_t volumeSignature = 0x482B; // "H+"
    std::uint16_t volumeType = 5;           // ejectable media, as a mounted disk image
    std::uint32_t parentID = 0;
    std::string fileName; // UTF-8; written as Mac Roman, at most 63 bytes
    std::uint32_t fileID = 0;
    std::uint32_t fileCreated = 0;
    std::uint32_t fileType = 0;
    std::uint32_t fileCreator = 0;
    std::int16_t levelsFrom = -1;
    std::int16_t levelsTo = -1;
    std::uint32_t volumeAttributes = 0x0D02;
    std::uint16_t volumeFileSystemID = 0;
    std::vector<Field> fields; // in file order, without the end marker

    // The field's data, or nothing when the record has none.
    const std::vector<std::uint8_t>* field(Tag tag) const;
    // Text of a Mac Roman or length-prefixed UTF-16 field, as UTF-8.
    std::optional<std::string> text(Tag tag) const;

    // Throws DSStoreError ("Invalid alias record: ...") when the bytes are not an alias record.
    static AliasRecord decode(std::span<const std::uint8_t> bytes);
    std::vector<std::uint8_t> encode() const;

    // An alias of a file on a mounted volume, as Finder makes one: `path` is below the volume's
    // root and starts with "/"; times are seconds since 1970 (UTC) with the local time's offset.
    struct FileOnVolume {
        std::string volumeName;
        std::int64_t volumeCreated = 0;
        std::string path;
        std::int64_t fileCreated = 0;
        // Seconds east of UTC at each time, for the HFS-style local times (they differ across a
        // daylight-saving change).
        std::int32_t volumeUTCOffset = 0;
        std::int32_t fileUTCOffset = 0;
        std::uint32_t parentID = 0xFFFFFFFF; // unknown IDs make Finder resolve by path
        std::uint32_t fileID = 0xFFFFFFFF;
    };
    static AliasRecord file(const FileOnVolume& file);

    friend bool operator==(const AliasRecord&, const AliasRecord&) = default;
};

} // namespace dsstore
