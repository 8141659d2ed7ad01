#include "DSStore.h"

#include "BTreeNode.h"
#include "BinaryReader.h"
#include "BinaryWriter.h"
#include "Diagnostics.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <numeric>
#include <span>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace dsstore {

namespace {

constexpr std::uint32_t fileAlignment = 1;
constexpr FourCC fileMagic("Bud1");
constexpr std::size_t headerSize = 36;
constexpr std::string_view tableName = "DSDB";
constexpr std::uint32_t allocatorBlockID = 0;
constexpr std::uint32_t tableBlockID = 1;
constexpr std::uint32_t firstNodeBlockID = 2;
// Finder's allocator block is 2048 bytes whatever it holds; keeping that size lets Finder add
// blocks in place.
constexpr std::uint64_t minimumAllocatorBlockSize = 2048;
// No real tree comes near this; it bounds recursion on hostile files.
constexpr std::uint32_t maximumLevels = 64;

[[noreturn]] void fail(const std::string& message) {
    throw DSStoreError(message);
}

std::uint64_t roundUp(std::uint64_t value, std::uint64_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

// A length in UTF-16 units and the text: names and "ustr" values.
std::string readText(BinaryReader& reader) {
    const auto length = reader.readUInt32();
    try {
        return reader.readUTF16String(length);
    } catch (const BinaryReader::Failure& failure) {
        if (failure.error == BinaryReader::Error::invalidUTF16String) {
            fail("Invalid UTF-16 string encoding");
        }
        throw;
    }
}

Value readValue(BinaryReader& reader, RecordType type) {
    const FourCC dataType = reader.readFourCC();
    switch (dataType.rawValue) {
    case FourCC("bool").rawValue: {
        const auto byte = reader.readUInt8();
        if (byte > 1) {
            emitDiagnostic(fmt::format("A bool value of {} read as true", byte));
        }
        return Value::boolean(byte != 0);
    }
    case FourCC("long").rawValue:
        return Value::uint32(reader.readUInt32());
    case FourCC("shor").rawValue: {
        const auto word = reader.readUInt32();
        if (word > 0xFFFF) {
            emitDiagnostic(
                fmt::format("A shor value 0x{:08x} has upper bits set; keeping the low 16", word));
        }
        return Value::uint16(static_cast<std::uint16_t>(word));
    }
    case FourCC("comp").rawValue:
        return Value::uint64(reader.readUInt64());
    case FourCC("dutc").rawValue:
        return Value::timestamp(reader.readUInt64());
    case FourCC("type").rawValue:
        return Value::fourCC(reader.readFourCC());
    case FourCC("ustr").rawValue:
        return Value::string(readText(reader));
    case FourCC("blob").rawValue: {
        const auto length = reader.readUInt32();
        if (!type.holdsPropertyList()) {
            return Value::data(reader.readBytes(length));
        }
        return Value::propertyList(PlistValue::decodeBinary(reader.readSpan(length)));
    }
    case FourCC("book").rawValue:
        return Value::bookmark(reader.readBytes(reader.readUInt32()));
    default:
        fail("Unknown data type: " + dataType.text());
    }
}

Record readRecord(BinaryReader& reader) {
    Record record;
    record.filename = readText(reader);
    record.type = RecordType::fromCode(reader.readFourCC());
    record.value = readValue(reader, record.type);
    return record;
}

class StoreReader {
public:
    explicit StoreReader(std::span<const std::uint8_t> file) : file_(file) {}

    DSStore read() {
        DSStore store;
        store.allocator = BuddyAllocator();
        const auto root = readHeader();
        readAllocator(root, store.allocator);
        allocator_ = &store.allocator;

        BinaryReader table(block(store.allocator.tableOfContents.at(std::string(tableName))));
        if (table.remaining() < 20) {
            fail("Invalid B-tree header");
        }
        const auto rootNode = table.readUInt32();
        const auto levels = table.readUInt32();
        const auto recordCount = table.readUInt32();
        const auto nodeCount = table.readUInt32();
        const auto pageSize = table.readUInt32();
        if (levels > maximumLevels || nodeCount > *store.allocator.blockCount) {
            fail("Invalid B-tree header");
        }
        if (pageSize != DSStore::pageSize) {
            emitDiagnostic(fmt::format("The B-tree page size is {}, not 4096", pageSize));
        }
        visited_.assign(*store.allocator.blockCount, false);
        // Each record takes at least 13 bytes, so a count the file cannot hold is not reserved.
        store.records.reserve(std::min<std::size_t>(recordCount, file_.size() / 13));
        walk(rootNode, 0, levels, store.records);
        if (store.records.size() != recordCount || nodesVisited_ != nodeCount) {
            fail("Invalid B-tree header");
        }
        if (!store.allocator.coversAddressSpaceExactly()) {
            emitDiagnostic("The allocator's blocks and free lists do not cover the file's "
                           "address space exactly");
        }
        return store;
    }

private:
    Range readHeader() {
        if (file_.size() < 8) {
            fail("Invalid file header");
        }
        BinaryReader header(file_);
        if (header.readUInt32() != fileAlignment || header.readFourCC() != fileMagic) {
            fail("Invalid file magic number");
        }
        if (file_.size() < headerSize) {
            fail("Invalid file header");
        }
        const std::uint64_t offset = header.readUInt32();
        const std::uint64_t size = header.readUInt32();
        if (header.readUInt32() != offset) {
            fail("Root block offset mismatch");
        }
        if (offset + 4 + size > file_.size()) {
            fail("Invalid block address");
        }
        return Range{offset, size};
    }

    void readAllocator(Range root, BuddyAllocator& allocator) {
        BinaryReader reader(file_.subspan(root.offset + 4, root.size));
        const auto count = reader.readUInt32();
        if (reader.readUInt32() != 0) {
            fail("Allocator header contains non-zero reserved value");
        }
        if (roundUp(count, 256) * 4 > reader.remaining()) {
            fail("Block addresses exceed remaining data");
        }
        allocator.blockCount = count;
        allocator.blockAddresses.resize(count);
        for (auto& address : allocator.blockAddresses) {
            address = reader.readUInt32();
        }
        reader.skip((roundUp(count, 256) - count) * 4);

        if (reader.remaining() < 4) {
            fail("Missing table of contents");
        }
        const auto entries = reader.readUInt32();
        if (entries == 0) {
            fail("Missing table of contents");
        }
        if (entries > count) {
            fail("Table of contents count exceeds block count");
        }
        for (std::uint32_t i = 0; i < entries; ++i) {
            if (reader.remaining() < 1) {
                fail("Table of contents exceeds remaining data");
            }
            const auto length = reader.readUInt8();
            if (length == 0) {
                fail("Table of contents entry has empty name");
            }
            if (length > reader.remaining()) {
                fail("Table of contents name exceeds remaining data");
            }
            auto name = reader.readASCII(length);
            if (reader.remaining() < 4) {
                fail("Table of contents exceeds remaining data");
            }
            const auto blockNumber = reader.readUInt32();
            if (blockNumber >= count) {
                fail("Table of contents block number exceeds block count");
            }
            if (allocator.blockAddresses[blockNumber] == 0) {
                fail("Table of contents block number is invalid");
            }
            if (name != tableName) {
                fail("Unknown table of contents entry: " + name);
            }
            if (!allocator.tableOfContents.emplace(std::move(name), blockNumber).second) {
                fail("Duplicate table of contents entry");
            }
        }

        for (std::uint32_t power = 0; power < allocator.freeLists.size(); ++power) {
            if (reader.remaining() < 4) {
                fail("Free list exceeds remaining data");
            }
            const std::uint64_t length = reader.readUInt32();
            if (length * 4 > reader.remaining()) {
                fail("Free list exceeds remaining data");
            }
            auto& list = allocator.freeLists[power];
            list.resize(length);
            for (auto& offset : list) {
                offset = reader.readUInt32();
                if (offset % (std::uint64_t{1} << power) != 0) {
                    fail("Free list offset is misaligned");
                }
            }
        }
    }

    std::span<const std::uint8_t> block(std::uint32_t blockID) const {
        if (blockID >= allocator_->blockAddresses.size()) {
            fail("Block address exceeds block count");
        }
        const auto range = BuddyAllocator::decodeAddress(allocator_->blockAddresses[blockID]);
        if (range.offset + 4 + range.size > file_.size()) {
            fail("Invalid block address");
        }
        return file_.subspan(range.offset + 4, range.size);
    }

    // In order: each child before the record that follows it, so records come out sorted.
    void walk(std::uint32_t blockID, std::uint32_t depth, std::uint32_t levels,
              std::vector<Record>& records) {
        BinaryReader node(block(blockID));
        if (visited_[blockID]) {
            fail("Invalid B-tree header");
        }
        visited_[blockID] = true;
        ++nodesVisited_;
        const auto rightmost = node.readUInt32();
        const auto count = node.readUInt32();
        if ((rightmost == 0) != (depth == levels)) {
            fail("Invalid B-tree header");
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            if (rightmost != 0) {
                walk(node.readUInt32(), depth + 1, levels, records);
            }
            records.push_back(readRecord(node));
        }
        if (rightmost != 0) {
            walk(rightmost, depth + 1, levels, records);
        }
    }

    std::span<const std::uint8_t> file_;
    const BuddyAllocator* allocator_ = nullptr;
    std::vector<bool> visited_;
    std::uint32_t nodesVisited_ = 0;
};

// The records, sorted, each encoded once; nodes refer to them by position.
class EncodedRecords {
public:
    explicit EncodedRecords(const std::vector<Record>& records) {
        std::vector<const Record*> sorted;
        sorted.reserve(records.size());
        for (const auto& record : records) {
            if (record.value.kind() != Value::Kind::null) {
                sorted.push_back(&record);
            }
        }
        sortByKey(sorted);
        starts_.reserve(sorted.size() + 1);
        for (const auto* record : sorted) {
            starts_.push_back(bytes_.size());
            encode(*record);
        }
        starts_.push_back(bytes_.size());
    }

    std::size_t count() const noexcept { return starts_.size() - 1; }
    std::size_t size(std::size_t index) const noexcept {
        return starts_[index + 1] - starts_[index];
    }
    std::span<const std::uint8_t> bytes(std::size_t index) const noexcept {
        return std::span(bytes_.data.data() + starts_[index], size(index));
    }

    template <typename Pointer> static void sortByKey(std::vector<Pointer>& records) {
        struct Keyed {
            std::u16string name;
            FourCC code;
            Pointer record;
        };
        std::vector<Keyed> keyed;
        keyed.reserve(records.size());
        for (auto record : records) {
            keyed.push_back({RecordKey::foldedName(record->filename), record->type.code(), record});
        }
        std::ranges::stable_sort(keyed, [](const Keyed& a, const Keyed& b) {
            const int names = a.name.compare(b.name);
            return names != 0 ? names < 0 : a.code < b.code;
        });
        for (std::size_t i = 0; i < keyed.size(); ++i) {
            records[i] = keyed[i].record;
        }
    }

private:
    void encode(const Record& record) {
        const auto name = utf16FromUTF8(record.filename);
        if (!name || name->size() > UINT32_MAX) {
            fail("Invalid UTF-16 string encoding");
        }
        bytes_.writeUInt32(static_cast<std::uint32_t>(name->size()));
        bytes_.writeUTF16(*name);
        bytes_.writeFourCC(record.type.code());
        const auto& value = record.value;
        bytes_.writeFourCC(FourCC(value.typeCode()));
        const auto writeLengthAndBytes = [this](std::span<const std::uint8_t> data) {
            if (data.size() > UINT32_MAX) {
                fail("A value is too large for a .DS_Store file");
            }
            bytes_.writeUInt32(static_cast<std::uint32_t>(data.size()));
            bytes_.writeBytes(data);
        };
        switch (value.kind()) {
        case Value::Kind::null:
            break;
        case Value::Kind::boolean:
            bytes_.writeUInt8(value.asBoolean() ? 1 : 0);
            break;
        case Value::Kind::uint32:
        case Value::Kind::uint16:
            bytes_.writeUInt32(static_cast<std::uint32_t>(value.asInteger()));
            break;
        case Value::Kind::uint64:
        case Value::Kind::timestamp:
            bytes_.writeUInt64(value.asInteger());
            break;
        case Value::Kind::fourCC:
            bytes_.writeFourCC(value.asFourCC());
            break;
        case Value::Kind::string: {
            const auto text = utf16FromUTF8(value.asString());
            if (!text || text->size() > UINT32_MAX) {
                fail("Invalid UTF-16 string encoding");
            }
            bytes_.writeUInt32(static_cast<std::uint32_t>(text->size()));
            bytes_.writeUTF16(*text);
            break;
        }
        case Value::Kind::data:
        case Value::Kind::bookmark:
            writeLengthAndBytes(value.asBytes());
            break;
        case Value::Kind::propertyList: {
            writeLengthAndBytes(value.asPropertyList().encodeBinary());
            break;
        }
        }
    }

    BinaryWriter bytes_;
    std::vector<std::size_t> starts_;
};

using NodePointer = std::shared_ptr<BTreeNode>;

struct LevelNodes {
    std::vector<NodePointer> nodes;
    std::vector<std::size_t> separators;
};

std::uint64_t encodedSize(const EncodedRecords& encoded, const BTreeNode& node) {
    std::uint64_t size = 8;
    for (const auto index : node.records) {
        size += encoded.size(index) + (node.isLeaf ? 0 : 4);
    }
    return size;
}

// Packs one level: items[i] sits between children[i] and children[i + 1] (no children for
// leaves). Each node is filled up to a page; the item after it moves up as its separator.
LevelNodes packLevel(const EncodedRecords& encoded, const std::vector<std::size_t>& items,
                     const std::vector<NodePointer>& children, bool leaves) {
    LevelNodes level;
    const std::size_t count = items.size();
    const std::size_t extra = leaves ? 0 : 4;
    std::size_t first = 0;
    for (;;) {
        std::uint64_t size = 8;
        std::size_t end = first;
        while (end < count) {
            const std::uint64_t itemSize = encoded.size(items[end]) + extra;
            if (end > first && size + itemSize > DSStore::pageSize) {
                break;
            }
            size += itemSize;
            ++end;
        }
        // Leave the last item a node of its own rather than an empty one after it.
        if (end + 1 == count && end - first >= 2) {
            --end;
        }
        auto node = std::make_shared<BTreeNode>();
        node->isLeaf = leaves;
        node->records.assign(items.begin() + static_cast<std::ptrdiff_t>(first),
                             items.begin() + static_cast<std::ptrdiff_t>(end));
        if (!leaves) {
            node->children.assign(children.begin() + static_cast<std::ptrdiff_t>(first),
                                  children.begin() + static_cast<std::ptrdiff_t>(end + 1));
        }
        level.nodes.push_back(std::move(node));
        if (end >= count) {
            return level;
        }
        level.separators.push_back(items[end]);
        first = end + 1;
    }
}

void numberNodes(const NodePointer& node, std::vector<NodePointer>& ordered) {
    node->blockID = static_cast<std::uint32_t>(firstNodeBlockID + ordered.size());
    ordered.push_back(node);
    for (const auto& child : node->children) {
        numberNodes(child, ordered);
    }
}

void encodeNode(const EncodedRecords& encoded, const BTreeNode& node, BinaryWriter& out) {
    out.writeUInt32(node.isLeaf ? 0 : node.children.back()->blockID);
    out.writeUInt32(static_cast<std::uint32_t>(node.records.size()));
    for (std::size_t i = 0; i < node.records.size(); ++i) {
        if (!node.isLeaf) {
            out.writeUInt32(node.children[i]->blockID);
        }
        out.writeBytes(encoded.bytes(node.records[i]));
    }
}

std::vector<std::uint8_t> layOut(const EncodedRecords& encoded) {
    std::vector<std::size_t> items(encoded.count());
    std::iota(items.begin(), items.end(), std::size_t{0});
    auto level = packLevel(encoded, items, {}, true);
    std::uint32_t levels = 0;
    while (level.nodes.size() > 1) {
        level = packLevel(encoded, level.separators, level.nodes, false);
        ++levels;
    }
    std::vector<NodePointer> nodes;
    numberNodes(level.nodes.front(), nodes);

    const auto blockCount = static_cast<std::uint32_t>(nodes.size() + firstNodeBlockID);
    // Every free list holds at most one block after allocating from a fresh allocator.
    const std::uint64_t allocatorBytes =
        8 + roundUp(blockCount, 256) * 4 + 4 + 1 + tableName.size() + 4 + 32 * 4 + 32 * 4;
    auto allocator = BuddyAllocator::fresh();
    // Allocation order matches Finder's for an empty folder: allocator, nodes, then the table.
    const auto allocatorBlock = allocator.allocate(
        allocatorBlockID, std::max(std::bit_ceil(allocatorBytes), minimumAllocatorBlockSize));
    std::vector<AllocatedBlock> nodeBlocks;
    nodeBlocks.reserve(nodes.size());
    std::size_t recordCount = 0;
    for (const auto& node : nodes) {
        const auto size = encodedSize(encoded, *node);
        if (size > DSStore::pageSize) {
            std::size_t largest = 0;
            for (const auto index : node->records) {
                largest = std::max(largest, encoded.size(index));
            }
            emitDiagnostic(fmt::format(
                "A record of {} bytes is larger than a page; it gets a node of its own", largest));
        }
        nodeBlocks.push_back(allocator.allocate(node->blockID, size));
        recordCount += node->records.size();
    }
    const auto tableBlock = allocator.allocate(tableBlockID, 20);
    allocator.tableOfContents.emplace(std::string(tableName), tableBlockID);

    std::uint64_t end = 0;
    for (const auto address : allocator.blockAddresses) {
        const auto range = BuddyAllocator::decodeAddress(address);
        end = std::max(end, range.offset + range.size);
    }
    std::vector<std::uint8_t> file(4 + end, 0);
    const auto place = [&file](const AllocatedBlock& block, const BinaryWriter& content) {
        std::memcpy(file.data() + 4 + block.offset, content.data.data(), content.data.size());
    };

    BinaryWriter header;
    header.writeUInt32(fileAlignment);
    header.writeFourCC(fileMagic);
    header.writeUInt32(allocatorBlock.offset);
    header.writeUInt32(static_cast<std::uint32_t>(allocatorBlock.size()));
    header.writeUInt32(allocatorBlock.offset);
    // Finder fills the reserved words with the addresses of blocks 2 to 5.
    for (std::uint32_t id = firstNodeBlockID; id < firstNodeBlockID + 4; ++id) {
        header.writeUInt32(id < blockCount ? allocator.blockAddresses[id] : 0);
    }
    std::memcpy(file.data(), header.data.data(), header.data.size());

    BinaryWriter root;
    root.writeUInt32(blockCount);
    root.writeUInt32(0);
    for (const auto address : allocator.blockAddresses) {
        root.writeUInt32(address);
    }
    root.padTo(8 + roundUp(blockCount, 256) * 4);
    root.writeUInt32(1);
    root.writeUInt8(static_cast<std::uint8_t>(tableName.size()));
    root.writeASCII(tableName);
    root.writeUInt32(tableBlockID);
    for (auto& list : allocator.freeLists) {
        std::ranges::sort(list);
        root.writeUInt32(static_cast<std::uint32_t>(list.size()));
        for (const auto offset : list) {
            root.writeUInt32(offset);
        }
    }
    place(allocatorBlock, root);

    BinaryWriter table;
    table.writeUInt32(nodes.front()->blockID);
    table.writeUInt32(levels);
    table.writeUInt32(static_cast<std::uint32_t>(recordCount));
    table.writeUInt32(static_cast<std::uint32_t>(nodes.size()));
    table.writeUInt32(DSStore::pageSize);
    place(tableBlock, table);

    BinaryWriter node;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        node.data.clear();
        encodeNode(encoded, *nodes[i], node);
        place(nodeBlocks[i], node);
    }
    return file;
}

} // namespace

DSStore DSStore::read(std::span<const std::uint8_t> bytes) {
    return StoreReader(bytes).read();
}

DSStore DSStore::readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw DSStoreError(fmt::format("Cannot open {}", path.string()));
    }
    const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
    if (in.bad()) {
        throw DSStoreError(fmt::format("Cannot read {}", path.string()));
    }
    return read(bytes);
}

std::vector<std::uint8_t> DSStore::serialize() const {
    return layOut(EncodedRecords(records));
}

void DSStore::writeFile(const std::filesystem::path& path) const {
    const auto bytes = serialize();
    // A fresh name made with O_EXCL: nothing planted in the folder (a link, a file of a fixed
    // name) is ever written through. Flushed before the rename, so a crash leaves the old file
    // or the new one.
    auto name = path.string() + ".tmp-XXXXXX";
    const int fd = ::mkstemp(name.data());
    if (fd < 0) {
        throw DSStoreError(fmt::format("Cannot write {}", path.string()));
    }
    const std::filesystem::path temporary(name);
    const auto fail = [&] {
        ::close(fd);
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        return DSStoreError(fmt::format("Cannot write {}", path.string()));
    };
    ::fchmod(fd, 0644); // as Finder leaves it; mkstemp makes 0600
    std::span<const std::uint8_t> rest(bytes);
    while (!rest.empty()) {
        const ssize_t written = ::write(fd, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw fail();
        }
        rest = rest.subspan(static_cast<std::size_t>(written));
    }
    if (::fsync(fd) != 0) {
        throw fail();
    }
    if (::close(fd) != 0 || ::rename(name.c_str(), path.c_str()) != 0) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw DSStoreError(fmt::format("Cannot write {}", path.string()));
    }
}

const Record* DSStore::find(std::string_view filename, RecordType type) const {
    const auto found = std::ranges::find_if(records, [&](const Record& record) {
        return record.type == type && record.filename == filename;
    });
    return found == records.end() ? nullptr : &*found;
}

void DSStore::set(Record record) {
    for (auto& existing : records) {
        if (existing.type == record.type && existing.filename == record.filename) {
            existing = std::move(record);
            return;
        }
    }
    const RecordKey key{record.filename, record.type.code()};
    const auto position = std::ranges::find_if(records, [&key](const Record& existing) {
        return key < RecordKey{existing.filename, existing.type.code()};
    });
    records.insert(position, std::move(record));
}

bool DSStore::remove(std::string_view filename, RecordType type) {
    return std::erase_if(records, [&](const Record& record) {
               return record.type == type && record.filename == filename;
           }) > 0;
}

void DSStore::sortRecords(std::vector<Record>& records) {
    std::vector<Record*> pointers;
    pointers.reserve(records.size());
    for (auto& record : records) {
        pointers.push_back(&record);
    }
    EncodedRecords::sortByKey(pointers);
    std::vector<Record> sorted;
    sorted.reserve(records.size());
    for (auto* record : pointers) {
        sorted.push_back(std::move(*record));
    }
    records = std::move(sorted);
}

} // namespace dsstore
