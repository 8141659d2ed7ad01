#pragma once

// Assembles .DS_Store files piece by piece so that each test can break exactly one thing.

#include "dsstore/BinaryWriter.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace dsstore::testing {

inline std::vector<std::uint8_t> recordBytes(std::u16string_view name, std::string_view code,
                                             std::string_view type,
                                             const std::vector<std::uint8_t>& payload) {
    BinaryWriter out;
    out.writeUInt32(static_cast<std::uint32_t>(name.size()));
    out.writeUTF16(name);
    out.writeASCII(code);
    out.writeASCII(type);
    out.writeBytes(payload);
    return std::move(out.data);
}

inline std::vector<std::uint8_t> bigEndian(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

// Blocks: 0 the allocator (2048 bytes at 2048), 1 the table (32 bytes at 64), 2 the root leaf
// (4096 bytes at 4096). Every field can be changed before build().
struct FileBuilder {
    std::uint32_t alignment = 1;
    std::string magic = "Bud1";
    std::uint32_t rootOffset = 2048;
    std::uint32_t rootSize = 2048;
    std::optional<std::uint32_t> secondRootOffset;
    std::uint32_t reservedWord = 0;
    std::vector<std::uint32_t> addresses{0x080B, 0x0045, 0x100C};
    std::optional<std::uint32_t> blockCount;
    std::vector<std::pair<std::string, std::uint32_t>> tableOfContents{{"DSDB", 1}};
    std::optional<std::uint32_t> tableOfContentsCount;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> freeBlocks; // (list, offset)
    std::uint32_t rootNode = 2;
    std::uint32_t levels = 0;
    std::optional<std::uint32_t> recordCount;
    std::uint32_t nodeCount = 1;
    std::uint32_t pageSize = 4096;
    std::vector<std::vector<std::uint8_t>> records;
    // Replaces the leaf when set: the whole content of block 2.
    std::optional<std::vector<std::uint8_t>> rootNodeBytes;
    // Extra blocks by offset, for trees of more than one node.
    std::vector<std::pair<std::uint32_t, std::vector<std::uint8_t>>> extraBlocks;
    std::size_t fileSize = 4 + 8192;

    std::vector<std::uint8_t> build() const {
        std::vector<std::uint8_t> file(fileSize, 0);
        const auto place = [&file](std::size_t offset, const std::vector<std::uint8_t>& bytes) {
            for (std::size_t i = 0; i < bytes.size() && offset + 4 + i < file.size(); ++i) {
                file[offset + 4 + i] = bytes[i];
            }
        };
        BinaryWriter header;
        header.writeUInt32(alignment);
        header.writeASCII(magic);
        header.writeUInt32(rootOffset);
        header.writeUInt32(rootSize);
        header.writeUInt32(secondRootOffset.value_or(rootOffset));
        header.padTo(36);
        for (std::size_t i = 0; i < header.data.size() && i < file.size(); ++i) {
            file[i] = header.data[i];
        }

        BinaryWriter root;
        root.writeUInt32(blockCount.value_or(static_cast<std::uint32_t>(addresses.size())));
        root.writeUInt32(reservedWord);
        for (const auto address : addresses) {
            root.writeUInt32(address);
        }
        root.padTo(8 + 256 * 4);
        root.writeUInt32(
            tableOfContentsCount.value_or(static_cast<std::uint32_t>(tableOfContents.size())));
        for (const auto& [name, block] : tableOfContents) {
            root.writeUInt8(static_cast<std::uint8_t>(name.size()));
            root.writeBytes(std::vector<std::uint8_t>(name.begin(), name.end()));
            root.writeUInt32(block);
        }
        for (std::uint32_t list = 0; list < 32; ++list) {
            std::vector<std::uint32_t> offsets;
            for (const auto& [which, offset] : freeBlocks) {
                if (which == list) {
                    offsets.push_back(offset);
                }
            }
            root.writeUInt32(static_cast<std::uint32_t>(offsets.size()));
            for (const auto offset : offsets) {
                root.writeUInt32(offset);
            }
        }
        place(2048, root.data);

        BinaryWriter table;
        for (const auto word :
             {rootNode, levels, recordCount.value_or(static_cast<std::uint32_t>(records.size())),
              nodeCount, pageSize}) {
            table.writeUInt32(word);
        }
        place(64, table.data);

        if (rootNodeBytes) {
            place(4096, *rootNodeBytes);
        } else {
            BinaryWriter leaf;
            leaf.writeUInt32(0);
            leaf.writeUInt32(static_cast<std::uint32_t>(records.size()));
            for (const auto& record : records) {
                leaf.writeBytes(record);
            }
            place(4096, leaf.data);
        }
        for (const auto& [offset, bytes] : extraBlocks) {
            place(offset, bytes);
        }
        return file;
    }
};

} // namespace dsstore::testing
