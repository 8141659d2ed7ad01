// .DS_Store files come from anywhere: any bytes must read or fail with a message, and whatever
// reads must write and read back to the same records. An exception escaping from the round trip
// is a finding too.
#include "dsstore/AliasRecord.h"
#include "dsstore/DSStore.h"
#include "dsstore/DSStoreJSON.h"
#include "dsstore/IconViewSettings.h"

#include <cstddef>
#include <cstdint>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    dsstore::DSStore store;
    try {
        store = dsstore::DSStore::read(std::span(data, size));
    } catch (const dsstore::DSStoreError&) {
        return 0;
    }
    // A picture alias inside the view settings reads or fails with a message, and what reads
    // writes back to the same bytes' record.
    if (const auto icons = dsstore::IconViewSettings::from(store);
        icons && icons->backgroundImageAlias) {
        try {
            const auto alias = dsstore::AliasRecord::decode(*icons->backgroundImageAlias);
            if (dsstore::AliasRecord::decode(alias.encode()).fields != alias.fields) {
                __builtin_trap();
            }
        } catch (const dsstore::DSStoreError&) {
        }
    }
    const auto reread = dsstore::DSStore::read(store.serialize());
    auto sorted = store.records;
    dsstore::DSStore::sortRecords(sorted);
    if (reread.records != sorted) {
        __builtin_trap();
    }
    // The JSON form must round-trip too, except for reals JSON cannot hold (NaN, infinities).
    const auto json = dsstore::storeToJson(store).dump();
    try {
        if (dsstore::storeFromJson(nlohmann::ordered_json::parse(json)).records != store.records) {
            __builtin_trap();
        }
    } catch (const dsstore::DSStoreError&) {
    }
    return 0;
}
