#pragma once

#include "BuddyAllocator.h"
#include "DSStoreError.h"
#include "Record.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

namespace dsstore {

// The contents of a Finder .DS_Store file: its records, and the block allocator of the file it
// was read from (or a fresh one).
struct DSStore {
    // File order when read; set() keeps the sort order that writing uses.
    std::vector<Record> records;
    BuddyAllocator allocator = BuddyAllocator::fresh();

    // Validates the whole file; throws DSStoreError with the first structural fault's message.
    static DSStore read(std::span<const std::uint8_t> bytes);
    static DSStore readFile(const std::filesystem::path& path);

    // The bytes of a file Finder accepts: records sorted, leaves packed into 4096-byte pages,
    // blocks from a fresh buddy allocator, unused space zero. Null values are left out. Throws
    // DSStoreError for a record that cannot be encoded.
    std::vector<std::uint8_t> serialize() const;
    // Replaces the file at path in one step (temporary file, then rename).
    void writeFile(const std::filesystem::path& path) const;

    const Record* find(std::string_view filename, RecordType type) const;
    // Replaces the record of the same name and code, or inserts it where the sort order puts it.
    void set(Record record);
    // False when there was no such record.
    bool remove(std::string_view filename, RecordType type);

    // Sorts records by name (case- and diacritic-insensitive), then by code; stable.
    static void sortRecords(std::vector<Record>& records);

    static constexpr std::uint32_t pageSize = 4096;
};

} // namespace dsstore
