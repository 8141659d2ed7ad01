#include "AliasRecord.h"

#include "BinaryReader.h"
#include "BinaryWriter.h"

#include <algorithm>
#include <cerrno>
#include <iconv.h>

namespace dsstore {
namespace {

// Seconds from 1904-01-01 (the HFS epoch) to 1970-01-01.
constexpr std::int64_t hfsEpochOffset = 2082844800;

// Converts between UTF-8 and Mac Roman, the encoding of the record's legacy name fields; a
// character Mac Roman lacks becomes "?", as Finder itself writes it.
std::string convert(const std::string& text, const char* to, const char* from) {
    const iconv_t converter = iconv_open(to, from);
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        return text;
    }
    std::string input = text;
    std::string output(text.size() * 4 + 4, '\0');
    char* in = input.data();
    std::size_t inLeft = input.size();
    char* out = output.data();
    std::size_t outLeft = output.size();
    while (inLeft > 0) {
        if (iconv(converter, &in, &inLeft, &out, &outLeft) != static_cast<std::size_t>(-1)) {
            break;
        }
        if (errno != EILSEQ && errno != EINVAL) {
            break;
        }
        // Skip one whole UTF-8 character (or one byte of anything else) and write "?".
        std::size_t skip = 1;
        while (std::string_view(from) == "UTF-8" && skip < inLeft &&
               (static_cast<unsigned char>(in[skip]) & 0xC0) == 0x80) {
            ++skip;
        }
        in += skip;
        inLeft -= skip;
        if (outLeft == 0) {
            break;
        }
        *out++ = '?';
        --outLeft;
    }
    iconv_close(converter);
    output.resize(output.size() - outLeft);
    return output;
}

std::string macRoman(const std::string& utf8, std::size_t limit) {
    auto bytes = convert(utf8, "MACINTOSH", "UTF-8");
    if (bytes.size() > limit) {
        bytes.resize(limit);
    }
    return bytes;
}

std::string fromMacRoman(const std::string& bytes) {
    return convert(bytes, "UTF-8", "MACINTOSH");
}

std::vector<std::uint8_t> bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

std::vector<std::uint8_t> unicodeName(const std::string& utf8) {
    BinaryWriter writer;
    const auto units = utf16FromUTF8(utf8).value_or(u"?");
    writer.writeUInt16(static_cast<std::uint16_t>(units.size()));
    writer.writeUTF16(units);
    return std::move(writer.data);
}

std::vector<std::uint8_t> fixedTime(std::int64_t unixSeconds) {
    BinaryWriter writer;
    writer.writeUInt64(static_cast<std::uint64_t>(unixSeconds + hfsEpochOffset) << 16);
    return std::move(writer.data);
}

std::uint32_t hfsTime(std::int64_t unixSeconds, std::int32_t utcOffset) {
    return static_cast<std::uint32_t>(unixSeconds + utcOffset + hfsEpochOffset);
}

void writePascal(BinaryWriter& writer, const std::string& bytes, std::size_t fieldSize) {
    const auto start = writer.size();
    writer.writeUInt8(static_cast<std::uint8_t>(bytes.size()));
    writer.writeBytes(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
    writer.padTo(start + fieldSize);
}

std::string readPascal(BinaryReader& reader, std::size_t fieldSize) {
    const auto field = reader.readSpan(fieldSize);
    const std::size_t length = std::min<std::size_t>(field[0], fieldSize - 1);
    return fromMacRoman(
        std::string(field.begin() + 1, field.begin() + 1 + static_cast<long>(length)));
}

} // namespace

const std::vector<std::uint8_t>* AliasRecord::field(Tag tag) const {
    for (const auto& f : fields) {
        if (f.tag == static_cast<std::int16_t>(tag)) {
            return &f.data;
        }
    }
    return nullptr;
}

std::optional<std::string> AliasRecord::text(Tag tag) const {
    const auto* data = field(tag);
    if (data == nullptr) {
        return std::nullopt;
    }
    if (tag == Tag::unicodeFileName || tag == Tag::unicodeVolumeName) {
        try {
            BinaryReader reader(*data);
            return reader.readUTF16String(reader.readUInt16());
        } catch (const DSStoreError&) {
            return std::nullopt;
        }
    }
    const std::string bytes(data->begin(), data->end());
    return tag == Tag::posixPath || tag == Tag::volumeMountPoint ? bytes : fromMacRoman(bytes);
}

AliasRecord AliasRecord::decode(std::span<const std::uint8_t> bytes) {
    AliasRecord record;
    try {
        BinaryReader reader(bytes);
        record.creatorCode = reader.readUInt32();
        const auto size = reader.readUInt16();
        if (size < 150 || size > bytes.size()) {
            throw DSStoreError("Invalid alias record: its size field is " + std::to_string(size) +
                               " for " + std::to_string(bytes.size()) + " bytes");
        }
        const auto version = reader.readUInt16();
        if (version != 2) {
            throw DSStoreError("Invalid alias record: version " + std::to_string(version) +
                               " is not 2");
        }
        BinaryReader body(bytes.first(size));
        body.seek(8);
        record.kind = body.readUInt16();
        record.volumeName = readPascal(body, 28);
        record.volumeCreated = body.readUInt32();
        record.volumeSignature = body.readUInt16();
        record.volumeType = body.readUInt16();
        record.parentID = body.readUInt32();
        record.fileName = readPascal(body, 64);
        record.fileID = body.readUInt32();
        record.fileCreated = body.readUInt32();
        record.fileType = body.readUInt32();
        record.fileCreator = body.readUInt32();
        record.levelsFrom = static_cast<std::int16_t>(body.readUInt16());
        record.levelsTo = static_cast<std::int16_t>(body.readUInt16());
        record.volumeAttributes = body.readUInt32();
        record.volumeFileSystemID = body.readUInt16();
        body.skip(10);
        while (body.remaining() >= 4) {
            const auto tag = static_cast<std::int16_t>(body.readUInt16());
            const auto length = body.readUInt16();
            if (tag == static_cast<std::int16_t>(Tag::end)) {
                break;
            }
            Field field{tag, body.readBytes(length)};
            if (length % 2 == 1 && body.remaining() > 0) {
                body.skip(1);
            }
            record.fields.push_back(std::move(field));
        }
    } catch (const BinaryReader::Failure& failure) {
        throw DSStoreError(std::string("Invalid alias record: ") + failure.what());
    }
    return record;
}

std::vector<std::uint8_t> AliasRecord::encode() const {
    BinaryWriter writer;
    writer.writeUInt32(creatorCode);
    writer.writeUInt16(0); // size, filled in below
    writer.writeUInt16(2);
    writer.writeUInt16(kind);
    writePascal(writer, macRoman(volumeName, 27), 28);
    writer.writeUInt32(volumeCreated);
    writer.writeUInt16(volumeSignature);
    writer.writeUInt16(volumeType);
    writer.writeUInt32(parentID);
    writePascal(writer, macRoman(fileName, 63), 64);
    writer.writeUInt32(fileID);
    writer.writeUInt32(fileCreated);
    writer.writeUInt32(fileType);
    writer.writeUInt32(fileCreator);
    writer.writeUInt16(static_cast<std::uint16_t>(levelsFrom));
    writer.writeUInt16(static_cast<std::uint16_t>(levelsTo));
    writer.writeUInt32(volumeAttributes);
    writer.writeUInt16(volumeFileSystemID);
    writer.padTo(writer.size() + 10);
    for (const auto& f : fields) {
        writer.writeUInt16(static_cast<std::uint16_t>(f.tag));
        writer.writeUInt16(static_cast<std::uint16_t>(f.data.size()));
        writer.writeBytes(f.data);
        if (f.data.size() % 2 == 1) {
            writer.writeUInt8(0);
        }
    }
    writer.writeUInt16(0xFFFF);
    writer.writeUInt16(0);
    const auto size = static_cast<std::uint16_t>(writer.size());
    writer.data[4] = static_cast<std::uint8_t>(size >> 8);
    writer.data[5] = static_cast<std::uint8_t>(size);
    return std::move(writer.data);
}

AliasRecord AliasRecord::file(const FileOnVolume& target) {
    // "/.background/background.png" -> parent ".background", name "background.png".
    const auto slash = target.path.find_last_of('/');
    const std::string name = target.path.substr(slash + 1);
    const std::string folderPath = target.path.substr(0, slash);
    const std::string parent = folderPath.substr(folderPath.find_last_of('/') + 1);

    AliasRecord record;
    record.volumeName = target.volumeName;
    record.volumeCreated = hfsTime(target.volumeCreated, target.volumeUTCOffset);
    record.parentID = target.parentID;
    record.fileName = name;
    record.fileID = target.fileID;
    record.fileCreated = hfsTime(target.fileCreated, target.fileUTCOffset);

    std::string carbon = macRoman(target.volumeName, 27);
    for (std::size_t at = 1; at < folderPath.size();) {
        const auto next = std::min(folderPath.find('/', at), folderPath.size());
        carbon += ':';
        carbon += macRoman(folderPath.substr(at, next - at), 255);
        at = next + 1;
    }
    carbon += ":";
    carbon += '\0';
    carbon += macRoman(name, 255);

    BinaryWriter ids;
    ids.writeUInt32(target.parentID);
    const auto add = [&record](Tag tag, std::vector<std::uint8_t> data) {
        record.fields.push_back(Field{static_cast<std::int16_t>(tag), std::move(data)});
    };
    add(Tag::parentName, bytesOf(macRoman(parent.empty() ? target.volumeName : parent, 255)));
    add(Tag::volumeCreatedUTC, fixedTime(target.volumeCreated));
    add(Tag::fileCreatedUTC, fixedTime(target.fileCreated));
    add(Tag::parentIDs, std::move(ids.data));
    add(Tag::carbonPath, bytesOf(carbon));
    add(Tag::unicodeFileName, unicodeName(name));
    add(Tag::unicodeVolumeName, unicodeName(target.volumeName));
    add(Tag::posixPath, bytesOf(target.path));
    add(Tag::volumeMountPoint, bytesOf("/Volumes/" + target.volumeName));
    return record;
}

} // namespace dsstore
