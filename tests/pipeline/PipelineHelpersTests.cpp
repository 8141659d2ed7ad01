#include "TestSupport.h"
#include "core/dmg/AppIconResolver.h"
#include "core/pipeline/PostReleaseScript.h"
#include "core/pipeline/SparkleAutoResolver.h"
#include "core/support/FileUtilities.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

std::string bigEndian(std::uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16 & 0xFF),
            static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}

// Just enough of a PNG for its header to tell the width.
std::string png(std::uint32_t width) {
    return std::string("\x89PNG\r\n\x1a\n", 8) + bigEndian(13) + "IHDR" + bigEndian(width) +
           bigEndian(width) + std::string("\x08\x06\x00\x00\x00", 5) + "crc!" + "pixels";
}

std::string entry(std::string_view type, const std::string& data) {
    return std::string(type) + bigEndian(static_cast<std::uint32_t>(data.size() + 8)) + data;
}

std::string family(const std::vector<std::string>& entries) {
    std::string body;
    for (const auto& e : entries) {
        body += e;
    }
    return "icns" + bigEndian(static_cast<std::uint32_t>(body.size() + 8)) + body;
}

TEST(PostReleaseScript, SeesTheReleasesFactsAndOnlyThose) {
    ReleaseManifest manifest;
    manifest.appName = "Acme";
    manifest.version = "1.2";
    manifest.buildNumber = "7";
    manifest.sha256Checksum = "ab12";
    manifest.dmgFileSize = 4096;
    const std::map<std::string, std::string> base{{"VELTRA_APP_NAME", "Acme"},
                                                  {"VELTRA_VERSION", "1.2"},
                                                  {"VELTRA_BUILD", "7"},
                                                  {"VELTRA_DMG_PATH", "/out/Acme-1.2.dmg"},
                                                  {"VELTRA_DMG_SHA256", "ab12"},
                                                  {"VELTRA_DMG_SIZE", "4096"},
                                                  {"VELTRA_NOTES_PATH", "/out/Acme-1.2.md"}};
    EXPECT_EQ(postReleaseEnvironment(manifest, "/out/Acme-1.2.dmg", "/out/Acme-1.2.md"), base);

    // Signed and published: the signature and the public addresses too.
    manifest.sparkleSignature = "SIG==";
    WebsitePublication publication;
    publication.downloadURL = "https://acme.example/downloads/Acme.dmg";
    publication.feedURL = "https://acme.example/downloads/appcast.xml";
    manifest.websitePublication = publication;
    auto full = base;
    full["VELTRA_SPARKLE_SIGNATURE"] = "SIG==";
    full["VELTRA_DOWNLOAD_URL"] = publication.downloadURL;
    full["VELTRA_FEED_URL"] = publication.feedURL;
    EXPECT_EQ(postReleaseEnvironment(manifest, "/out/Acme-1.2.dmg", "/out/Acme-1.2.md"), full);
}

TEST(AppIcon, TheLargestPNGEntryWins) {
    const auto icns = family({entry("ic07", png(128)), entry("is32", std::string(300, 'x')),
                              entry("ic10", png(1024)), entry("ic08", png(256))});
    EXPECT_EQ(AppIconResolver::largestPNG(icns), png(1024));
    // Only older bitmap formats, a truncated entry, or not an icon family at all.
    EXPECT_EQ(AppIconResolver::largestPNG(family({entry("is32", std::string(300, 'x'))})),
              std::nullopt);
    auto truncated = family({entry("ic08", png(256))});
    truncated.resize(truncated.size() - 10);
    EXPECT_EQ(AppIconResolver::largestPNG(truncated.substr(0, 12)), std::nullopt);
    EXPECT_EQ(AppIconResolver::largestPNG("icns"), std::nullopt);
    EXPECT_EQ(AppIconResolver::largestPNG(png(64)), std::nullopt);
    // An entry claiming more than the family holds ends the walk without reading past it.
    auto lying = family({entry("ic07", png(128))}) + entry("ic10", png(512));
    lying.replace(4, 4, bigEndian(static_cast<std::uint32_t>(lying.size())));
    lying.replace(lying.size() - png(512).size() - 4, 4, bigEndian(0x7FFFFFFF));
    EXPECT_EQ(AppIconResolver::largestPNG(lying), png(128));

    testing::TempDir dir;
    testing::writeFile(dir / "AppIcon.icns", icns);
    EXPECT_EQ(AppIconResolver().pngData(dir / "AppIcon.icns"), png(1024));
    EXPECT_EQ(AppIconResolver().pngData(dir / "missing.icns"), std::nullopt);
    EXPECT_EQ(AppIconResolver().pngData(std::nullopt), std::nullopt);
}

TEST(SparkleSettings, ReadFromTheBuiltAppOrTheProjectBeforeBuilding) {
    testing::TempDir dir;
    const std::string plist =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>SUFeedURL</key><string>https://example.org/downloads/appcast.xml</string>"
        "<key>SUPublicEDKey</key><string>cHVibGlj</string></dict></plist>\n";
    testing::writeFile(dir / "App.app" / "Contents" / "Info.plist", plist);
    const SparkleAppSettings expected{"https://example.org/downloads/appcast.xml", "cHVibGlj"};
    EXPECT_EQ(SparkleAutoResolver::fromApp(dir / "App.app"), expected);
    EXPECT_EQ(SparkleAutoResolver::fromApp(dir / "Missing.app"), SparkleAppSettings{});

    // The Info.plist beside the project names the feed...
    fs::create_directories(dir / "src" / "App.xcodeproj");
    testing::writeFile(dir / "src" / "App.xcodeproj" / "project.pbxproj", "{ objects = {}; }");
    testing::writeFile(dir / "src" / "App" / "Info.plist", plist);
    testing::writeFile(dir / "src" / "build" / "Info.plist", "<plist><dict/></plist>");
    EXPECT_EQ(SparkleAutoResolver::fromProject(dir / "src" / "App.xcodeproj"), expected);
    // ...unless the project's build settings generate it.
    testing::writeFile(dir / "src" / "App.xcodeproj" / "project.pbxproj",
                       "{ buildSettings = { INFOPLIST_KEY_SUFeedURL = "
                       "\"https://example.net/appcast.xml\"; INFOPLIST_KEY_SUPublicEDKey = "
                       "a2V5; }; }");
    EXPECT_EQ(SparkleAutoResolver::fromProject(dir / "src" / "App.xcodeproj"),
              (SparkleAppSettings{"https://example.net/appcast.xml", "a2V5"}));
}

} // namespace
} // namespace veltra
