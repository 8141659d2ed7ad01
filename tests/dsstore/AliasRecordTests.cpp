// The picture aliases Finder wrote into real installer templates: read field by field, and the
// alias built from the same volume, date and path matches them where the facts are the same.

#include "dsstore/AliasRecord.h"
#include "dsstore/DSStore.h"
#include "dsstore/DSStoreError.h"
#include "dsstore/IconViewSettings.h"

#include <filesystem>
#include <map>

#include <gtest/gtest.h>

namespace {

using dsstore::AliasRecord;
using Tag = AliasRecord::Tag;
namespace fs = std::filesystem;

const fs::path fixtures = fs::path(VELTRA_FIXTURES_DIR) / "dsstore";

constexpr std::int64_t hfsEpoch = 2082844800;

std::int64_t fixedSeconds(const std::vector<std::uint8_t>& data) {
    std::uint64_t value = 0;
    for (const auto byte : data) {
        value = value << 8 | byte;
    }
    return static_cast<std::int64_t>(value >> 16) - hfsEpoch;
}

std::vector<std::uint8_t> aliasOf(const std::string& name) {
    const auto store = dsstore::DSStore::readFile(fixtures / (name + ".DS_Store"));
    const auto settings = dsstore::IconViewSettings::from(store);
    return settings && settings->backgroundImageAlias ? *settings->backgroundImageAlias
                                                      : std::vector<std::uint8_t>{};
}

TEST(AliasRecord, ReadsFindersPictureAliases) {
    const auto alias = AliasRecord::decode(aliasOf("dmg-flubber"));
    EXPECT_EQ(alias.kind, 0);
    EXPECT_EQ(alias.volumeName, "Flubber");
    EXPECT_EQ(alias.volumeCreated, 3862928558u);
    EXPECT_EQ(alias.volumeSignature, 0x482B);
    EXPECT_EQ(alias.volumeType, 5);
    EXPECT_EQ(alias.parentID, 19u);
    EXPECT_EQ(alias.fileName, "background.png");
    EXPECT_EQ(alias.fileID, 20u);
    EXPECT_EQ(alias.volumeAttributes, 0x0D02u);
    EXPECT_EQ(alias.text(Tag::parentName), ".background");
    EXPECT_EQ(alias.text(Tag::carbonPath), std::string("Flubber:.background:\0background.png", 35));
    EXPECT_EQ(alias.text(Tag::unicodeFileName), "background.png");
    EXPECT_EQ(alias.text(Tag::unicodeVolumeName), "Flubber");
    EXPECT_EQ(alias.text(Tag::posixPath), "/.background/background.png");
    EXPECT_EQ(alias.text(Tag::volumeMountPoint), "/Volumes/Flubber");
    // The classic date is local time (here five hours behind UTC); the tagged one is UTC.
    EXPECT_EQ(fixedSeconds(*alias.field(Tag::volumeCreatedUTC)) + hfsEpoch - alias.volumeCreated,
              5 * 3600);
    // What was read writes back byte for byte.
    EXPECT_EQ(alias.encode(), aliasOf("dmg-flubber"));
}

// Every installer template with a picture alias of the modern form (Finder on a mounted volume):
// the alias made from its volume name, dates, IDs and path equals Finder's in every field but
// the nested alias of the image file itself, which names a file on the author's own disk.
TEST(AliasRecord, BuiltAliasMatchesFindersFieldByField) {
    int compared = 0;
    for (const std::string name :
         {"dmg-flubber", "dmg-gpgtools", "dmg-jbackpack", "dmg-macvpnwatcher", "dmg-marxpaint-dutc",
          "dmg-mauve", "dmg-miki", "dmg-osxspell", "dmg-pcl-nonascii", "dmg-pricey-twolevel"}) {
        SCOPED_TRACE(name);
        const auto bytes = aliasOf(name);
        ASSERT_FALSE(bytes.empty());
        const auto finder = AliasRecord::decode(bytes);
        EXPECT_EQ(finder.encode(), bytes);
        const auto* volumeUTC = finder.field(Tag::volumeCreatedUTC);
        const auto* fileUTC = finder.field(Tag::fileCreatedUTC);
        if (volumeUTC == nullptr || fileUTC == nullptr) {
            continue; // older or tool-made forms without UTC dates (miki, pricey)
        }
        AliasRecord::FileOnVolume target;
        target.volumeName = *finder.text(Tag::unicodeVolumeName);
        target.volumeCreated = fixedSeconds(*volumeUTC);
        target.fileCreated = fixedSeconds(*fileUTC);
        target.volumeUTCOffset = static_cast<std::int32_t>(
            static_cast<std::int64_t>(finder.volumeCreated) - hfsEpoch - target.volumeCreated);
        target.fileUTCOffset = static_cast<std::int32_t>(
            static_cast<std::int64_t>(finder.fileCreated) - hfsEpoch - target.fileCreated);
        target.path = *finder.text(Tag::posixPath);
        target.parentID = finder.parentID;
        target.fileID = finder.fileID;
        const auto built = AliasRecord::file(target);

        EXPECT_EQ(built.kind, finder.kind);
        EXPECT_EQ(built.volumeName, finder.volumeName);
        EXPECT_EQ(built.volumeCreated, finder.volumeCreated);
        EXPECT_EQ(built.volumeSignature, finder.volumeSignature);
        EXPECT_EQ(built.volumeType, finder.volumeType);
        EXPECT_EQ(built.parentID, finder.parentID);
        EXPECT_EQ(built.fileName, finder.fileName);
        EXPECT_EQ(built.fileID, finder.fileID);
        EXPECT_EQ(built.fileCreated, finder.fileCreated);
        EXPECT_EQ(built.levelsFrom, finder.levelsFrom);
        EXPECT_EQ(built.levelsTo, finder.levelsTo);
        EXPECT_EQ(built.volumeAttributes, finder.volumeAttributes);
        EXPECT_EQ(built.volumeFileSystemID, finder.volumeFileSystemID);
        for (const auto tag :
             {Tag::parentName, Tag::parentIDs, Tag::unicodeFileName, Tag::unicodeVolumeName,
              Tag::volumeCreatedUTC, Tag::fileCreatedUTC, Tag::posixPath}) {
            SCOPED_TRACE(static_cast<int>(tag));
            ASSERT_NE(built.field(tag), nullptr);
            EXPECT_EQ(*built.field(tag), *finder.field(tag));
        }
        // Older Finders wrote the Carbon path without the NUL before the file name.
        auto carbon = *finder.text(Tag::carbonPath);
        if (carbon.find('\0') == std::string::npos) {
            carbon.insert(carbon.rfind(':') + 1, 1, '\0');
        }
        EXPECT_EQ(*built.text(Tag::carbonPath), carbon);
        // The mount point is where the image was mounted when Finder saved; a fresh image
        // mounts at /Volumes/<name> unless that name is taken.
        const auto mountedAt = *finder.text(Tag::volumeMountPoint);
        if (mountedAt == "/Volumes/" + target.volumeName) {
            EXPECT_EQ(*built.text(Tag::volumeMountPoint), mountedAt);
        }
        // Fields in Finder's order, the nested image alias (20, 21) aside.
        std::vector<std::int16_t> finderOrder;
        for (const auto& f : finder.fields) {
            if (f.tag != 20 && f.tag != 21) {
                finderOrder.push_back(f.tag);
            }
        }
        std::vector<std::int16_t> builtOrder;
        for (const auto& f : built.fields) {
            builtOrder.push_back(f.tag);
        }
        EXPECT_EQ(builtOrder, finderOrder);
        ++compared;
    }
    EXPECT_EQ(compared, 8);
}

TEST(AliasRecord, BrokenBytesAreRefusedWithAMessage) {
    auto bytes = aliasOf("dmg-flubber");
    for (const auto& [name, broken] : std::map<std::string, std::vector<std::uint8_t>>{
             {"empty", {}},
             {"cut in the fixed part", {bytes.begin(), bytes.begin() + 40}},
             {"size larger than the data",
              [&] {
                  auto b = bytes;
                  b[4] = 0x7F;
                  return b;
              }()},
             {"version 3",
              [&] {
                  auto b = bytes;
                  b[7] = 3;
                  return b;
              }()},
             {"field running past the end", [&] {
                  auto b = std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 160);
                  b[4] = 0, b[5] = 160;
                  b[152] = 0x7F;
                  return b;
              }()}}) {
        SCOPED_TRACE(name);
        try {
            (void)AliasRecord::decode(broken);
            FAIL() << "accepted";
        } catch (const dsstore::DSStoreError& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with("Invalid alias record: "))
                << error.what();
        }
    }
}

} // namespace
