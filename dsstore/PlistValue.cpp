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

// True when any string object of a binary property list holds a NUL character. libplist asserts
// (and aborts the process) when it hands out such a string or dictionary key, so these lists are
// refused before it sees them. Anything structurally wrong is left for libplist to reject.
bool holdsStringWithNul(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 8 + 32) {
        return false;
    }
    const auto trailer = bytes.last(32);
    const auto bigEndian = [&bytes](std::uint64_t at,
                                    unsigned width) -> std::optional<std::uint64_t> {
        if (width == 0 || width > 8 || at > bytes.size() || bytes.size() - at < width) {
            return std::nullopt;
        }
        std::uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            value = value << 8 | bytes[at + i];
        }
        return value;
    };
    const unsigned offsetSize = trailer[6];
    const auto tail = bytes.size() - 32;
    const auto objectCount = bigEndian(tail + 8, 8);
    const auto tableOffset = bigEndian(tail + 24, 8);
    if (!objectCount || !tableOffset || offsetSize == 0 || offsetSize > 8 ||
        *objectCount > bytes.size() / offsetSize) {
        return false;
    }
    for (std::uint64_t i = 0; i < *objectCount; ++i) {
        if (*tableOffset > bytes.size() || i > (bytes.size() - *tableOffset) / offsetSize) {
            return false;
        }
        const auto offset = bigEndian(*tableOffset + i * offsetSize, offsetSize);
        if (!offset || *offset >= bytes.size()) {
            continue;
        }
        const unsigned marker = bytes[*offset];
        const unsigned kind = marker >> 4;
        if (kind != 0x5 && kind != 0x6) {
            continue;
        }
        std::uint64_t length = marker & 0x0F;
        std::uint64_t start = *offset + 1;
        if (length == 0x0F) {
            if (start >= bytes.size() || (bytes[start] >> 4) != 0x1) {
                continue;
            }
            const unsigned width = 1U << (bytes[start] & 0x0F);
            const auto extended = bigEndian(start + 1, width);
            if (!extended) {
                continue;
            }
            length = *extended;
            start += 1 + width;
        }
        const std::uint64_t unit = kind == 0x6 ? 2 : 1;
        if (start > bytes.size() || length > (bytes.size() - start) / unit) {
            continue;
        }
        for (std::uint64_t k = 0; k < length; ++k) {
            const auto at = start + k * unit;
            if (bytes[at] == 0 && (unit == 1 || bytes[at + 1] == 0)) {
                return true;
            }
        }
    }
    return false;
}

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
        PlistArray items;
        const auto count = plist_array_get_size(node);
        items.reserve(count);
        for (std::uint32_t i = 0; i < count; ++i) {
            items.push_back(fromNode(plist_array_get_item(node, i), depth + 1));
        }
        return PlistValue::array(std::move(items));
    }
    case PLIST_DICT: {
        PlistDictionary entries;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        const std::unique_ptr<void, decltype(&std::free)> ownedIterator(iterator, &std::free);
        for (;;) {
            char* key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iterator, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            std::string name = validText(key);
            for (const auto& entry : entries) {
                if (entry.first == name) {
                    throw DecodeFailure{"a dictionary repeats the key " + name};
                }
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
    if (holdsStringWithNul(bytes)) {
        throw failed("a string contains a NUL character");
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
