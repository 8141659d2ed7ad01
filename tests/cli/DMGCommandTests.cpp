#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/support/FileUtilities.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

class DMGCommandTest : public ::testing::Test {
protected:
    DMGCommandTest() {
        std::filesystem::create_directories(dir / "tmp");
        EXPECT_EQ(veltra({"profile", "create", "Acme", "--bundle-id", "com.example.acme",
                          "--output", (dir / "out").string()})
                      .exitCode,
                  0);
    }

    ProcessResult veltra(std::vector<std::string> arguments) {
        return testing::runVeltra(
            std::move(arguments),
            {{"VELTRA_PROFILES", (dir / "profiles.json").string()},
             {"HOME", dir.path().string()},
             {"TMPDIR", (dir / "tmp").string()},
             {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}});
    }

    testing::TempDir dir;
};

TEST_F(DMGCommandTest, BuildStreamsTheBuildersLinesAndNamesTheImageAfterTheVersion) {
    const auto app = dir / "Acme.app";
    std::filesystem::create_directories(app / "Contents" / "MacOS");
    testing::writeFile(app / "Contents" / "Info.plist",
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                       "<key>CFBundleShortVersionString</key><string>1.2.3</string>"
                       "</dict></plist>\n");
    const auto built = veltra({"dmg", "build", "Acme", app.string()});
    ASSERT_EQ(built.exitCode, 0) << built.errorOutput;
    const auto image = dir / "out" / "Acme-1.2.3.dmg";
    // The new profile's volume name is the app's name.
    EXPECT_EQ(built.output, "Applying default Veltra installer artwork...\n"
                            "Creating image volume 'Acme'...\n"
                            "Applying Finder layout on the mounted installer volume...\n"
                            "Compressing disk image with UDZO...\n"
                            "Success: Successfully built DMG: " +
                                image.string() + "\n");
    EXPECT_TRUE(std::filesystem::is_regular_file(image));

    const auto missing = veltra({"dmg", "build", (dir / "Gone.app").string(), "--profile", "Acme"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.errorOutput, "Error: No app at " + (dir / "Gone.app").string() + ".\n");
}

// Without hdiutil: the same image, made by Veltra, which `dmg verify` reads back.
TEST_F(DMGCommandTest, NativeEngineBuildsAnImageThatVerifyReadsBack) {
    const auto app = dir / "Acme.app";
    std::filesystem::create_directories(app / "Contents" / "MacOS");
    testing::writeFile(app / "Contents" / "MacOS" / "Acme", "binary");
    testing::writeFile(dir / "Volume.icns", "icns");
    ASSERT_EQ(veltra({"profile", "set", "Acme", "dmgDesign.compressionLevel=9",
                      "dmgDesign.volumeIconPath=" + (dir / "Volume.icns").string()})
                  .exitCode,
              0);
    const auto image = dir / "out" / "Acme.dmg";
    const auto built = veltra({"dmg", "build", "Acme", app.string(), "--engine", "native"});
    ASSERT_EQ(built.exitCode, 0) << built.errorOutput;
    EXPECT_EQ(built.output, "Veltra writes the HFS+ volume and the UDZO image itself.\n"
                            "Applying default Veltra installer artwork...\n"
                            "Applying Finder layout...\n"
                            "Creating image volume 'Acme' and compressing it with UDZO...\n"
                            "Success: Successfully built DMG: " +
                                image.string() + "\n");

    const auto verified = veltra({"dmg", "verify", image.string()});
    ASSERT_EQ(verified.exitCode, 0) << verified.errorOutput;
    EXPECT_TRUE(verified.output.starts_with("✓ Acme.dmg: UDZO image, checksums verified\n"
                                            "Volume 'Acme': HFS+, "))
        << verified.output;
    EXPECT_NE(verified.output.find(", custom icon\n"), std::string::npos) << verified.output;
    EXPECT_NE(verified.output.find("\n  link    Applications\n"), std::string::npos)
        << verified.output;
    const auto json =
        nlohmann::json::parse(veltra({"dmg", "verify", image.string(), "--json"}).output);
    std::vector<std::string> names;
    for (const auto& entry : json["topLevel"]) {
        names.push_back(entry["name"]);
    }
    EXPECT_EQ(names, (std::vector<std::string>{".background", ".DS_Store", ".VolumeIcon.icns",
                                               "Acme.app", "Applications"}));
    EXPECT_EQ(json["fileSystem"], "HFS+");

    // A format only hdiutil writes is refused by name before any work; a damaged image too.
    ASSERT_EQ(veltra({"profile", "set", "Acme", "dmgDesign.compressionFormat=ULFO"}).exitCode, 0);
    const auto refused = veltra({"dmg", "build", "Acme", app.string(), "--engine", "native"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errorOutput, "Error: ULFO images need an LZFSE compressor, which this build "
                                   "of Veltra does not have. Use UDZO, UDBZ, ULMO or UDRO.\n");
    testing::writeFile(dir / "Bad.dmg", "not an image at all, though long enough? no.");
    const auto bad = veltra({"dmg", "verify", (dir / "Bad.dmg").string()});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.errorOutput, "Error: Bad.dmg is not a readable UDIF disk image: it is too short "
                               "to hold the 512-byte trailer\n");
    EXPECT_EQ(veltra({"profile", "set", "Acme", "dmgDesign.compressionLevel=10"}).errorOutput,
              "Error: Invalid value '10' for dmgDesign.compressionLevel: it must be a whole number "
              "from 1 (fastest) to 9 (smallest).\n");
}

TEST_F(DMGCommandTest, LayoutFollowsTheProfilesDesign) {
    auto shown = veltra({"dmg", "layout", "Acme"});
    ASSERT_EQ(shown.exitCode, 0) << shown.errorOutput;
    EXPECT_EQ(shown.output, "Window:        {{390, 250}, {660, 400}}\n"
                            "Preset:        Classic (660×400)\n"
                            "Background:    default\n"
                            "Icon size:     120\n"
                            "App:           (165, 235)\n"
                            "Applications:  (495, 235)\n"
                            "Title:         top 58, width 564\n");
    ASSERT_EQ(veltra({"profile", "set", "Acme", "dmgDesign.iconSize=121"}).exitCode, 0);
    shown = veltra({"dmg", "layout", "--profile", "Acme", "--json"});
    EXPECT_EQ(
        nlohmann::ordered_json::parse(shown.output),
        nlohmann::ordered_json::parse(
            "{\"appPosition\":{\"x\":150.0,\"y\":260.0},\"applicationsPosition\":{\"x\":510.0,"
            "\"y\":260.0},\"iconSize\":121.0,\"titleTop\":58.0,\"titleWidth\":564.0,"
            "\"windowBounds\":\"{{390, 250}, {660, 400}}\",\"backgroundType\":\"default\","
            "\"preset\":null}"));
}

TEST_F(DMGCommandTest, BackgroundWritesTheArtworkAtTwiceTheWindow) {
    const auto png = dir / "bg.png";
    auto drawn = veltra(
        {"dmg", "background", "--app", "Acme", "--preset", "compact", "--output", png.string()});
    ASSERT_EQ(drawn.exitCode, 0) << drawn.errorOutput;
    const auto bytes = readFile(png);
    // IHDR width and height: 1080 × 720.
    EXPECT_EQ(bytes.substr(16, 8), std::string("\x00\x00\x04\x38\x00\x00\x02\xD0", 8));

    drawn = veltra({"dmg", "background", "--app", "Acme", "--width", "500", "--height", "300",
                    "--output", png.string()});
    ASSERT_EQ(drawn.exitCode, 0) << drawn.errorOutput;
    EXPECT_EQ(readFile(png).substr(16, 8), std::string("\x00\x00\x03\xE8\x00\x00\x02\x58", 8));

    const auto both = veltra({"dmg", "background", "--app", "Acme", "--preset", "compact",
                              "--width", "500", "--height", "300", "--output", png.string()});
    EXPECT_EQ(both.exitCode, 2);
    const auto unwritable = veltra(
        {"dmg", "background", "--app", "Acme", "--output", (dir / "no" / "bg.png").string()});
    EXPECT_EQ(unwritable.exitCode, 1);
    EXPECT_EQ(unwritable.errorOutput, "Error: Failed to render default background\n");
}

} // namespace
} // namespace veltra
