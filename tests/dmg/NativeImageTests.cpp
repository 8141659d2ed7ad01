// Disk images without hdiutil: the UDIF container and the HFS+ volume, read back by Veltra's
// own reader and by independent ones (7z, dmg2img) where they are installed.

#include "TestSupport.h"
#include "core/dmg/DSStoreWriter.h"
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFImage.h"
#include "core/dmg/UDIFLayout.h"
#include "core/dmg/UDIFWriter.h"
#include "core/process/ProcessRunner.h"
#include "core/support/Base64.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"
#include "dsstore/DSStore.h"

#include <fstream>
#include <random>
#include <zlib.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

std::string bytesOf(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    // Half compressible text, half noise, then zeros: every kind of chunk.
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = i < size / 3       ? static_cast<char>('a' + i % 7)
                   : i < 2 * size / 3 ? static_cast<char>(random())
                                      : '\0';
    }
    return bytes;
}

std::string writeImage(const fs::path& file, const std::string& volume, UDIFWriter::Options options,
                       std::size_t piece = 100'000) {
    UDIFWriter writer(file, options);
    for (std::size_t at = 0; at < volume.size(); at += piece) {
        writer.write(std::span(volume.data() + at, std::min(piece, volume.size() - at)));
    }
    writer.finish();
    return volume + std::string((512 - volume.size() % 512) % 512, '\0');
}

bool have(const std::string& tool) {
    return ProcessRunner::findTool(tool).has_value();
}

std::string run(const std::string& tool, std::vector<std::string> arguments) {
    const auto result =
        ProcessRunner::run(ProcessRequest{.command = tool, .arguments = std::move(arguments)});
    EXPECT_EQ(result.exitCode, 0) << tool << ": " << result.output << result.errorOutput;
    return result.output;
}

// A volume of a few chunks: text, noise and empty space, so every kind of chunk occurs.
std::string sampleVolume(const fs::path& dir) {
    const auto folder = dir / "volume";
    fs::create_directories(folder / "Sample.app/Contents/MacOS");
    testing::writeFile(folder / "Sample.app/Contents/MacOS/Sample", bytesOf(3'500'001, 7));
    std::string volume;
    writeHFSPlusVolume(folder, {"Sample"}, [&](std::span<const char> bytes) {
        volume.append(bytes.data(), bytes.size());
    });
    return volume;
}

// Each format round-trips through Veltra's reader, whose checksums agree, and through dmg2img
// and 7z, which check them on their own.
TEST(UDIFImage, EachFormatReadsBackWithItsChecksums) {
    testing::TempDir dir;
    auto volume = sampleVolume(dir.path());
    // Ending mid-sector: the writer pads the last one.
    volume.resize(volume.size() - 100);
    for (const auto& [name, format, level] :
         {std::tuple{"UDZO", UDIFFormat::udzo, 1}, std::tuple{"UDZO", UDIFFormat::udzo, 9},
          std::tuple{"UDBZ", UDIFFormat::udbz, 1}, std::tuple{"ULMO", UDIFFormat::ulmo, 6},
          std::tuple{"UDRO", UDIFFormat::udro, 1}}) {
        SCOPED_TRACE(std::string(name) + " level " + std::to_string(level));
        const auto file = dir / (std::string(name) + std::to_string(level) + ".dmg");
        const auto padded = writeImage(file, volume, {format, level, 2});
        const UDIFImage image(file);
        EXPECT_EQ(image.format(), name);
        ASSERT_EQ(image.partitions().size(), 1u);
        const auto& partition = image.partitions().front();
        EXPECT_EQ(partition.sectorCount * 512, padded.size());
        EXPECT_TRUE(partition.crc32.has_value());
        EXPECT_NO_THROW(image.verify());
        EXPECT_EQ(image.read(partition, 0, padded.size()), padded);
        EXPECT_EQ(image.read(partition, 1'500'000, 10), padded.substr(1'500'000, 10));

        // Neither outside reader expands LZMA chunks.
        if (have("dmg2img") && format != UDIFFormat::ulmo) {
            run("dmg2img", {"-s", file.string(), (dir / "raw.img").string()});
            EXPECT_EQ(readFile(dir / "raw.img"), padded);
        }
        if (have("7z") && format != UDIFFormat::ulmo) {
            // 7z checks the data fork's, the partition's and the master checksum.
            const auto tested = run("7z", {"t", file.string()});
            EXPECT_NE(tested.find("Everything is Ok"), std::string::npos) << tested;
            EXPECT_EQ(tested.find("WARNING"), std::string::npos) << tested;
        }
    }
    if (!have("dmg2img") || !have("7z")) {
        GTEST_SKIP() << "dmg2img or 7z is not installed (scripts/install-deps.sh installs them)";
    }
}

TEST(UDIFImage, RefusesFormatsItCannotWriteByName) {
    for (const auto& [name, message] :
         {std::pair{"ULFO", "ULFO images need an LZFSE compressor, which this build of Veltra "
                            "does not have. Use UDZO, UDBZ, ULMO or UDRO."},
          std::pair{"UDTO", "Veltra cannot write UDTO disk images without hdiutil. Use UDZO, "
                            "UDBZ, ULMO or UDRO."}}) {
        try {
            udifFormat(name);
            ADD_FAILURE() << name;
        } catch (const VeltraError& error) {
            EXPECT_EQ(error.message(), message);
        }
    }
}

// A damaged image is refused with what is wrong, never read as something else.
TEST(UDIFImage, DamageIsNamed) {
    testing::TempDir dir;
    const auto file = dir / "image.dmg";
    writeImage(file, sampleVolume(dir.path()), {UDIFFormat::udzo, 6, 2});
    const auto good = readFile(file);
    const auto damaged = [&](const std::string& bytes) {
        writeFileAtomically(dir / "damaged.dmg", bytes);
        try {
            UDIFImage(dir / "damaged.dmg").verify();
        } catch (const VeltraError& error) {
            return error.message();
        }
        return std::string("accepted");
    };
    auto flipped = good;
    flipped[100] = static_cast<char>(flipped[100] ^ 0x40);
    EXPECT_TRUE(damaged(flipped).starts_with("damaged.dmg is not a readable UDIF disk image: "))
        << damaged(flipped);
    EXPECT_EQ(damaged(good.substr(0, good.size() - 1)),
              "damaged.dmg is not a readable UDIF disk image: there is no 'koly' trailer at its "
              "end (a raw or read-write image?)");
    EXPECT_EQ(damaged("koly"), "damaged.dmg is not a readable UDIF disk image: it is too short to "
                               "hold the 512-byte trailer");
    auto checksum = good;
    checksum[good.size() - 512 + 80 + 8] ^= 1;
    EXPECT_TRUE(damaged(checksum).find("the data fork's CRC32 is ") != std::string::npos)
        << damaged(checksum);
}

// An image laid out as hdiutil lays out its default ones: several partitions (a protective
// MBR, the HFS+ volume after it), comment and free-space chunks, a data fork that does not
// start at the file's beginning.
// Images hdiutil made: 'ignore' chunks left out of the partitions' checksums, bzip2 and zlib with
// raw chunks, Apple and GUID partition maps, an APFS container named.
TEST(UDIFImage, ReadsRealHdiutilImagesWithTheirFacts) {
    struct Row {
        const char* file;
        const char* format;
        std::size_t partitions;
        const char* volumePartition; // HFS+, or APFS where no listing is given
        const char* volumeName;
        std::vector<std::string> topLevel;
    };
    for (const auto& row : {
             Row{"SparkleTestCodeSignApp.dmg",
                 "UDBZ",
                 3,
                 "disk image (Apple_HFS : 2)",
                 "Sparkle Test App",
                 {".background", ".DS_Store", ".HFS+ Private Directory Data\r", ".Trashes",
                  "Applications", "SparkleTestCodeSignApp.app"}},
             Row{"SparkleTestCodeSign_apfs.dmg", "UDBZ", 8, "disk image (Apple_APFS : 4)", "", {}},
             Row{"Swift_5_Runtime_Support_for_Command_Line_Tools.dmg",
                 "UDZO",
                 8,
                 "disk image (Apple_HFS : 4)",
                 "SwiftRuntimeForCommandLineTools",
                 {".DS_Store", ".HFS+ Private Directory Data\r",
                  "SwiftRuntimeForCommandLineTools.pkg"}},
         }) {
        SCOPED_TRACE(row.file);
        const UDIFImage image(fs::path(VELTRA_FIXTURES_DIR) / "dmg" / row.file);
        EXPECT_EQ(image.format(), row.format);
        EXPECT_EQ(image.partitions().size(), row.partitions);
        EXPECT_NO_THROW(image.verify());
        if (row.topLevel.empty()) {
            EXPECT_EQ(image.volumePartition(), nullptr);
            ASSERT_NE(image.apfsPartition(), nullptr);
            EXPECT_EQ(image.apfsPartition()->name, row.volumePartition);
            continue;
        }
        const auto* holder = image.volumePartition();
        ASSERT_NE(holder, nullptr);
        EXPECT_EQ(holder->name, row.volumePartition);
        const HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
            return image.read(*holder, offset, length);
        });
        EXPECT_EQ(volume.volumeName(), row.volumeName);
        std::vector<std::string> names;
        for (const auto& entry : volume.list()) {
            // The hard-link folder's name starts with NULs; Finder shows neither.
            if (!entry.name.empty() && entry.name.front() != '\0') {
                names.push_back(entry.name);
            }
        }
        EXPECT_EQ(names, row.topLevel);
    }
}

TEST(UDIFImage, AnEncryptedImageIsNamedAsSuch) {
    testing::TempDir dir;
    for (const auto& [name, bytes] :
         {std::pair{"v2.dmg", "encrcdsa" + std::string(4096, '\x11')},
          std::pair{"v1.dmg", std::string(4096, '\x22') + "cdsaencr"}}) {
        SCOPED_TRACE(name);
        testing::writeFile(dir / name, bytes);
        try {
            UDIFImage image(dir / name);
            ADD_FAILURE() << "read as an image";
        } catch (const VeltraError& error) {
            EXPECT_EQ(error.message(), std::string(name) +
                                           " is not a readable UDIF disk image: it is encrypted (a "
                                           "password-protected image); Veltra reads only images "
                                           "that are not");
        }
    }
}

// The writer's resources follow hdiutil's: a 'plst' resource like every real image's, and
// BuffersNeeded of the largest chunk plus what hdiutil adds for the format.
TEST(UDIFImage, WritesThePlstResourceAndBuffersNeededAsHdiutil) {
    testing::TempDir dir;
    const auto resources = [](const fs::path& file) {
        const auto bytes = readFile(file);
        const auto koly = bytes.substr(bytes.size() - 512);
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        for (std::size_t i = 0; i < 8; ++i) {
            offset = offset << 8 | static_cast<unsigned char>(koly[216 + i]);
            length = length << 8 | static_cast<unsigned char>(koly[224 + i]);
        }
        return parsePropertyList(bytes.substr(offset, length))["resource-fork"];
    };
    const auto buffersNeeded = [](const nlohmann::json& partition) {
        const auto mish = base64::decode(partition["Data"].get<std::string>()).value();
        return std::uint32_t{mish[32]} << 24 | std::uint32_t{mish[33]} << 16 |
               std::uint32_t{mish[34]} << 8 | std::uint32_t{mish[35]};
    };
    const auto real = [&](const char* file) {
        return resources(fs::path(VELTRA_FIXTURES_DIR) / "dmg" / file);
    };
    const auto zlibImage = real("Swift_5_Runtime_Support_for_Command_Line_Tools.dmg");
    const auto bzipImage = real("SparkleTestCodeSignApp.dmg");
    for (const auto& [format, hdiutils] :
         {std::pair{UDIFFormat::udzo, buffersNeeded(zlibImage["blkx"][0])},
          std::pair{UDIFFormat::udbz, buffersNeeded(bzipImage["blkx"][0])}}) {
        SCOPED_TRACE(std::string(rawValue(format)));
        const auto file = dir / (std::string(rawValue(format)) + ".dmg");
        writeImage(file, sampleVolume(dir.path()), {format, 6, 2});
        const auto written = resources(file);
        EXPECT_EQ(written["plst"], zlibImage["plst"]);
        EXPECT_EQ(written["plst"], bzipImage["plst"]);
        // hdiutil's 1 MiB chunks, in both.
        EXPECT_EQ(buffersNeeded(written["blkx"][0]), hdiutils);
    }
}

TEST(UDIFImage, ReadsAPartitionedImageAsHdiutilWritesIt) {
    using namespace udif;
    testing::TempDir dir;
    const auto volume = sampleVolume(dir.path());
    const std::string mbr(512, '\x55');
    std::string packed(compressBound(static_cast<uLong>(volume.size())), '\0');
    auto packedSize = static_cast<uLongf>(packed.size());
    ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(packed.data()), &packedSize,
                        reinterpret_cast<const Bytef*>(volume.data()),
                        static_cast<uLong>(volume.size()), 6),
              Z_OK);
    packed.resize(packedSize);
    const std::string lead(4096, '\0'); // before the data fork, as a few tools leave
    const std::string fork = mbr + packed;
    const auto crc = [](std::string_view bytes) {
        return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()),
                                                static_cast<uInt>(bytes.size())));
    };
    const auto table = [&](std::uint64_t first, std::uint64_t sectors, std::uint32_t sum,
                           const std::vector<ChunkEntry>& chunks) {
        std::string mish;
        putUInt32(mish, mishSignature);
        putUInt32(mish, 1);
        putUInt64(mish, first);
        putUInt64(mish, sectors);
        putUInt64(mish, 0);
        putUInt32(mish, 2048);
        putUInt32(mish, 0);
        mish.append(24, '\0');
        putChecksum(mish, sum);
        putUInt32(mish, static_cast<std::uint32_t>(chunks.size()));
        for (const auto& chunk : chunks) {
            putChunkEntry(mish, chunk);
        }
        return base64::encode(
            std::span(reinterpret_cast<const std::uint8_t*>(mish.data()), mish.size()));
    };
    const auto volumeSectors = volume.size() / 512;
    const auto first =
        table(0, 1, crc(mbr),
              {{chunkComment, 0, 0, 0, 0}, {chunkRaw, 0, 1, 0, 512}, {chunkEnd, 1, 0, 512, 0}});
    // The 'ignore' chunk is not part of the partition's checksum, as hdiutil computes it.
    const auto second = table(1, volumeSectors + 8, crc(volume),
                              {{chunkZlib, 0, volumeSectors, 512, packed.size()},
                               {chunkIgnore, volumeSectors, 8, 0, 0},
                               {chunkEnd, volumeSectors + 8, 0, fork.size(), 0}});
    const auto entry = [](const std::string& name, const std::string& id, const std::string& data) {
        return "<dict><key>Attributes</key><string>0x0050</string><key>Data</key><data>" + data +
               "</data><key>ID</key><string>" + id + "</string><key>Name</key><string>" + name +
               "</string></dict>";
    };
    const auto xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                     "<key>resource-fork</key><dict><key>blkx</key><array>" +
                     entry("Protective Master Boot Record (MBR : 0)", "-1", first) +
                     entry("disk image (Apple_HFS : 1)", "0", second) +
                     "</array></dict></dict></plist>\n";
    std::string koly;
    putUInt32(koly, kolySignature);
    putUInt32(koly, 4);
    putUInt32(koly, 512);
    putUInt32(koly, 1);
    putUInt64(koly, 0);
    putUInt64(koly, lead.size());
    putUInt64(koly, fork.size());
    putUInt64(koly, 0);
    putUInt64(koly, 0);
    putUInt32(koly, 1);
    putUInt32(koly, 1);
    koly.append(16, '\x11');
    putChecksum(koly, crc(fork));
    putUInt64(koly, lead.size() + fork.size());
    putUInt64(koly, xml.size());
    koly.append(120, '\0');
    std::string sums;
    putUInt32(sums, crc(mbr));
    putUInt32(sums, crc(volume));
    putChecksum(koly, crc(sums));
    putUInt32(koly, 1);
    putUInt64(koly, 1 + volumeSectors + 8);
    koly.append(12, '\0');
    ASSERT_EQ(koly.size(), 512u);
    writeFileAtomically(dir / "hdiutil.dmg", lead + fork + xml + koly);

    const UDIFImage image(dir / "hdiutil.dmg");
    EXPECT_NO_THROW(image.verify());
    ASSERT_EQ(image.partitions().size(), 2u);
    EXPECT_EQ(image.format(), "UDZO");
    const auto* holder = image.volumePartition();
    ASSERT_NE(holder, nullptr);
    EXPECT_EQ(holder->name, "disk image (Apple_HFS : 1)");
    EXPECT_EQ(image.read(*holder, 0, volume.size()), volume);
    EXPECT_EQ(image.read(*holder, volume.size(), 4096), std::string(4096, '\0'));
    const HFSPlusVolume read([&](std::uint64_t offset, std::size_t length) {
        return image.read(*holder, offset, length);
    });
    EXPECT_EQ(read.volumeName(), "Sample");
    if (have("7z")) {
        // (7z warns that the partition goes on after the volume's end, as it does here.)
        const auto tested = run("7z", {"t", (dir / "hdiutil.dmg").string()});
        EXPECT_EQ(tested.find("CRC Error"), std::string::npos) << tested;
        EXPECT_EQ(tested.find("CRC error"), std::string::npos) << tested;
    }
}

// The installer's folder as a volume: the app with a framework's symbolic links, an empty
// folder, a name given composed and stored decomposed, the Applications link, the hidden
// background, the layout and the volume icon.
// TN1150: the volume's creation date is local time (as the layout's alias names it), its other
// dates UTC; the alternate volume header at the end agrees with the first.
TEST(NativeDiskImage, TheVolumeDatesAreAsTN1150SaysOnAMachineOutsideUTC) {
    testing::TempDir dir;
    const testing::ScopedEnvironment zone("TZ", "IST-5:30"); // India, all year
    fs::create_directories(dir / "volume" / "Sample.app");
    constexpr std::int64_t created = 1'700'000'000;
    std::string volume;
    writeHFSPlusVolume(
        dir / "volume", {"Sample", false, created},
        [&](std::span<const char> bytes) { volume.append(bytes.data(), bytes.size()); });
    const auto date = [&](std::size_t at) {
        return std::uint32_t{static_cast<unsigned char>(volume[at])} << 24 |
               std::uint32_t{static_cast<unsigned char>(volume[at + 1])} << 16 |
               std::uint32_t{static_cast<unsigned char>(volume[at + 2])} << 8 |
               std::uint32_t{static_cast<unsigned char>(volume[at + 3])};
    };
    const auto alternate = volume.size() - 1024;
    ASSERT_EQ(volume.substr(alternate, 2), "H+");
    EXPECT_EQ(date(1024 + 16), created + 19'800 + 2'082'844'800) << "createDate, local";
    EXPECT_EQ(date(1024 + 20), created + 2'082'844'800) << "modifyDate, UTC";
    EXPECT_EQ(date(alternate + 16), date(1024 + 16));
    const HFSPlusVolume read(
        [&](std::uint64_t offset, std::size_t length) { return volume.substr(offset, length); });
    EXPECT_EQ(read.createdAt(), created);
}

TEST(NativeDiskImage, HoldsTheInstallerAsAnHFSPlusVolume) {
    testing::TempDir dir;
    const auto staging = dir / "staging";
    const auto framework = staging / "Sample.app/Contents/Frameworks/Sparkle.framework";
    fs::create_directories(framework / "Versions/B");
    testing::writeFile(framework / "Versions/B/Sparkle", std::string(300'000, 's'));
    fs::create_directory_symlink("B", framework / "Versions/Current");
    fs::create_symlink("Versions/Current/Sparkle", framework / "Sparkle");
    fs::create_directories(staging / "Sample.app/Contents/MacOS");
    testing::writeFile(staging / "Sample.app/Contents/MacOS/Sample", bytesOf(2'000'000, 1));
    fs::permissions(staging / "Sample.app/Contents/MacOS/Sample", fs::perms(0755));
    fs::create_directories(staging / "Sample.app/Contents/Resources/Empty");
    testing::writeFile(staging / "Sample.app/Contents/Resources/Caf\u00e9 \u00dcber.txt", "x");
    fs::create_directory_symlink("/Applications", staging / "Applications");
    fs::create_directories(staging / ".background");
    testing::writeFile(staging / ".background/background.png", "png");
    testing::writeFile(staging / ".VolumeIcon.icns", "icns");
    setExtensionHidden(staging / "Sample.app", true);
    DMGDesignConfig design;
    design.volumeName = "Sample Installer";
    DSStoreWriter().write(staging, design, "Sample.app", ".background/background.png");

    const auto file = dir / "Sample.dmg";
    {
        UDIFWriter writer(file, {UDIFFormat::udzo, 6, 0});
        writeHFSPlusVolume(staging, {"Sample Installer", true, 1'700'000'000},
                           [&](std::span<const char> bytes) { writer.write(bytes); });
        writer.finish();
    }
    const UDIFImage image(file);
    image.verify();
    const auto& partition = image.partitions().front();
    const HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
        return image.read(partition, offset, length);
    });
    EXPECT_EQ(volume.signature(), "H+");
    EXPECT_EQ(volume.volumeName(), "Sample Installer");
    EXPECT_TRUE(volume.hasCustomIcon());
    EXPECT_EQ(volume.createdAt(), 1'700'000'000);
    EXPECT_LE(volume.totalBytes(), partition.sectorCount * 512);

    std::map<std::string, HFSPlusVolume::Entry> top;
    for (const auto& entry : volume.list()) {
        top[entry.name] = entry;
    }
    for (const auto* name :
         {"Sample.app", "Applications", ".background", ".DS_Store", ".VolumeIcon.icns"}) {
        EXPECT_TRUE(top.contains(name)) << name;
    }
    EXPECT_EQ(top["Applications"].kind, HFSPlusVolume::Entry::Kind::symlink);
    EXPECT_EQ(top["Sample.app"].kind, HFSPlusVolume::Entry::Kind::folder);
    EXPECT_NE(top["Sample.app"].finderFlags & 0x0010, 0) << "the app's extension is hidden";
    EXPECT_EQ(top[".DS_Store"].size, fs::file_size(staging / ".DS_Store"));

    const auto find = [&](std::uint32_t folder, const std::string& name) {
        for (const auto& entry : volume.list(folder)) {
            if (entry.name == name) {
                return entry;
            }
        }
        ADD_FAILURE() << name << " is not in folder " << folder;
        return HFSPlusVolume::Entry{};
    };
    const auto contents = find(top["Sample.app"].id, "Contents");
    const auto macOS = find(contents.id, "MacOS");
    EXPECT_EQ(find(macOS.id, "Sample").mode & 0777, 0755);
    const auto frameworks = find(contents.id, "Frameworks");
    const auto sparkle = find(frameworks.id, "Sparkle.framework");
    EXPECT_EQ(find(sparkle.id, "Sparkle").kind, HFSPlusVolume::Entry::Kind::symlink);
    EXPECT_EQ(find(find(sparkle.id, "Versions").id, "Current").kind,
              HFSPlusVolume::Entry::Kind::symlink);
    const auto resources = find(contents.id, "Resources");
    EXPECT_EQ(find(resources.id, "Empty").kind, HFSPlusVolume::Entry::Kind::folder);
    EXPECT_EQ(find(resources.id, "Caf\u00e9 \u00dcber.txt").size, 1u);

    // Stored decomposed: "e" and a combining acute, in UTF-16 as HFS+ keeps names.
    const auto raw =
        image.read(partition, 0, static_cast<std::size_t>(partition.sectorCount * 512));
    EXPECT_NE(raw.find(std::string("\0C\0a\0f\0e\x03\x01", 10)), std::string::npos);
    EXPECT_EQ(raw.find(std::string("\0C\0a\0f\0\xe9", 9)), std::string::npos);

    if (!have("7z") || !have("dmg2img")) {
        GTEST_SKIP() << "7z or dmg2img is not installed (scripts/install-deps.sh installs them)";
    }
    const auto tested = run("7z", {"t", file.string()});
    EXPECT_EQ(tested.find("WARNING"), std::string::npos) << tested;
    const auto listed = run("7z", {"l", file.string()});
    for (const auto* name : {"Sample.app", "Applications", ".background", ".DS_Store"}) {
        EXPECT_NE(listed.find(name), std::string::npos) << name << " in\n" << listed;
    }
    // 7z shows the volume as a folder of its name.
    run("7z",
        {"x", "-y", "-o" + (dir / "out").string(), file.string(), "Sample Installer/.DS_Store"});
    const auto store = dsstore::DSStore::readFile(dir / "out" / "Sample Installer" / ".DS_Store");
    const auto expected =
        DSStoreWriter().layout(staging, design, "Sample.app", ".background/background.png");
    EXPECT_EQ(store.records, expected.records);
    run("dmg2img", {"-s", file.string(), (dir / "raw.img").string()});
    const auto converted = readFile(dir / "raw.img");
    ASSERT_GT(converted.size(), 1026u);
    EXPECT_EQ(converted.substr(1024, 2), "H+");
}

// A file over 4 GiB keeps its 64-bit size. Reading and compressing 4.5 GiB takes minutes, so
// the suite runs it only when asked (VELTRA_LARGE_IMAGE_TESTS=1).
TEST(NativeDiskImage, KeepsAFileOverFourGiB) {
    const char* asked = std::getenv("VELTRA_LARGE_IMAGE_TESTS");
    if (asked == nullptr || std::string_view(asked) != "1") {
        GTEST_SKIP() << "set VELTRA_LARGE_IMAGE_TESTS=1 to build a 4.5 GiB image";
    }
    testing::TempDir dir;
    const auto staging = dir / "staging";
    fs::create_directories(staging / "Big.app/Contents/Resources");
    constexpr std::uint64_t size = 4'500'000'000;
    {
        // Sparse: no disk is spent on it, and its zeros compress to nothing.
        std::ofstream out(staging / "Big.app/Contents/Resources/huge.bin", std::ios::binary);
        out.seekp(static_cast<std::streamoff>(size - 1));
        out.put('x');
    }
    const auto file = dir / "Big.dmg";
    {
        UDIFWriter writer(file, {UDIFFormat::udzo, 1, 0});
        writeHFSPlusVolume(staging, {"Big"},
                           [&](std::span<const char> bytes) { writer.write(bytes); });
        writer.finish();
    }
    const UDIFImage image(file);
    image.verify();
    const HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
        return image.read(image.partitions().front(), offset, length);
    });
    std::uint32_t folder = 0;
    for (const auto& entry : volume.list()) {
        if (entry.name == "Big.app") {
            folder = entry.id;
        }
    }
    for (const auto& name : {"Contents", "Resources"}) {
        for (const auto& entry : volume.list(folder)) {
            if (entry.name == name) {
                folder = entry.id;
            }
        }
    }
    const auto entries = volume.list(folder);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries.front().size, size);
}

} // namespace
} // namespace veltra
