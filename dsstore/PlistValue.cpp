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
    bool cyclic_ = false;
};

PlistValue fromNode(plist_t node, int depth) {
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
        // The library counts from 1 January 2001, like Core Foundation.
        constexpr std::int64_t referenceDate = 978307200;
        return PlistValue::date(PlistDate(std::chrono::microseconds(
            (referenceDate + seconds) * 1'000'000 + static_cast<std::int64_t>(microseconds))));
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
            items.push_back(fromNode(item, depth + 1));
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
            entries.emplace_back(std::move(name), fromNode(value, depth + 1));
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

PlistNode toNode(const PlistValue& value, int depth) {
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
    case PlistValue::Kind::date: {
        constexpr std::int64_t referenceDate = 978307200;
        const auto total = value.asDate().time_since_epoch().count() - referenceDate * 1'000'000;
        const auto seconds = total >= 0 ? total / 1'000'000 : -((-total + 999'999) / 1'000'000);
        const auto microseconds = total - seconds * 1'000'000;
        if (seconds < std::numeric_limits<std::int32_t>::min() ||
            seconds > std::numeric_limits<std::int32_t>::max()) {
            throw DecodeFailure{"a date is out of range"};
        }
        return PlistNode(plist_new_date(static_cast<std::int32_t>(seconds),
                                        static_cast<std::int32_t>(microseconds)));
    }
    case PlistValue::Kind::array: {
        PlistNode array(plist_new_array());
        for (const auto& item : value.asArray()) {
            plist_array_append_item(array.get(), toNode(item, depth + 1).release());
        }
        return array;
    }
    case PlistValue::Kind::dictionary: {
        PlistNode dictionary(plist_new_dict());
        for (const auto& [key, item] : value.asDictionary()) {
            plist_dict_set_item(dictionary.get(), cString(key), toNode(item, depth + 1).release());
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
    if (const auto problem = BinaryPlistScan(bytes).problem()) {
        throw failed(*problem);
    }
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::uint32_t>(bytes.size()), &root);
    const PlistNode owned(root);
    if (!root) {
        throw failed("the binary property list is malformed");
    }
    try {
        return fromNode(root, 0);
    } catch (const DecodeFailure& failure) {
        throw failed(failure.reason);
    }
}

std::vector<std::uint8_t> PlistValue::encodeBinary() const {
    try {
        const auto root = toNode(*this, 0);
        char* bytes = nullptr;
        std::uint32_t length = 0;
        plist_to_bin(root.get(), &bytes, &length);
        const std::unique_ptr<char, decltype(&plist_to_bin_free)> owned(bytes, &plist_to_bin_free);
        if (!bytes) {
            throw DecodeFailure{"the property list could not be encoded"};
        }
        const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
        return std::vector<std::uint8_t>(begin, begin + length);
    } catch (const DecodeFailure& failure) {
        throw DSStoreError("Property list serialization failed: " + failure.reason);
    }
}

} // namespace dsstore
