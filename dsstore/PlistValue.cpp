#include "PlistValue.h"

#include "BinaryWriter.h"
#include "DSStoreError.h"

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <plist/plist.h>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace dsstore {

namespace {

// Deeper nesting than any settings blob has is refused rather than recursed into.
constexpr int maximumDepth = 256;

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistNode = std::unique_ptr<void, PlistFree>;

struct MallocFree {
    void operator()(char* text) const { std::free(text); }
};
using MallocText = std::unique_ptr<char, MallocFree>;

class DecodeFailure {
public:
    std::string reason;
};

std::string validText(char* raw) {
    const MallocText owned(raw);
    std::string text = owned ? std::string(owned.get()) : std::string();
    if (!utf16FromUTF8(text)) {
        throw DecodeFailure{"a string is not valid Unicode"};
    }
    return text;
}

// What libplist cannot be trusted with, found by a pass over the raw objects before it parses
// them: it asserts (aborting the process) when handing out a string or key that holds a NUL, and
// it copies an object once per reference, so a few kilobytes of nested references can expand to
// billions of nodes. Anything else structurally wrong is left for libplist to reject.
class BinaryPlistScan {
public:
    // Beyond this many nodes once references are expanded a list is refused; Finder's settings
    // hold a few hundred.
    static constexpr std::uint64_t maximumNodes = 1 << 20;

    explicit BinaryPlistScan(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    // The reason to refuse the list, or nullopt.
    std::optional<std::string> problem() {
        if (bytes_.size() < 8 + 32) {
            return std::nullopt;
        }
        const auto tail = bytes_.size() - 32;
        offsetSize_ = bytes_[tail + 6];
        referenceSize_ = bytes_[tail + 7];
        const auto count = number(tail + 8, 8);
        const auto top = number(tail + 16, 8);
        const auto table = number(tail + 24, 8);
        if (offsetSize_ == 0 || offsetSize_ > 8 || referenceSize_ == 0 || referenceSize_ > 8 ||
            !count || !top || !table || *top >= *count || *table > tail ||
            *count > (tail - *table) / offsetSize_) {
            return std::nullopt;
        }
        tableOffset_ = *table;
        objectCount_ = *count;
        top_ = *top;
        for (std::uint64_t i = 0; i < objectCount_; ++i) {
            const auto object = read(i);
            if (object.kind == 0x5 || object.kind == 0x6) {
                const std::uint64_t unit = object.kind == 0x6 ? 2 : 1;
                for (std::uint64_t k = 0; k < object.length; ++k) {
                    const auto at = object.start + k * unit;
                    if (bytes_[at] == 0 && (unit == 1 || bytes_[at + 1] == 0)) {
                        return "a string contains a NUL character";
                    }
                }
            }
        }
        const auto nodes = expandedNodes(*top);
        if (cyclic_) {
            return "an object contains itself";
        }
        if (nodes > maximumNodes) {
            return "the property list is too large";
        }
        return std::nullopt;
    }

    // The doubles of the date objects in the order libplist builds their nodes: depth first
    // from the top object, a dictionary's entries key then value. Read from the bytes because
    // libplist hands a date out only truncated to microseconds. Valid once problem() has found
    // none, which also bounds the walk.
    std::vector<double> datesInTreeOrder() const {
        std::vector<double> dates;
        if (objectCount_ == 0) {
            return dates;
        }
        std::vector<std::uint64_t> pending{top_};
        std::vector<std::uint64_t> children;
        while (!pending.empty()) {
            const auto index = pending.back();
            pending.pop_back();
            const auto offset = number(tableOffset_ + index * offsetSize_, offsetSize_);
            if (!offset || *offset >= bytes_.size()) {
                continue;
            }
            if (bytes_[*offset] == 0x33) {
                if (const auto bits = number(*offset + 1, 8)) {
                    dates.push_back(std::bit_cast<double>(*bits));
                }
                continue;
            }
            const auto object = read(index);
            if (object.kind < 0xA) {
                continue;
            }
            children.clear();
            const auto reference = [&](std::uint64_t at) {
                const auto child = number(object.start + at * referenceSize_, referenceSize_);
                if (child && *child < objectCount_) {
                    children.push_back(*child);
                }
            };
            if (object.kind == 0xD) {
                const auto entries = object.length / 2;
                for (std::uint64_t i = 0; i < entries; ++i) {
                    reference(i);
                    reference(entries + i);
                }
            } else {
                for (std::uint64_t i = 0; i < object.length; ++i) {
                    reference(i);
                }
            }
            pending.insert(pending.end(), children.rbegin(), children.rend());
        }
        return dates;
    }

private:
    struct Object {
        unsigned kind = 0xF; // 0xF: not something to look into
        std::uint64_t start = 0;
        std::uint64_t length = 0;
    };

    std::optional<std::uint64_t> number(std::uint64_t at, unsigned width) const {
        if (width == 0 || width > 8 || at > bytes_.size() || bytes_.size() - at < width) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            value = value << 8 | bytes_[at + i];
        }
        return value;
    }

    // Strings and containers with their payload in bounds; anything else reads as kind 0xF.
    Object read(std::uint64_t index) const {
        const auto offset = number(tableOffset_ + index * offsetSize_, offsetSize_);
        if (!offset || *offset >= bytes_.size()) {
            return {};
        }
        const unsigned marker = bytes_[*offset];
        const unsigned kind = marker >> 4;
        std::uint64_t unit = 0;
        switch (kind) {
        case 0x5:
            unit = 1;
            break;
        case 0x6:
            unit = 2;
            break;
        case 0xA:
        case 0xC:
            unit = referenceSize_;
            break;
        case 0xD:
            unit = 2 * std::uint64_t{referenceSize_};
            break;
        default:
            return {};
        }
        std::uint64_t length = marker & 0x0F;
        std::uint64_t start = *offset + 1;
        if (length == 0x0F) {
            if (start >= bytes_.size() || (bytes_[start] >> 4) != 0x1) {
                return {};
            }
            const unsigned width = 1U << (bytes_[start] & 0x0F);
            const auto extended = number(start + 1, width);
            if (!extended) {
                return {};
            }
            length = *extended;
            start += 1 + width;
        }
        if (start > bytes_.size() || length > (bytes_.size() - start) / unit) {
            return {};
        }
        if (kind == 0xD) {
            length *= 2;
        }
        return {kind, start, length};
    }

    // Nodes under top with every reference expanded, capped just past the maximum. A reference
    // cycle, on which libplist would recurse, stops the count and is remembered.
    std::uint64_t expandedNodes(std::uint64_t top) {
        constexpr std::uint64_t cap = maximumNodes + 1;
        std::vector<std::uint64_t> size(objectCount_, 0);
        std::vector<std::uint8_t> state(objectCount_, 0); // 0 new, 1 open, 2 done
        struct Frame {
            std::uint64_t index;
            Object object;
            std::uint64_t next = 0;
            std::uint64_t total = 1;
        };
        std::vector<Frame> stack{{top, read(top)}};
        state[top] = 1;
        while (!stack.empty()) {
            auto& frame = stack.back();
            const bool container = frame.object.kind >= 0xA;
            if (container && frame.next < frame.object.length) {
                const auto child =
                    number(frame.object.start + frame.next * referenceSize_, referenceSize_);
                ++frame.next;
                if (!child || *child >= objectCount_) {
                    continue;
                }
                if (state[*child] == 1) {
                    cyclic_ = true;
                    return cap;
                }
                if (state[*child] == 2) {
                    frame.total = std::min(cap, frame.total + size[*child]);
                    continue;
                }
                state[*child] = 1;
                stack.push_back({*child, read(*child)});
                continue;
            }
            const auto done = frame;
            stack.pop_back();
            size[done.index] = done.total;
            state[done.index] = 2;
            if (!stack.empty()) {
                stack.back().total = std::min(cap, stack.back().total + done.total);
            }
        }
        return size[top];
    }

    std::span<const std::uint8_t> bytes_;
    unsigned offsetSize_ = 0;
    unsigned referenceSize_ = 0;
    std::uint64_t tableOffset_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t top_ = 0;
    bool cyclic_ = false;
};

// libplist keeps a date as the double the list holds but takes and hands it out only as whole
// seconds and truncated microseconds, so a date read and written back could move. Writing, each
// date goes to libplist as a small whole number indexing the exact values, which it passes
// through unchanged, and the written objects are given their doubles back.
class DateObjects {
public:
    // Calls visit(payload) once for each distinct date object (marker 0x33 and its 8-byte
    // big-endian double) that the offset table names; anything out of bounds is libplist's to
    // refuse.
    template <typename Visit> static void forEach(std::span<std::uint8_t> bytes, Visit visit) {
        if (bytes.size() < 8 + 32) {
            return;
        }
        const auto tail = bytes.size() - 32;
        const unsigned offsetSize = bytes[tail + 6];
        const auto count = bigEndian(bytes.subspan(tail + 8, 8));
        const auto table = bigEndian(bytes.subspan(tail + 24, 8));
        if (offsetSize == 0 || offsetSize > 8 || table > tail ||
            count > (tail - table) / offsetSize) {
            return;
        }
        std::unordered_set<std::uint64_t> seen;
        for (std::uint64_t i = 0; i < count; ++i) {
            const auto offset = bigEndian(bytes.subspan(table + i * offsetSize, offsetSize));
            if (offset < 8 || offset >= tail || tail - offset < 9 || bytes[offset] != 0x33 ||
                !seen.insert(offset).second) {
                continue;
            }
            visit(bytes.subspan(offset + 1, 8));
        }
    }

    static double read(std::span<const std::uint8_t> payload) {
        return std::bit_cast<double>(bigEndian(payload));
    }
    static void write(std::span<std::uint8_t> payload, double value) {
        auto bits = std::bit_cast<std::uint64_t>(value);
        for (std::size_t i = payload.size(); i-- > 0; bits >>= 8) {
            payload[i] = static_cast<std::uint8_t>(bits & 0xFF);
        }
    }

private:
    static std::uint64_t bigEndian(std::span<const std::uint8_t> bytes) {
        std::uint64_t value = 0;
        for (const auto byte : bytes) {
            value = value << 8 | byte;
        }
        return value;
    }
};

// The exact dates of a list being read, in the order its date nodes come.
class DateCursor {
public:
    explicit DateCursor(std::vector<double> dates) : dates_(std::move(dates)) {}

    // The next date, checked against libplist's truncated view of the same node; nullopt when
    // the two disagree, which only a list libplist reads otherwise than its bytes say can cause.
    std::optional<PlistDate> next(std::int32_t seconds, std::int32_t microseconds) {
        if (next_ == dates_.size()) {
            return std::nullopt;
        }
        const double value = dates_[next_++];
        // libplist's own conversion is defined only for values an int32 holds.
        if (value > -2147483648.0 && value < 2147483648.0) {
            const auto whole = static_cast<std::int64_t>(value);
            if (seconds != static_cast<std::int32_t>(whole) ||
                microseconds != static_cast<std::int32_t>(
                                    std::fabs((value - static_cast<double>(whole)) * 1e6))) {
                return std::nullopt;
            }
        }
        return PlistDate{value};
    }
    bool finished() const { return next_ == dates_.size(); }

private:
    std::vector<double> dates_;
    std::size_t next_ = 0;
};

// The exact dates of a list being written, by the index libplist carries.
class DateTable {
public:
    std::int32_t add(PlistDate date) {
        const auto bits = std::bit_cast<std::uint64_t>(date.sinceReferenceDate);
        // Equal dates share an index, so libplist still writes them as one object.
        const auto [at, added] =
            indexes_.try_emplace(bits, static_cast<std::int32_t>(dates_.size()));
        if (added) {
            dates_.push_back(date);
        }
        return at->second;
    }
    std::optional<PlistDate> at(double index) const {
        if (!(index >= 0) || index >= static_cast<double>(dates_.size()) ||
            index != std::floor(index)) {
            return std::nullopt;
        }
        return dates_[static_cast<std::size_t>(index)];
    }

private:
    std::vector<PlistDate> dates_;
    std::unordered_map<std::uint64_t, std::int32_t> indexes_;
};

PlistValue fromNode(plist_t node, int depth, DateCursor& dates) {
    if (depth > maximumDepth) {
        throw DecodeFailure{"nesting is too deep"};
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return PlistValue::boolean(value != 0);
    }
    case PLIST_UINT: {
        // Binary property lists store 8-byte integers signed; the library hands them over raw.
        std::uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return PlistValue::integer(static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return PlistValue::real(value);
    }
    case PLIST_STRING: {
        // Read by pointer and length: the library asserts when asked to copy a string that
        // holds a NUL, which a hostile file can contain.
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        const std::string_view view = text ? std::string_view(text, length) : std::string_view();
        if (view.find('\0') != std::string_view::npos) {
            throw DecodeFailure{"a string contains a NUL character"};
        }
        if (!utf16FromUTF8(view)) {
            throw DecodeFailure{"a string is not valid Unicode"};
        }
        return PlistValue::string(std::string(view));
    }
    case PLIST_DATA: {
        std::uint64_t length = 0;
        const auto* begin =
            reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
        return PlistValue::data(begin ? std::vector<std::uint8_t>(begin, begin + length)
                                      : std::vector<std::uint8_t>());
    }
    case PLIST_DATE: {
        std::int32_t seconds = 0;
        std::int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        const auto date = dates.next(seconds, microseconds);
        if (!date) {
            throw DecodeFailure{"a date could not be read"};
        }
        return PlistValue::date(*date);
    }
    case PLIST_ARRAY: {
        // The iterator, not indexing: the library finds the n-th item by walking the list.
        PlistArray items;
        plist_array_iter iterator = nullptr;
        plist_array_new_iter(node, &iterator);
        const std::unique_ptr<void, decltype(&std::free)> ownedIterator(iterator, &std::free);
        for (;;) {
            plist_t item = nullptr;
            plist_array_next_item(node, iterator, &item);
            if (!item) {
                break;
            }
            items.push_back(fromNode(item, depth + 1, dates));
        }
        return PlistValue::array(std::move(items));
    }
    case PLIST_DICT: {
        PlistDictionary entries;
        std::unordered_set<std::string> seen;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        const std::unique_ptr<void, decltype(&std::free)> ownedIterator(iterator, &std::free);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            // libplist 2.2 hands out keys only as copies (no pointer-and-length getter, as
            // strings have) and asserts on a key holding a NUL; BinaryPlistScan has refused
            // those before parsing, keys being string objects like any other.
            plist_dict_next_item(node, iterator, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            std::string name = validText(key);
            // A set, not a scan: a hostile list can hold a dictionary of many thousand keys.
            if (!seen.insert(name).second) {
                throw DecodeFailure{"a dictionary repeats the key " + name};
            }
            entries.emplace_back(std::move(name), fromNode(value, depth + 1, dates));
        }
        return PlistValue::dictionary(std::move(entries));
    }
    case PLIST_KEY:
    case PLIST_UID:
    case PLIST_NONE:
        break;
    }
    throw DecodeFailure{"a value has a type that Finder settings do not use"};
}

PlistNode toNode(const PlistValue& value, int depth, DateTable& dates) {
    if (depth > maximumDepth) {
        throw DecodeFailure{"nesting is too deep"};
    }
    const auto cString = [](const std::string& text) {
        // The library keeps strings NUL-terminated, so an embedded NUL would be cut off.
        if (text.find('\0') != std::string::npos) {
            throw DecodeFailure{"a string contains a NUL character"};
        }
        return text.c_str();
    };
    switch (value.kind()) {
    case PlistValue::Kind::string:
        return PlistNode(plist_new_string(cString(value.asString())));
    case PlistValue::Kind::integer:
        return PlistNode(plist_new_uint(static_cast<std::uint64_t>(value.asInteger())));
    case PlistValue::Kind::real:
        return PlistNode(plist_new_real(value.asReal()));
    case PlistValue::Kind::boolean:
        return PlistNode(plist_new_bool(value.asBoolean() ? 1 : 0));
    case PlistValue::Kind::data: {
        const auto& bytes = value.asData();
        return PlistNode(plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    case PlistValue::Kind::date:
        return PlistNode(plist_new_date(dates.add(value.asDate()), 0));
    case PlistValue::Kind::array: {
        PlistNode array(plist_new_array());
        for (const auto& item : value.asArray()) {
            plist_array_append_item(array.get(), toNode(item, depth + 1, dates).release());
        }
        return array;
    }
    case PlistValue::Kind::dictionary: {
        PlistNode dictionary(plist_new_dict());
        for (const auto& [key, item] : value.asDictionary()) {
            plist_dict_set_item(dictionary.get(), cString(key),
                                toNode(item, depth + 1, dates).release());
        }
        if (plist_dict_get_size(dictionary.get()) != value.asDictionary().size()) {
            throw DecodeFailure{"a dictionary repeats a key"};
        }
        return dictionary;
    }
    }
    throw DecodeFailure{"unknown value"};
}

} // namespace

const PlistValue* PlistValue::find(std::string_view key) const {
    if (kind() != Kind::dictionary) {
        return nullptr;
    }
    for (const auto& entry : asDictionary()) {
        if (entry.first == key) {
            return &entry.second;
        }
    }
    return nullptr;
}

bool operator==(const PlistValue& a, const PlistValue& b) {
    if (a.kind() != b.kind()) {
        return false;
    }
    if (a.kind() == PlistValue::Kind::real) {
        return std::bit_cast<std::uint64_t>(a.asReal()) == std::bit_cast<std::uint64_t>(b.asReal());
    }
    return a.storage_ == b.storage_;
}

PlistValue PlistValue::decodeBinary(std::span<const std::uint8_t> bytes) {
    const auto failed = [](std::string_view reason) {
        return DSStoreError("Property list serialization failed: " + std::string(reason));
    };
    constexpr std::string_view magic = "bplist00";
    if (bytes.size() < magic.size() ||
        std::string_view(reinterpret_cast<const char*>(bytes.data()), magic.size()) != magic) {
        throw failed("not a binary property list");
    }
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw failed("the property list is too large");
    }
    BinaryPlistScan scan(bytes);
    if (const auto problem = scan.problem()) {
        throw failed(*problem);
    }
    DateCursor dates{scan.datesInTreeOrder()};
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::uint32_t>(bytes.size()), &root);
    const PlistNode owned(root);
    if (!root) {
        throw failed("the binary property list is malformed");
    }
    try {
        auto value = fromNode(root, 0, dates);
        if (!dates.finished()) {
            throw DecodeFailure{"a date could not be read"};
        }
        return value;
    } catch (const DecodeFailure& failure) {
        throw failed(failure.reason);
    }
}

std::vector<std::uint8_t> PlistValue::encodeBinary() const {
    try {
        DateTable dates;
        const auto root = toNode(*this, 0, dates);
        char* bytes = nullptr;
        std::uint32_t length = 0;
        plist_to_bin(root.get(), &bytes, &length);
        const std::unique_ptr<char, decltype(&plist_to_bin_free)> owned(bytes, &plist_to_bin_free);
        if (!bytes) {
            throw DecodeFailure{"the property list could not be encoded"};
        }
        const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
        std::vector<std::uint8_t> encoded(begin, begin + length);
        bool complete = true;
        DateObjects::forEach(encoded, [&dates, &complete](std::span<std::uint8_t> payload) {
            const auto date = dates.at(DateObjects::read(payload));
            complete = complete && date.has_value();
            DateObjects::write(payload, date ? date->sinceReferenceDate : 0);
        });
        if (!complete) {
            throw DecodeFailure{"a date could not be written"};
        }
        return encoded;
    } catch (const DecodeFailure& failure) {
        throw DSStoreError("Property list serialization failed: " + failure.reason);
    }
}

} // namespace dsstore
