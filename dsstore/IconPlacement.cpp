#include "IconPlacement.h"

#include "BinaryReader.h"
#include "BinaryWriter.h"

namespace dsstore {

std::optional<IconPlacement> IconPlacement::fromRecord(const Record& record) {
    if (record.type.kind() != RecordType::Kind::iconLocation ||
        record.value.kind() != Value::Kind::data || record.value.asBytes().size() < 8) {
        return std::nullopt;
    }
    BinaryReader reader(record.value.asBytes());
    const auto x = static_cast<std::int32_t>(reader.readUInt32());
    const auto y = static_cast<std::int32_t>(reader.readUInt32());
    return IconPlacement{record.filename, x, y};
}

Record IconPlacement::record() const {
    BinaryWriter blob;
    blob.writeUInt32(static_cast<std::uint32_t>(x));
    blob.writeUInt32(static_cast<std::uint32_t>(y));
    blob.writeUInt32(0xFFFFFFFF);
    blob.writeUInt32(0xFFFF0000);
    return Record{filename, RecordType::Kind::iconLocation, Value::data(std::move(blob.data))};
}

} // namespace dsstore
