// What the writer produces: Finder's order, the tree and block layout, and exact value encodings.

#include "FileBuilder.h"
#include "dsstore/BinaryReader.h"
#include "dsstore/DSStore.h"
#include "dsstore/Diagnostics.h"
#include "dsstore/IconPlacement.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

using dsstore::BinaryReader;
using dsstore::DSStore;
using dsstore::FourCC;
using dsstore::Record;
using dsstore::RecordType;
using dsstore::Value;
using Kind = dsstore::RecordType::Kind;

struct Layout {
    std::uint32_t rootOffset = 0;
    std::uint32_t rootSize = 0;
    std::uint32_t rootNode = 0;
    std::uint32_t levels = 0;
    std::uint32_t records = 0;
    std::uint32_t nodes = 0;
};

Layout layoutOf(const std::vector<std::uint8_t>& file, const DSStore& store) {
    BinaryReader header(file);
    header.seek(8);
    Layout layout;
    layout.rootOffset = header.readUInt32();
    layout.rootSize = header.readUInt32();
    const auto table = dsstore::BuddyAllocator::decodeAddress(store.allocator.blockAddresses[1]);
    BinaryReader reader(file);
    reader.seek(table.offset + 4);
    layout.rootNode = reader.readUInt32();
    layout.levels = reader.readUInt32();
    layout.records = reader.readUInt32();
    layout.nodes = reader.readUInt32();
    return layout;
}

DSStore roundTrip(const DSStore& store) {
    const auto bytes = store.serialize();
    return DSStore::read(bytes);
}

Record iconAt(std::string name, std::int32_t x, std::int32_t y) {
    return dsstore::IconPlacement{std::move(name), x, y}.record();
}

TEST(DSStoreWriter, EmptyStoreHasAnEmptyLeafUnderItsTable) {
    const DSStore empty;
    const auto bytes = empty.serialize();
    const auto store = DSStore::read(bytes);
    EXPECT_TRUE(store.records.empty());
    const auto layout = layoutOf(bytes, store);
    // The layout Finder gives an empty folder: allocator 2048 bytes at 2048, table at 64, the
    // empty leaf in the 32-byte block at 32.
    EXPECT_EQ(layout.rootOffset, 2048U);
    EXPECT_EQ(layout.rootSize, 2048U);
    EXPECT_EQ(store.allocator.blockAddresses, (std::vector<std::uint32_t>{0x080B, 0x0045, 0x0025}));
    EXPECT_EQ(store.allocator.tableOfContents.at("DSDB"), 1U);
    EXPECT_EQ(layout.rootNode, 2U);
    EXPECT_EQ(layout.levels, 0U);
    EXPECT_EQ(layout.records, 0U);
    EXPECT_EQ(layout.nodes, 1U);
    EXPECT_EQ(bytes.size(), 4U + 4096U);
    EXPECT_TRUE(store.allocator.coversAddressSpaceExactly());
}

TEST(DSStoreWriter, OrdersNamesWithoutRegardToCaseOrAccentsThenByCode) {
    DSStore store;
    store.records = {
        {"Zeta", Kind::iconLocation, Value::data({})},
        {"\xC3\xA9"
         "cole",
         Kind::viewStyle, Value::fourCC(FourCC("icnv"))},
        {"Ecole", Kind::iconLocation, Value::data({})},
        {"ecole", Kind::subdirectoryDisclosed, Value::boolean(true)},
        {"a", Kind::modificationDate, Value::timestamp(1)},
        {"a", Kind::modificationDateAlternate, Value::timestamp(2)},
        {"_x", Kind::iconLocation, Value::data({})},
        {"Apps", Kind::iconLocation, Value::data({})},
    };
    std::vector<std::pair<std::string, std::string>> order;
    for (const auto& record : roundTrip(store).records) {
        order.emplace_back(record.filename, record.type.code().text());
    }
    const std::vector<std::pair<std::string, std::string>> expected{{"_x", "Iloc"},
                                                                    {"a", "moDD"},
                                                                    {"a", "modD"},
                                                                    {"Apps", "Iloc"},
                                                                    {"Ecole", "Iloc"},
                                                                    {"ecole", "dscl"},
                                                                    {"\xC3\xA9"
                                                                     "cole",
                                                                     "vstl"},
                                                                    {"Zeta", "Iloc"}};
    EXPECT_EQ(order, expected);
}

TEST(DSStoreWriter, BuildsInnerNodesAboveFullLeaves) {
    DSStore store;
    for (int i = 0; i < 20000; ++i) {
        store.records.push_back(iconAt(fmt::format("file{:05}", i), i, -i));
    }
    const auto bytes = store.serialize();
    const auto reread = DSStore::read(bytes);
    EXPECT_EQ(reread.records, store.records);
    const auto layout = layoutOf(bytes, reread);
    EXPECT_EQ(layout.levels, 2U);
    EXPECT_EQ(layout.records, 20000U);
    EXPECT_EQ(layout.nodes + 2, reread.allocator.blockAddresses.size());
    for (std::size_t id = 2; id < reread.allocator.blockAddresses.size(); ++id) {
        const auto range =
            dsstore::BuddyAllocator::decodeAddress(reread.allocator.blockAddresses[id]);
        EXPECT_LE(range.size, DSStore::pageSize);
    }
    EXPECT_TRUE(reread.allocator.coversAddressSpaceExactly());
}

// Record sizes that push the packing into its corners: a last record alone, pages holding a
// single record, records bigger than a page.
TEST(DSStoreWriter, AnyMixOfRecordSizesComesBackInOrder) {
    std::vector<std::string> notes;
    const dsstore::ThreadDiagnosticHandlerBox box(
        [&notes](std::string_view message) { notes.emplace_back(message); });
    std::uint32_t seed = 12345;
    const auto next = [&seed] {
        seed = seed * 1103515245 + 12345;
        return seed >> 8;
    };
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        DSStore store;
        const auto count = next() % 400;
        for (std::uint32_t i = 0; i < count; ++i) {
            const auto kind = next() % 10;
            const std::size_t size = kind == 0   ? 2000 + next() % 2100
                                     : kind == 1 ? 5000
                                                 : next() % 64;
            store.records.push_back(Record{fmt::format("n{:04}", i), Kind::iconLocation,
                                           Value::data(std::vector<std::uint8_t>(size, 7))});
        }
        const auto bytes = store.serialize();
        const auto reread = DSStore::read(bytes);
        EXPECT_EQ(reread.records, store.records);
        EXPECT_TRUE(reread.allocator.coversAddressSpaceExactly());
    }
    EXPECT_FALSE(notes.empty());
    EXPECT_EQ(notes.front(),
              "A record of 5026 bytes is larger than a page; it gets a node of its own");
}

bool contains(const std::vector<std::uint8_t>& haystack, const std::vector<std::uint8_t>& needle) {
    return std::ranges::search(haystack, needle).begin() != haystack.end();
}

TEST(DSStoreWriter, EncodesEachDataTypeAsFinderDoes) {
    using dsstore::testing::recordBytes;
    DSStore store;
    store.records = {
        {"a", Kind::finderWindowVerticalHeight, Value::uint16(300)},
        {"b", Kind::finderWindowSidebarWidth, Value::uint32(0x01020304)},
        {"c", Kind::logicalSize, Value::uint64(0x0102030405060708)},
        {"d", Kind::modificationDate, Value::timestamp(0x0A0B0C0D0E0F1011)},
        {"e", Kind::viewStyle, Value::fourCC(FourCC("Nlsv"))},
        {"f", Kind::trashPutBackName, Value::string("\xF0\x9F\x93\x81 x")},
        {"g", Kind::extensionHidden, Value::boolean(true)},
        {"h", RecordType::fromCode(FourCC("pBBk")), Value::bookmark({9, 8})},
        {"i", Kind::iconLocation, Value()},
    };
    const auto bytes = store.serialize();
    // A "shor" takes four bytes, the value in the low two.
    EXPECT_TRUE(contains(bytes, recordBytes(u"a", "fwvh", "shor", {0, 0, 0x01, 0x2C})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"b", "fwsw", "long", {1, 2, 3, 4})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"c", "lg1S", "comp", {1, 2, 3, 4, 5, 6, 7, 8})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"d", "modD", "dutc",
                                            {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"e", "vstl", "type", {'N', 'l', 's', 'v'})));
    // Length in UTF-16 units: the emoji is a surrogate pair.
    EXPECT_TRUE(contains(bytes, recordBytes(u"f", "ptbN", "ustr",
                                            {0, 0, 0, 4, 0xD8, 0x3D, 0xDC, 0xC1, 0, ' ', 0, 'x'})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"g", "extn", "bool", {1})));
    EXPECT_TRUE(contains(bytes, recordBytes(u"h", "pBBk", "book", {0, 0, 0, 2, 9, 8})));
    const auto reread = DSStore::read(bytes);
    // The null value is left out.
    EXPECT_EQ(reread.records.size(), store.records.size() - 1);
    EXPECT_TRUE(std::equal(reread.records.begin(), reread.records.end(), store.records.begin()));
}

TEST(DSStoreWriter, KeepsUnknownCodesByteForByte) {
    using dsstore::testing::FileBuilder;
    using dsstore::testing::recordBytes;
    const auto unknown = recordBytes(u"Read Me", "zq9!", "blob", {0, 0, 0, 3, 0xDE, 0xAD, 0x01});
    FileBuilder builder;
    builder.records = {unknown};
    const auto store = DSStore::read(builder.build());
    ASSERT_EQ(store.records.size(), 1U);
    EXPECT_EQ(store.records[0].type.kind(), Kind::custom);
    EXPECT_EQ(store.records[0].type.description(), "Custom");
    EXPECT_TRUE(contains(store.serialize(), unknown));
}

TEST(DSStoreWriter, RefusesWhatCannotBeWritten) {
    DSStore store;
    store.records = {{"bad\xFF", Kind::iconLocation, Value::data({})}};
    const auto refusal = [&store] {
        try {
            store.serialize();
        } catch (const dsstore::DSStoreError& error) {
            return std::string(error.what());
        }
        return std::string("written");
    };
    EXPECT_EQ(refusal(), "Invalid UTF-16 string encoding");
    store.records = {{".", Kind::browserWindowSettings,
                      Value::propertyList(dsstore::PlistValue::string(std::string("a\0b", 3)))}};
    EXPECT_EQ(refusal(), "Property list serialization failed: a string contains a NUL character");
}

TEST(DSStoreEditing, SetReplacesOrInsertsInOrderAndRemoveDeletes) {
    DSStore store;
    store.set(iconAt("b", 1, 1));
    store.set(iconAt("D", 2, 2));
    store.set(iconAt("a", 3, 3));
    store.set(Record{"c", Kind::viewStyle, Value::fourCC(FourCC("icnv"))});
    store.set(iconAt("b", 9, 9));
    std::vector<std::string> names;
    for (const auto& record : store.records) {
        names.push_back(record.filename);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "c", "D"}));
    EXPECT_EQ(dsstore::IconPlacement::fromRecord(*store.find("b", Kind::iconLocation))->x, 9);
    EXPECT_TRUE(store.remove("b", Kind::iconLocation));
    EXPECT_FALSE(store.remove("b", Kind::iconLocation));
    EXPECT_EQ(store.find("b", Kind::iconLocation), nullptr);
}

TEST(DSStoreDiagnostics, ThreadOverrideComesBeforeTheProcessWideHandler) {
    using dsstore::testing::FileBuilder;
    using dsstore::testing::recordBytes;
    FileBuilder builder;
    builder.records = {recordBytes(u"a", "dscl", "bool", {2})};
    const auto file = builder.build();

    std::vector<std::string> global;
    std::vector<std::string> local;
    dsstore::setDiagnosticHandler([&global](std::string_view m) { global.emplace_back(m); });
    {
        const dsstore::ThreadDiagnosticHandlerBox box(
            [&local](std::string_view m) { local.emplace_back(m); });
        {
            const dsstore::ThreadDiagnosticHandlerBox inner([](std::string_view) {});
            DSStore::read(file);
        }
        EXPECT_TRUE(DSStore::read(file).records[0].value.asBoolean());
        // Another thread has no override and reaches the process-wide handler.
        std::thread([&file] { DSStore::read(file); }).join();
    }
    DSStore::read(file);
    dsstore::setDiagnosticHandler(std::nullopt);
    DSStore::read(file);

    const std::vector<std::string> boolNote{"A bool value of 2 read as true"};
    // The builder's allocator leaves gaps, which is noted too.
    const std::string gapNote =
        "The allocator's blocks and free lists do not cover the file's address space exactly";
    EXPECT_EQ(local, (std::vector<std::string>{boolNote[0], gapNote}));
    EXPECT_EQ(global, (std::vector<std::string>{boolNote[0], gapNote, boolNote[0], gapNote}));
    EXPECT_EQ(dsstore::DiagnosticHandlerStorage::key, "com.velmora.dsstore.diagnostic-handler");
}

} // namespace

namespace dsstore {
namespace {

// Writing goes through a fresh file of its own: links planted in the folder, under the old
// fixed temporary name or as the file itself, are replaced, never written through.
TEST(DSStoreWriteFile, NeverWritesThroughALinkAndLeavesNoTemporaryFile) {
    namespace fs = std::filesystem;
    const auto dir =
        fs::temp_directory_path() / ("veltra-dsstore-write-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "volume");
    { std::ofstream(dir / "outside") << "keep"; }
    fs::create_symlink(dir / "outside", dir / "volume" / ".DS_Store.veltra-tmp");
    fs::create_symlink(dir / "outside", dir / "volume" / ".DS_Store");

    DSStore store;
    store.records.push_back(
        {"Applications", RecordType::fromCode(FourCC("dscl")), Value::boolean(true)});
    store.writeFile(dir / "volume" / ".DS_Store");

    std::ifstream outside(dir / "outside");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(outside), {}), "keep");
    EXPECT_FALSE(fs::is_symlink(dir / "volume" / ".DS_Store"));
    EXPECT_EQ(DSStore::readFile(dir / "volume" / ".DS_Store").records, store.records);
    EXPECT_EQ(fs::status(dir / "volume" / ".DS_Store").permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                  fs::perms::others_read);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir / "volume")) {
        names.push_back(entry.path().filename().string());
    }
    std::ranges::sort(names);
    EXPECT_EQ(names, (std::vector<std::string>{".DS_Store", ".DS_Store.veltra-tmp"}));
    fs::remove_all(dir);
}

} // namespace
} // namespace dsstore
