#pragma once

#include "DSStore.h"

#include <nlohmann/json.hpp>

namespace dsstore {

// The JSON form of a store: {"records":[{"filename", "code", "type", "value"}]} in record order.
// "type" is the data-type code, or "plist" for a decoded property-list blob; blobs are lower-case
// hex; in property lists data is {"$data": hex} and dates {"$date": ISO 8601 UTC}, or the date's
// double as "0x" and 16 hex digits where no calendar text reads back to it exactly.
nlohmann::ordered_json storeToJson(const DSStore& store);

// Builds a store from exactly that form, records in the given order; throws DSStoreError naming
// the path of the first bad field ("records[2].value: expected a hex string").
DSStore storeFromJson(const nlohmann::ordered_json& json);

nlohmann::ordered_json plistToJson(const PlistValue& plist);
std::string hexString(std::span<const std::uint8_t> bytes);
// "2024-05-01T12:00:00Z"; when the time is not a whole second, six fraction digits or as many
// more as it takes to read back to the same double.
std::string iso8601(PlistDate date);

} // namespace dsstore
