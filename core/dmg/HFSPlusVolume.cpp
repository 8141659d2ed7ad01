#include "HFSPlusVolume.h"

#include "DSStoreWriter.h"
#include "HFSDates.h"
#include "UDIFLayout.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <utf8proc.h>

#define LIBISOFS_WITHOUT_LIBBURN
#include <libisofs/libisofs.h>

namespace veltra {

namespace {

using udif::getUInt32;
using udif::getUInt64;

std::uint16_t getUInt16(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint16_t>((static_cast<std::uint8_t>(bytes[at]) << 8) |
                                      static_cast<std::uint8_t>(bytes[at + 1]));
}

[[noreturn]] void bad(const std::string& why) {
    throw VeltraError("Veltra", errorCode::invalidSetup, "The HFS+ volume does not read: " + why);
}

constexpr std::int16_t folderRecord = 1;
constexpr std::int16_t fileRecord = 2;
// In a folder or file record: its Finder flags, and its extended flags.
constexpr std::size_t finderFlagsOffset = 56;
constexpr std::size_t extendedFlagsOffset = 72;

// UTF-8 composed (NFC), as Finder shows names.
std::string composed(const std::string& utf8) {
    auto* result = utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(utf8.c_str()));
    if (result == nullptr) {
        return utf8;
    }
    std::string text(reinterpret_cast<const char*>(result));
    std::free(result);
    return text;
}

// UTF-16BE as stored, to UTF-8 composed as Finder shows it.
std::string nameOf(std::string_view utf16) {
    std::string utf8;
    for (std::size_t i = 0; i + 1 < utf16.size(); i += 2) {
        std::uint32_t unit = getUInt16(utf16, i);
        if (unit >= 0xd800 && unit < 0xdc00 && i + 3 < utf16.size()) {
            const std::uint32_t low = getUInt16(utf16, i + 2);
            if (low >= 0xdc00 && low < 0xe000) {
                unit = 0x10000 + ((unit - 0xd800) << 10) + (low - 0xdc00);
                i += 2;
            }
        }
        if (unit >= 0xd800 && unit < 0xe000) {
            unit = 0xfffd;
        }
        utf8proc_uint8_t encoded[4];
        const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(unit), encoded);
        utf8.append(reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(length));
    }
    return composed(utf8);
}

} // namespace

HFSPlusVolume::HFSPlusVolume(Reader reader) : reader_(std::move(reader)) {
    const auto header = reader_(1024, 512);
    if (header.size() < 512) {
        bad("the volume is shorter than its header");
    }
    signature_ = header.substr(0, 2);
    if (signature_ != "H+" && signature_ != "HX") {
        bad("there is no HFS+ signature at offset 1024");
    }
    createdAt_ = unixTimeOfVolumeCreateDate(getUInt32(header, 16));
    blockSize_ = getUInt32(header, 40);
    blocks_ = getUInt32(header, 44);
    if (blockSize_ < 512 || blockSize_ > (1u << 20) || (blockSize_ & (blockSize_ - 1)) != 0) {
        bad("the block size " + std::to_string(blockSize_) + " is not a power of two");
    }
    catalogSize_ = getUInt64(header, 272);
    std::uint64_t covered = 0;
    for (std::size_t i = 0; i < 8 && covered < catalogSize_; ++i) {
        const auto start = getUInt32(header, 272 + 16 + i * 8);
        const auto count = getUInt32(header, 272 + 20 + i * 8);
        if (count == 0) {
            break;
        }
        if (static_cast<std::uint64_t>(start) + count > blocks_) {
            bad("the catalog lies outside the volume");
        }
        catalogExtents_.emplace_back(static_cast<std::uint64_t>(start) * blockSize_,
                                     static_cast<std::uint64_t>(count) * blockSize_);
        covered += static_cast<std::uint64_t>(count) * blockSize_;
    }
    if (covered < catalogSize_ || catalogSize_ == 0) {
        bad("the catalog's extents do not hold it (more than eight are not read)");
    }
    const auto node = readCatalog(0, 512);
    if (static_cast<std::int8_t>(node[8]) != 1) {
        bad("the catalog does not start with its header node");
    }
    firstLeaf_ = getUInt32(node, 14 + 10);
    nodeSize_ = getUInt16(node, 14 + 18);
    if (nodeSize_ < 512 || (nodeSize_ & (nodeSize_ - 1)) != 0 || nodeSize_ > catalogSize_) {
        bad("the catalog's node size " + std::to_string(nodeSize_) + " is not usable");
    }
    const auto root = list(rootParentID);
    if (root.size() != 1) {
        bad("the catalog has no root folder");
    }
    volumeName_ = root.front().name;
    customIcon_ = (root.front().finderFlags & finderFlag::customIcon) != 0;
}

std::uint64_t HFSPlusVolume::volumeOffset(std::uint64_t catalogOffset) const {
    for (const auto& [start, size] : catalogExtents_) {
        if (catalogOffset < size) {
            return start + catalogOffset;
        }
        catalogOffset -= size;
    }
    bad("the catalog is cut short");
}

std::string HFSPlusVolume::readCatalog(std::uint64_t offset, std::size_t length) const {
    std::string out;
    for (const auto& [start, size] : catalogExtents_) {
        if (offset >= size) {
            offset -= size;
            continue;
        }
        const auto take = static_cast<std::size_t>(std::min<std::uint64_t>(size - offset, length));
        auto part = reader_(start + offset, take);
        if (part.size() != take) {
            bad("the catalog is cut short");
        }
        out += part;
        length -= take;
        offset = 0;
        if (length == 0) {
            break;
        }
    }
    if (length != 0) {
        bad("the catalog is cut short");
    }
    return out;
}

void HFSPlusVolume::forEachRecord(const std::function<bool(const Record&)>& visit) const {
    std::set<std::uint32_t> seen;
    for (auto number = firstLeaf_; number != 0;) {
        if (!seen.insert(number).second ||
            static_cast<std::uint64_t>(number) * nodeSize_ >= catalogSize_) {
            bad("the catalog's leaf nodes loop or point outside it");
        }
        const auto node = readCatalog(static_cast<std::uint64_t>(number) * nodeSize_, nodeSize_);
        if (static_cast<std::int8_t>(node[8]) != -1) {
            bad("catalog node " + std::to_string(number) + " is not a leaf node");
        }
        const auto records = getUInt16(node, 10);
        if (14u + 2u * (records + 1u) > nodeSize_) {
            bad("catalog node " + std::to_string(number) + " has too many records");
        }
        for (std::uint16_t i = 0; i < records; ++i) {
            const auto start = getUInt16(node, nodeSize_ - 2u * (i + 1u));
            const auto end = getUInt16(node, nodeSize_ - 2u * (i + 2u));
            if (start < 14 || end <= start || end > nodeSize_ - 2u * (records + 1u)) {
                bad("a record of catalog node " + std::to_string(number) + " lies outside it");
            }
            const std::string_view bytes(node.data() + start, end - start);
            const std::size_t keyLength = bytes.size() >= 2 ? getUInt16(bytes, 0) : 0u;
            if (keyLength < 6 || 2u + keyLength + 2u > bytes.size() ||
                8u + 2u * getUInt16(bytes, 6) > 2u + keyLength) {
                bad("a key of catalog node " + std::to_string(number) + " is malformed");
            }
            const Record record{
                getUInt32(bytes, 2), std::string(bytes.substr(0, 8u + 2u * getUInt16(bytes, 6))),
                std::string(bytes.substr(2u + keyLength)),
                static_cast<std::uint64_t>(number) * nodeSize_ + start + 2u + keyLength};
            if (!visit(record)) {
                return;
            }
        }
        number = getUInt32(node, 0);
    }
}

std::vector<HFSPlusVolume::Entry> HFSPlusVolume::list(std::uint32_t folderID) const {
    std::vector<Entry> entries;
    forEachRecord([&](const Record& record) {
        // Records are in parent order: past the folder's, there are no more of them.
        if (record.parentID != folderID) {
            return record.parentID < folderID;
        }
        const auto type = static_cast<std::int16_t>(getUInt16(record.data, 0));
        if ((type != folderRecord && type != fileRecord) ||
            record.data.size() < (type == fileRecord ? 248u : 88u)) {
            return true;
        }
        Entry entry;
        entry.name = nameOf(record.key.substr(8));
        entry.id = getUInt32(record.data, 8);
        entry.mode = getUInt16(record.data, 42);
        entry.finderFlags = getUInt16(record.data, finderFlagsOffset);
        entry.recordOffset = volumeOffset(record.catalogOffset);
        if (type == folderRecord) {
            entry.kind = Entry::Kind::folder;
        } else {
            entry.size = getUInt64(record.data, 88);
            const bool link = (entry.mode & 0170000) == 0120000 ||
                              record.data.substr(48, 8) == std::string_view("slnkrhap");
            entry.kind = link ? Entry::Kind::symlink : Entry::Kind::file;
        }
        entries.push_back(std::move(entry));
        return true;
    });
    return entries;
}

namespace {

void initialiseLibrary() {
    static std::once_flag once;
    static int result = 0;
    std::call_once(once, [] {
        result = iso_init();
        // Names come in as UTF-8 whatever the locale says; messages are ours to give.
        iso_set_local_charset(const_cast<char*>("UTF-8"), 0);
        iso_set_msgs_severities(const_cast<char*>("NEVER"), const_cast<char*>("NEVER"),
                                const_cast<char*>("veltra"));
    });
    if (result < 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "The HFS+ writer (libisofs) could not start.");
    }
}

std::string isoProblem(int code) {
    const char* text = iso_error_to_msg(code);
    return text != nullptr ? text : "error " + std::to_string(code);
}

// The Apple partition map libisofs writes first: where the Apple_HFS partition lies, in bytes.
std::pair<std::uint64_t, std::uint64_t> hfsPartition(std::string_view head) {
    constexpr std::size_t block = 2048;
    for (std::size_t entry = 1; (entry + 1) * block <= head.size(); ++entry) {
        const auto bytes = head.substr(entry * block, 512);
        if (bytes.substr(0, 2) != "PM") {
            break;
        }
        const auto type = bytes.substr(48, 32);
        if (type.substr(0, 9) == "Apple_HFS" && (type.size() == 9 || type[9] == '\0')) {
            return {static_cast<std::uint64_t>(getUInt32(bytes, 8)) * block,
                    static_cast<std::uint64_t>(getUInt32(bytes, 12)) * block};
        }
    }
    throw VeltraError("Veltra", errorCode::toolFailed,
                      "The HFS+ writer (libisofs) made no HFS+ partition.");
}

// Finder's flags of the root folder and of the items at the top of the volume, which libisofs
// cannot set: the custom-icon flag of the volume, the hidden extension of the app. Patched into
// the catalog's records in the volume's first bytes, which hold the whole catalog.
struct TopLevelFinderInfo {
    bool customIcon = false;
    // By composed name: the Finder info to merge into that item's record.
    std::map<std::string, std::array<std::uint8_t, 32>> items;
};

void applyFinderInfo(std::string& volume, const TopLevelFinderInfo& wanted) {
    const HFSPlusVolume read([&](std::uint64_t offset, std::size_t length) {
        return offset < volume.size() ? volume.substr(offset, length) : std::string();
    });
    const auto merge = [&](std::uint64_t at, std::uint8_t high, std::uint8_t low) {
        volume[at] = static_cast<char>(volume[at] | static_cast<char>(high));
        volume[at + 1] = static_cast<char>(volume[at + 1] | static_cast<char>(low));
    };
    if (wanted.customIcon) {
        merge(read.list(HFSPlusVolume::rootParentID).front().recordOffset + finderFlagsOffset,
              finderFlag::customIcon >> 8, finderFlag::customIcon & 0xff);
    }
    for (const auto& entry : read.list()) {
        if (const auto found = wanted.items.find(entry.name); found != wanted.items.end()) {
            // The Finder flags and the extended ones; the rest stays as libisofs wrote it.
            const auto& info = found->second;
            merge(entry.recordOffset + finderFlagsOffset, info[8], info[9]);
            merge(entry.recordOffset + extendedFlagsOffset, info[24], info[25]);
        }
    }
}

} // namespace

namespace {

constexpr std::size_t alternateHeaderSpan = 1024;

// libisofs writes the creation date in UTC; TN1150 has it in local time (as the layout's alias
// names it). `at` is where a volume header starts in `bytes`.
void localCreateDate(std::string& bytes, std::size_t at) {
    if (bytes.size() < at + 20 ||
        (bytes.compare(at, 2, "H+") != 0 && bytes.compare(at, 2, "HX") != 0)) {
        return;
    }
    const auto utc = static_cast<std::int64_t>(getUInt32(bytes, at + 16)) - hfsEpochOffset;
    const auto local = hfsVolumeCreateDate(utc);
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[at + 16 + i] = static_cast<char>(local >> (24 - 8 * i));
    }
}

} // namespace

void writeHFSPlusVolume(const std::filesystem::path& folder, const HFSPlusVolumeOptions& wanted,
                        const std::function<void(std::span<const char>)>& sink, StopToken stop) {
    const auto& volumeName = wanted.name;
    const bool customIcon = wanted.customIcon;
    initialiseLibrary();
    IsoImage* image = nullptr;
    if (const int made = iso_image_new(volumeName.c_str(), &image); made < 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not start the HFS+ volume: " + isoProblem(made));
    }
    const std::unique_ptr<IsoImage, decltype(&iso_image_unref)> imageOwner(image, iso_image_unref);
    iso_tree_set_follow_symlinks(image, 0);
    iso_tree_set_ignore_hidden(image, 0);
    iso_tree_set_ignore_special(image, 1);
    if (const int added = iso_tree_add_dir_rec(image, iso_image_get_root(image), folder.c_str());
        added < 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not add " + folder.string() +
                              " to the HFS+ volume: " + isoProblem(added));
    }
    IsoWriteOpts* options = nullptr;
    if (const int made = iso_write_opts_new(&options, 0); made < 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not start the HFS+ volume: " + isoProblem(made));
    }
    const std::unique_ptr<IsoWriteOpts, decltype(&iso_write_opts_free)> optionsOwner(
        options, iso_write_opts_free);
    // Level 3 lets the ISO side carry files over 4 GiB, which the HFS+ side shares.
    iso_write_opts_set_iso_level(options, 3);
    iso_write_opts_set_hfsplus(options, 1);
    iso_write_opts_set_hfsp_block_size(options, 2048, 2048);
    // The ISO volume's creation time is the HFS+ volume's too.
    if (wanted.createdAt > 0) {
        iso_write_opts_set_pvd_times(options, static_cast<time_t>(wanted.createdAt),
                                     static_cast<time_t>(wanted.createdAt), 0, 0,
                                     const_cast<char*>(""));
    }

    burn_source* source = nullptr;
    if (const int made = iso_image_create_burn_source(image, options, &source); made < 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not write the HFS+ volume: " + isoProblem(made));
    }
    struct SourceOwner {
        burn_source* source;
        bool done = false;
        ~SourceOwner() {
            if (!done) {
                source->cancel(source);
            }
            source->free_data(source);
            std::free(source);
        }
    } owner{source};

    constexpr std::size_t block = 2048;
    std::string buffer(64 * block, '\0');
    const auto read = [&](char* into, std::size_t size) {
        std::size_t got = 0;
        while (got < size) {
            const int count = source->read_xt(source, reinterpret_cast<unsigned char*>(into + got),
                                              static_cast<int>(block));
            if (count < 0) {
                throw VeltraError("Veltra", errorCode::toolFailed,
                                  "Writing the HFS+ volume failed (a file could not be read?).");
            }
            if (count == 0) {
                break;
            }
            got += static_cast<std::size_t>(count);
        }
        return got;
    };
    // The image's first blocks hold the partition map; then, from the partition's start, the
    // volume's bytes are held until the whole catalog has passed, so that the root folder's
    // record can take the custom-icon flag (which libisofs cannot set), and then streamed.
    std::string head;
    std::optional<std::pair<std::uint64_t, std::uint64_t>> partition;
    std::uint64_t position = 0;
    std::string held;
    bool holding = true;
    std::uint64_t catalogEnd = 0;
    TopLevelFinderInfo finder{customIcon, {}};
    for (const auto& item : std::filesystem::directory_iterator(folder)) {
        const auto info = finderInfo(item.path());
        if (std::any_of(info.begin(), info.end(), [](std::uint8_t b) { return b != 0; })) {
            finder.items.emplace(composed(item.path().filename().string()), info);
        }
    }
    // The volume's last 1024 bytes are held back too: the alternate volume header is there.
    std::string tail;
    const auto emit = [&](std::string_view bytes) {
        if (tail.size() + bytes.size() <= alternateHeaderSpan) {
            tail.append(bytes);
            return;
        }
        if (bytes.size() >= alternateHeaderSpan) {
            sink(tail);
            sink(bytes.substr(0, bytes.size() - alternateHeaderSpan));
            tail.assign(bytes.substr(bytes.size() - alternateHeaderSpan));
            return;
        }
        tail.append(bytes);
        sink(std::string_view(tail).substr(0, tail.size() - alternateHeaderSpan));
        tail.erase(0, tail.size() - alternateHeaderSpan);
    };
    const auto release = [&] {
        if (customIcon || !finder.items.empty()) {
            applyFinderInfo(held, finder);
        }
        localCreateDate(held, 1024);
        emit(held);
        held = std::string();
        holding = false;
    };
    while (true) {
        if (stop.stop_requested()) {
            throw CancellationError();
        }
        const auto got = read(buffer.data(), buffer.size());
        if (got == 0) {
            break;
        }
        std::string_view bytes(buffer.data(), got);
        if (!partition) {
            head.append(bytes);
            if (head.size() < 32 * block) {
                continue;
            }
            partition = hfsPartition(head);
            bytes = head;
        }
        const auto from = std::max(position, partition->first);
        const auto to = std::min(position + bytes.size(), partition->first + partition->second);
        position += bytes.size();
        if (from >= to) {
            continue;
        }
        const auto part = bytes.substr(from - (position - bytes.size()), to - from);
        if (!holding) {
            emit(part);
            continue;
        }
        held.append(part);
        if (catalogEnd == 0 && held.size() >= 1536) {
            catalogEnd = static_cast<std::uint64_t>(getUInt32(held, 1024 + 272 + 16)) *
                             getUInt32(held, 1024 + 40) +
                         getUInt64(held, 1024 + 272);
        }
        if (catalogEnd != 0 && held.size() >= catalogEnd) {
            release();
        }
    }
    if (!partition) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "The HFS+ writer (libisofs) made no volume.");
    }
    if (holding) {
        release();
    }
    if (tail.size() == alternateHeaderSpan) {
        localCreateDate(tail, 0);
    }
    sink(tail);
    owner.done = true;
}

} // namespace veltra
