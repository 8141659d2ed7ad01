// The JSON that 'veltra dsstore write' reads is user input: it must build a store or fail with a
// message, and whatever store it builds must be refused with a message or written readably.
#include "dsstore/DSStore.h"
#include "dsstore/DSStoreJSON.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto json = nlohmann::ordered_json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return 0;
    }
    std::vector<std::uint8_t> bytes;
    try {
        bytes = dsstore::storeFromJson(json).serialize();
    } catch (const dsstore::DSStoreError&) {
        return 0;
    }
    dsstore::DSStore::read(bytes);
    return 0;
}
