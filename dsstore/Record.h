#pragma once

#include "RecordType.h"
#include "Value.h"

#include <string>
#include <string_view>

namespace dsstore {

// One thing said about one file name in the folder; "." names the folder itself.
struct Record {
    std::string filename;
    RecordType type = RecordType::Kind::custom;
    Value value;

    friend bool operator==(const Record&, const Record&) = default;
};

// The sort key of records: the file name compared without regard to case or diacritics, then the
// structure code byte by byte.
struct RecordKey {
    std::string filename;
    FourCC typeCode;

    // The form names are compared in: case-folded, decomposed, marks removed, as UTF-16 units.
    static std::u16string foldedName(std::string_view filename);
    // Negative, zero or positive, as the first name sorts before, with or after the second.
    static int compareNames(std::string_view a, std::string_view b);

    friend bool operator<(const RecordKey& a, const RecordKey& b);
};

} // namespace dsstore
