#pragma once

#include "Record.h"

#include <cstdint>
#include <optional>
#include <string>

namespace dsstore {

// Where a file's icon sits: the centre of the icon in window points, kept in its "Iloc" record.
struct IconPlacement {
    std::string filename;
    std::int32_t x = 0;
    std::int32_t y = 0;

    // nullopt unless the record is an "Iloc" blob of at least 8 bytes.
    static std::optional<IconPlacement> fromRecord(const Record& record);
    // The 16-byte blob Finder writes: x, y, then ffffffffffff0000.
    Record record() const;

    friend bool operator==(const IconPlacement&, const IconPlacement&) = default;
};

} // namespace dsstore
