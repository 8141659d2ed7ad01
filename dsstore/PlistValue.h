#pragma once

#include <bit>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace dsstore {

class PlistValue;

// A property-list date as the list stores it: seconds from 1 January 2001 UTC in a double, kept
// to the bit, so that reading and writing a file gives back the value Finder wrote.
struct PlistDate {
    static constexpr std::int64_t referenceUnixTime = 978'307'200;

    double sinceReferenceDate = 0;

    static PlistDate fromUnixSeconds(std::int64_t seconds) {
        return {static_cast<double>(seconds - referenceUnixTime)};
    }
    friend bool operator==(PlistDate a, PlistDate b) {
        return std::bit_cast<std::uint64_t>(a.sinceReferenceDate) ==
               std::bit_cast<std::uint64_t>(b.sinceReferenceDate);
    }
};
using PlistArray = std::vector<PlistValue>;
// Keys in the order the property list holds them, so that a read-write cycle keeps it.
using PlistDictionary = std::vector<std::pair<std::string, PlistValue>>;

// A property-list value: what Finder keeps in its settings blobs.
class PlistValue {
public:
    enum class Kind { string, integer, real, boolean, data, date, array, dictionary };

    PlistValue() : storage_(std::string()) {}
    static PlistValue string(std::string text) { return PlistValue(std::move(text)); }
    static PlistValue integer(std::int64_t value) { return PlistValue(value); }
    static PlistValue real(double value) { return PlistValue(value); }
    static PlistValue boolean(bool value) { return PlistValue(value); }
    static PlistValue data(std::vector<std::uint8_t> bytes) { return PlistValue(std::move(bytes)); }
    static PlistValue date(PlistDate when) { return PlistValue(when); }
    static PlistValue array(PlistArray items) { return PlistValue(std::move(items)); }
    static PlistValue dictionary(PlistDictionary entries) { return PlistValue(std::move(entries)); }

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }

    // Accessors for the matching kind; they throw std::bad_variant_access on another kind.
    const std::string& asString() const { return std::get<std::string>(storage_); }
    std::int64_t asInteger() const { return std::get<std::int64_t>(storage_); }
    double asReal() const { return std::get<double>(storage_); }
    bool asBoolean() const { return std::get<bool>(storage_); }
    const std::vector<std::uint8_t>& asData() const {
        return std::get<std::vector<std::uint8_t>>(storage_);
    }
    PlistDate asDate() const { return std::get<PlistDate>(storage_); }
    const PlistArray& asArray() const { return std::get<PlistArray>(storage_); }
    const PlistDictionary& asDictionary() const { return std::get<PlistDictionary>(storage_); }
    PlistDictionary& asDictionary() { return std::get<PlistDictionary>(storage_); }

    // The value under key in a dictionary; nullptr when absent or when this is not a dictionary.
    const PlistValue* find(std::string_view key) const;

    // Reals compare by their bits, so that a value always equals what it round-trips to.
    friend bool operator==(const PlistValue& a, const PlistValue& b);

    // Decodes a binary property list ("bplist00"); throws DSStoreError with "Property list
    // serialization failed: " and the reason.
    static PlistValue decodeBinary(std::span<const std::uint8_t> bytes);
    // Throws DSStoreError as decodeBinary does, for values a property list cannot hold.
    std::vector<std::uint8_t> encodeBinary() const;

private:
    using Storage = std::variant<std::string, std::int64_t, double, bool, std::vector<std::uint8_t>,
                                 PlistDate, PlistArray, PlistDictionary>;
    template <typename T> explicit PlistValue(T value) : storage_(std::move(value)) {}

    Storage storage_;
};

} // namespace dsstore
