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
