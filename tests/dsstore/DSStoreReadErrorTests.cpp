// Each structural fault a reader must catch, made by breaking one piece of an otherwise valid
// file, with the exact message a user sees.

#include "FileBuilder.h"
#include "dsstore/BinaryReader.h"
#include "dsstore/DSStore.h"

#include <cctype>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

namespace {

using dsstore::DSStore;
using dsstore::testing::bigEndian;
using dsstore::testing::FileBuilder;
using dsstore::testing::recordBytes;

std::vector<std::uint8_t> boolRecord(std::u16string_view name) {
    return recordBytes(name, "dscl", "bool", {1});
}

FileBuilder validFile() {
    FileBuilder file;
    file.records = {boolRecord(u"Applications"), boolRecord(u"Docs")};
    return file;
}

struct Fault {
    const char* name;
    std::function<void(FileBuilder&)> breakIt;
    std::function<void(std::vector<std::uint8_t>&)> breakBytes;
    const char* message;
};

std::vector<std::uint8_t> innerNode(std::uint32_t rightmost, std::uint32_t child,
                                    const std::vector<std::uint8_t>& record) {
    auto node = bigEndian(rightmost);
    for (const auto& part : {bigEndian(1), bigEndian(child), record}) {
        node.insert(node.end(), part.begin(), part.end());
    }
    return node;
}

// A binary property list of nested arrays: each level refers `fanOut` times to the next, so it
// stays tiny on disk while expanding to fanOut^levels nodes. `loop` makes the last level refer
// back to the first.
std::vector<std::uint8_t> nestedArrays(std::uint8_t levels, std::uint8_t fanOut, bool loop) {
    std::vector<std::uint8_t> plist{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint16_t> offsets;
    for (std::uint8_t level = 0; level < levels; ++level) {
        offsets.push_back(static_cast<std::uint16_t>(plist.size()));
        plist.insert(plist.end(), {0xAF, 0x10, fanOut});
        const auto next = static_cast<std::uint8_t>(loop && level + 1 == levels ? 0 : level + 1);
        plist.insert(plist.end(), fanOut, next);
    }
    offsets.push_back(static_cast<std::uint16_t>(plist.size()));
    plist.insert(plist.end(), {0x10, 0x01});
    const auto table = plist.size();
    for (const auto offset : offsets) {
        plist.push_back(static_cast<std::uint8_t>(offset >> 8));
        plist.push_back(static_cast<std::uint8_t>(offset));
    }
    plist.insert(plist.end(), {0, 0, 0, 0, 0, 0, 2, 1});
    for (const std::uint64_t word :
         {std::uint64_t{offsets.size()}, std::uint64_t{0}, std::uint64_t{table}}) {
        for (int shift = 56; shift >= 0; shift -= 8) {
            plist.push_back(static_cast<std::uint8_t>(word >> shift));
        }
    }
    auto payload = bigEndian(static_cast<std::uint32_t>(plist.size()));
    payload.insert(payload.end(), plist.begin(), plist.end());
    return recordBytes(u".", "bwsp", "blob", payload);
}

const std::vector<Fault> faults{
    {"FirstWordNotOne", [](FileBuilder& f) { f.alignment = 2; }, {}, "Invalid file magic number"},
    {"MagicNotBud1", [](FileBuilder& f) { f.magic = "Bud2"; }, {}, "Invalid file magic number"},
    {"HeaderShorterThan36Bytes",
     [](FileBuilder& f) { f.fileSize = 30; },
     {},
     "Invalid file header"},
    {"EmptyFile", [](FileBuilder& f) { f.fileSize = 0; }, {}, "Invalid file header"},
    {"RootOffsetsDiffer",
     [](FileBuilder& f) { f.secondRootOffset = 4096; },
     {},
     "Root block offset mismatch"},
    {"RootBlockPastTheEnd",
     [](FileBuilder& f) { f.rootOffset = 8192; },
     {},
     "Invalid block address"},
    {"ReservedAllocatorWord",
     [](FileBuilder& f) { f.reservedWord = 7; },
     {},
     "Allocator header contains non-zero reserved value"},
    {"BlockAddressesPastTheBlock",
     [](FileBuilder& f) { f.blockCount = 600; },
     {},
     "Block addresses exceed remaining data"},
    {"AbsurdBlockCount",
     [](FileBuilder& f) { f.blockCount = 0xFFFFFFFF; },
     {},
     "Block addresses exceed remaining data"},
    {"NoTableOfContents",
     [](FileBuilder& f) { f.rootSize = 8 + 1024; },
     {},
     "Missing table of contents"},
    {"EmptyTableOfContents",
     [](FileBuilder& f) { f.tableOfContents.clear(); },
     {},
     "Missing table of contents"},
    {"MoreEntriesThanBlocks",
     [](FileBuilder& f) { f.tableOfContentsCount = 4; },
     {},
     "Table of contents count exceeds block count"},
    {"EntriesPastTheBlock",
     [](FileBuilder& f) {
         f.tableOfContentsCount = 2;
         f.rootSize = 8 + 1024 + 4 + 9;
     },
     {},
     "Table of contents exceeds remaining data"},
    {"BlockNumberPastTheBlock",
     [](FileBuilder& f) { f.rootSize = 8 + 1024 + 4 + 5 + 2; },
     {},
     "Table of contents exceeds remaining data"},
    {"EmptyEntryName",
     [](FileBuilder& f) {
         f.tableOfContents = {{"", 1}};
     },
     {},
     "Table of contents entry has empty name"},
    {"NamePastTheBlock",
     [](FileBuilder& f) { f.rootSize = 8 + 1024 + 4 + 3; },
     {},
     "Table of contents name exceeds remaining data"},
    {"NonAsciiEntryName",
     [](FileBuilder& f) {
         f.tableOfContents = {{"DSD\xC3", 1}};
     },
     {},
     "Invalid ASCII string"},
    {"EntryBlockPastCount",
     [](FileBuilder& f) {
         f.tableOfContents = {{"DSDB", 3}};
     },
     {},
     "Table of contents block number exceeds block count"},
    {"EntryBlockWithoutAddress",
     [](FileBuilder& f) {
         f.addresses.push_back(0);
         f.tableOfContents = {{"DSDB", 3}};
     },
     {},
     "Table of contents block number is invalid"},
    {"UnknownEntry",
     [](FileBuilder& f) {
         f.tableOfContents = {{"DSDB", 1}, {"Xtra", 1}};
     },
     {},
     "Unknown table of contents entry: Xtra"},
    {"DuplicateEntry",
     [](FileBuilder& f) {
         f.tableOfContents = {{"DSDB", 1}, {"DSDB", 1}};
     },
     {},
     "Duplicate table of contents entry"},
    {"FreeListsPastTheBlock",
     [](FileBuilder& f) { f.rootSize = 8 + 1024 + 4 + 9 + 100; },
     {},
     "Free list exceeds remaining data"},
    {"FreeListCountPastTheBlock",
     [](FileBuilder& f) {
         f.freeBlocks = std::vector<std::pair<std::uint32_t, std::uint32_t>>(300, {12, 8192});
     },
     {},
     "Free list exceeds remaining data"},
    {"MisalignedFreeBlock",
     [](FileBuilder& f) {
         f.freeBlocks = {{6, 96}};
     },
     {},
     "Free list offset is misaligned"},
    {"RootNodePastCount",
     [](FileBuilder& f) { f.rootNode = 9; },
     {},
     "Block address exceeds block count"},
    {"NodeAddressPastTheFile",
     [](FileBuilder& f) { f.addresses[2] = 0x200C; },
     {},
     "Invalid block address"},
    {"NodeAddressTooSmall",
     [](FileBuilder& f) { f.addresses[2] = 0x1003; },
     {},
     "Invalid block address"},
    {"NodeAddressMisaligned",
     [](FileBuilder& f) { f.addresses[2] = 0x080C; },
     {},
     "Invalid block address"},
    {"RecordCountDisagrees",
     [](FileBuilder& f) { f.recordCount = 3; },
     {},
     "Invalid B-tree header"},
    {"NodeCountDisagrees", [](FileBuilder& f) { f.nodeCount = 2; }, {}, "Invalid B-tree header"},
    {"LevelsDisagree", [](FileBuilder& f) { f.levels = 1; }, {}, "Invalid B-tree header"},
    {"AbsurdLevels", [](FileBuilder& f) { f.levels = 0xFFFFFFFF; }, {}, "Invalid B-tree header"},
    {"NodeIsItsOwnChild",
     [](FileBuilder& f) {
         f.levels = 1;
         f.rootNodeBytes = innerNode(2, 2, boolRecord(u"a"));
     },
     {},
     "Invalid B-tree header"},
    {"TwoParentsShareAChild",
     [](FileBuilder& f) {
         // Blocks 3 (inner, at 8192) and 4 (leaf, at 12288) both hang under the root twice.
         f.addresses = {0x080B, 0x0045, 0x100C, 0x200C, 0x300C};
         f.levels = 2;
         f.nodeCount = 5;
         f.rootNodeBytes = innerNode(3, 3, boolRecord(u"m"));
         f.extraBlocks = {{8192, innerNode(4, 4, boolRecord(u"c"))}, {12288, bigEndian(0)}};
         f.fileSize = 4 + 16384;
     },
     {},
     "Invalid B-tree header"},
    {"RecordsPastTheNode",
     [](FileBuilder& f) {
         // A 32-byte node whose count promises a second record that would run past its end.
         f.addresses[2] = 0x0025;
         auto node = bigEndian(0);
         for (const auto& part : {bigEndian(2), boolRecord(u"a")}) {
             node.insert(node.end(), part.begin(), part.end());
         }
         f.extraBlocks = {{32, node}};
         f.records = {boolRecord(u"a"), boolRecord(u"b")};
     },
     {},
     "Unexpected end of data"},
    {"AbsurdNameLength",
     [](FileBuilder& f) { f.records = {recordBytes(u"", "dscl", "bool", {1})}; },
     [](std::vector<std::uint8_t>& bytes) {
         for (int i = 0; i < 4; ++i) {
             bytes[4 + 4096 + 8 + static_cast<std::size_t>(i)] = 0xFF;
         }
     },
     "Unexpected end of data"},
    {"AbsurdBlobLength",
     [](FileBuilder& f) { f.records = {recordBytes(u"a", "Iloc", "blob", bigEndian(0x7FFFFFFF))}; },
     {},
     "Unexpected end of data"},
    {"UnknownDataType",
     [](FileBuilder& f) { f.records = {recordBytes(u"a", "dscl", "xxxx", {1})}; },
     {},
     "Unknown data type: xxxx"},
    {"LoneSurrogateInName",
     [](FileBuilder& f) { f.records = {boolRecord(u"a\xD800")}; },
     {},
     "Invalid UTF-16 string encoding"},
    {"LoneSurrogateInText",
     [](FileBuilder& f) {
         f.records = {recordBytes(u"a", "ptbN", "ustr", {0, 0, 0, 1, 0xDC, 0x00})};
     },
     {},
     "Invalid UTF-16 string encoding"},
    {"SettingsBlobNotAPropertyList",
     [](FileBuilder& f) {
         auto payload = bigEndian(4);
         payload.insert(payload.end(), {'j', 'u', 'n', 'k'});
         f.records = {recordBytes(u".", "bwsp", "blob", payload)};
     },
     {},
     "Property list serialization failed: not a binary property list"},
    {"SettingsBlobExpandsBeyondReason",
     [](FileBuilder& f) { f.records = {nestedArrays(3, 200, false)}; },
     {},
     "Property list serialization failed: the property list is too large"},
    {"SettingsBlobContainsItself",
     [](FileBuilder& f) { f.records = {nestedArrays(2, 3, true)}; },
     {},
     "Property list serialization failed: an object contains itself"},
    {"SettingsBlobBrokenPropertyList",
     [](FileBuilder& f) {
         auto payload = bigEndian(40);
         const std::string text = "bplist00";
         payload.insert(payload.end(), text.begin(), text.end());
         payload.resize(payload.size() + 32, 0xEE);
         f.records = {recordBytes(u".", "icvp", "blob", payload)};
     },
     {},
     "Property list serialization failed: the binary property list is malformed"},
};

class ReadFault : public ::testing::TestWithParam<Fault> {};

TEST_P(ReadFault, StopsWithItsMessage) {
    auto builder = validFile();
    GetParam().breakIt(builder);
    auto bytes = builder.build();
    if (GetParam().breakBytes) {
        GetParam().breakBytes(bytes);
    }
    try {
        DSStore::read(bytes);
        FAIL() << "read a broken file";
    } catch (const dsstore::DSStoreError& fault) {
        EXPECT_STREQ(fault.what(), GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, ReadFault, ::testing::ValuesIn(faults),
                         [](const auto& param) { return std::string(param.param.name); });

TEST(ReadFault, NestedReferencesWithinReasonAreRead) {
    auto builder = validFile();
    builder.records = {nestedArrays(2, 30, false)};
    const auto store = DSStore::read(builder.build());
    const auto& outer = store.records.at(0).value.asPropertyList().asArray();
    ASSERT_EQ(outer.size(), 30U);
    EXPECT_EQ(outer[29].asArray().size(), 30U);
}

TEST(ReadFault, TheUnbrokenFileReads) {
    const auto store = DSStore::read(validFile().build());
    EXPECT_EQ(store.records.size(), 2U);
}

// Finder's own files show all of these; none is a fault.
TEST(ReadFault, FinderQuirksAreAccepted) {
    auto builder = validFile();
    builder.fileSize += 10000; // longer than the last block
    auto bytes = builder.build();
    for (std::size_t i = 20; i < 36; ++i) {
        bytes[i] = 0xAB; // reserved header words
    }
    for (std::size_t i = 4 + 4096 + 200; i < 4 + 4096 + 300; ++i) {
        bytes[i] = 0xCD; // stale bytes after the used part of a node
    }
    const auto store = DSStore::read(bytes);
    EXPECT_EQ(store.records.size(), 2U);
}

TEST(BinaryCursors, ReportTheirOwnErrors) {
    const std::vector<std::uint8_t> bytes{0x00, 0x41, 0xD8, 0x00, 0xFF};
    dsstore::BinaryReader reader(bytes);
    EXPECT_THROW(reader.seek(6), dsstore::BinaryReader::Failure);
    try {
        reader.skip(9);
        FAIL();
    } catch (const dsstore::BinaryReader::Failure& failure) {
        EXPECT_STREQ(failure.what(), "Invalid skip length");
    }
    try {
        reader.seek(2);
        reader.readUTF16String(1);
        FAIL();
    } catch (const dsstore::BinaryReader::Failure& failure) {
        EXPECT_STREQ(failure.what(), "Invalid UTF-16 string");
    }
    try {
        reader.seek(4);
        reader.readASCII(1);
        FAIL();
    } catch (const dsstore::BinaryReader::Failure& failure) {
        EXPECT_STREQ(failure.what(), "Invalid ASCII string");
    }
    try {
        reader.readUInt32();
        FAIL();
    } catch (const dsstore::BinaryReader::Failure& failure) {
        EXPECT_STREQ(failure.what(), "Unexpected end of data");
    }
    reader.seek(0);
    EXPECT_EQ(reader.readUTF16String(1), "A");
    EXPECT_STREQ(dsstore::BinaryReader::message(dsstore::BinaryReader::Error::invalidOffset),
                 "Invalid seek offset");

    dsstore::BinaryWriter writer;
    EXPECT_THROW(writer.writeASCII("Déjà"), dsstore::BinaryWriter::Failure);
}

} // namespace

namespace {

// Inputs the fuzzer once crashed on, each with what reading it must say now.
struct Finding {
    const char* file;
    const char* message;
};

const std::vector<Finding> findings{
    {"plist-string-with-nul.bin",
     "Property list serialization failed: a string contains a NUL character"},
    {"plist-key-with-nul.bin",
     "Property list serialization failed: a string contains a NUL character"},
};

class FuzzFinding : public ::testing::TestWithParam<Finding> {};

TEST_P(FuzzFinding, FailsCleanly) {
    const auto path =
        std::filesystem::path(VELTRA_FIXTURES_DIR) / "dsstore-crashes" / GetParam().file;
    ASSERT_TRUE(std::filesystem::exists(path));
    try {
        DSStore::readFile(path);
        FAIL() << "read";
    } catch (const dsstore::DSStoreError& fault) {
        EXPECT_STREQ(fault.what(), GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzzer, FuzzFinding, ::testing::ValuesIn(findings), [](const auto& param) {
    std::string name = param.param.file;
    std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
    return name;
});

} // namespace
