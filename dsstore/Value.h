#pragma once

#include "FourCC.h"
#include "PlistValue.h"

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace dsstore {

// A record's value. Its kind decides the data-type code written before it ("bool", "long", ...);
// a property list is written as a "blob".
class Value {
public:
    enum class Kind {
        null,
        boolean,
        uint32,
        uint16,
        uint64,
        timestamp,
        fourCC,
        string,
        data,
        bookmark,
        propertyList
    };

    Value() = default;
    static Value boolean(bool value) { return Value(Kind::boolean, value); }
    static Value uint32(std::uint32_t value) { return Value(Kind::uint32, std::uint64_t{value}); }
    static Value uint16(std::uint16_t value) { return Value(Kind::uint16, std::uint64_t{value}); }
    static Value uint64(std::uint64_t value) { return Value(Kind::uint64, value); }
    // 1/65536 seconds since 1 January 1904.
    static Value timestamp(std::uint64_t value) { return Value(Kind::timestamp, value); }
    static Value fourCC(FourCC code) { return Value(Kind::fourCC, code); }
    static Value string(std::string text) { return Value(Kind::string, std::move(text)); }
    static Value data(std::vector<std::uint8_t> bytes) {
        return Value(Kind::data, std::move(bytes));
    }
    static Value bookmark(std::vector<std::uint8_t> bytes) {
        return Value(Kind::bookmark, std::move(bytes));
    }
    static Value propertyList(PlistValue plist) {
        return Value(Kind::propertyList, std::move(plist));
    }

    Kind kind() const noexcept { return kind_; }
    // The data-type code on disk; null has none and gives an empty string.
    std::string_view typeCode() const noexcept;

    bool asBoolean() const { return std::get<bool>(payload_); }
    // uint32, uint16, uint64 and timestamp.
    std::uint64_t asInteger() const { return std::get<std::uint64_t>(payload_); }
    FourCC asFourCC() const { return std::get<FourCC>(payload_); }
    const std::string& asString() const { return std::get<std::string>(payload_); }
    // data and bookmark.
    const std::vector<std::uint8_t>& asBytes() const {
        return std::get<std::vector<std::uint8_t>>(payload_);
    }
    const PlistValue& asPropertyList() const { return std::get<PlistValue>(payload_); }

    friend bool operator==(const Value&, const Value&) = default;

private:
    using Payload = std::variant<std::monostate, bool, std::uint64_t, FourCC, std::string,
                                 std::vector<std::uint8_t>, PlistValue>;
    template <typename T> Value(Kind kind, T payload) : kind_(kind), payload_(std::move(payload)) {}

    Kind kind_ = Kind::null;
    Payload payload_;
};

} // namespace dsstore
