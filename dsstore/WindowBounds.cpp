#include "WindowBounds.h"

#include "BinaryReader.h"
#include "BinaryWriter.h"

namespace dsstore {

std::optional<WindowBounds> WindowBounds::decode(std::span<const std::uint8_t> blob) {
    if (blob.size() != 16) {
        return std::nullopt;
    }
    BinaryReader reader(blob);
    WindowBounds bounds;
    bounds.top = static_cast<std::int16_t>(reader.readUInt16());
    bounds.left = static_cast<std::int16_t>(reader.readUInt16());
    bounds.bottom = static_cast<std::int16_t>(reader.readUInt16());
    bounds.right = static_cast<std::int16_t>(reader.readUInt16());
    bounds.viewStyle = reader.readFourCC();
    bounds.flags = reader.readUInt32();
    return bounds;
}

std::vector<std::uint8_t> WindowBounds::encode() const {
    BinaryWriter writer;
    for (const auto edge : {top, left, bottom, right}) {
        writer.writeUInt16(static_cast<std::uint16_t>(edge));
    }
    writer.writeFourCC(viewStyle);
    writer.writeUInt32(flags);
    return std::move(writer.data);
}

} // namespace dsstore
