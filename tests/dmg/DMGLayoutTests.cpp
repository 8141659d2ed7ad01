#include "TestSupport.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGInstallerLayout.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <cstring>

#include <gtest/gtest.h>

namespace veltra {
namespace {

DMGDesignConfig preset(DMGLayoutPreset which,
                       DMGBackgroundType type = DMGBackgroundType::defaultTemplate) {
    auto config = applying(which, DMGDesignConfig{});
    config.backgroundType = type;
    return config;
}

TEST(DMGLayout, PresetsAndTheirLabels) {
    EXPECT_EQ(rawValue(DMGLayoutPreset::modernWide), "Modern Wide (720×440)");
    EXPECT_EQ(rawValue(DMGLayoutPreset::classic), "Classic (660×400)");
    EXPECT_EQ(rawValue(DMGLayoutPreset::compact), "Compact (540×360)");
    EXPECT_EQ(dimensions(DMGLayoutPreset::compact),
              (DMGLayoutDimensions{540, 360, 100, {140, 220}, {400, 220}}));
    // A new profile starts as the classic preset.
    EXPECT_EQ(matchingPreset(DMGDesignConfig{}), DMGLayoutPreset::classic);
    for (const auto p : allDMGLayoutPresets) {
        EXPECT_EQ(dmgLayoutPreset(shortName(p)), p);
        EXPECT_EQ(matchingPreset(preset(p)), p);
    }
    EXPECT_FALSE(dmgLayoutPreset("Classic"));
}

TEST(DMGLayout, PositionsByBackgroundType) {
    struct Row {
        const char* name;
        DMGDesignConfig config;
        Point app;
        Point applications;
        double iconSize;
    };
    auto bigIcons = preset(DMGLayoutPreset::classic);
    bigIcons.iconSize = 121;
    auto plain = preset(DMGLayoutPreset::modernWide, DMGBackgroundType::plain);
    plain.iconSize = 200;
    auto custom = preset(DMGLayoutPreset::classic, DMGBackgroundType::custom);
    auto untypedWithPicture = preset(DMGLayoutPreset::classic);
    untypedWithPicture.backgroundType.reset();
    untypedWithPicture.backgroundPath = "/pictures/bg.png";
    auto untypedPlain = preset(DMGLayoutPreset::compact);
    untypedPlain.backgroundType.reset();
    untypedPlain.backgroundPath = "";
    auto ownWindow = preset(DMGLayoutPreset::classic);
    ownWindow.windowWidth = 700;

    for (const auto& row : {
             Row{"modernWide artwork",
                 preset(DMGLayoutPreset::modernWide),
                 {180, 255},
                 {540, 255},
                 128},
             Row{"classic artwork", preset(DMGLayoutPreset::classic), {165, 235}, {495, 235}, 120},
             Row{"compact artwork", preset(DMGLayoutPreset::compact), {135, 210}, {405, 210}, 100},
             Row{"icon size changed", bigIcons, {150, 260}, {510, 260}, 121},
             Row{"window changed", ownWindow, {150, 260}, {510, 260}, 120},
             Row{"plain", plain, {64, 60}, {168, 60}, 48},
             Row{"custom", custom, {150, 260}, {510, 260}, 120},
             Row{"no type, a picture", untypedWithPicture, {150, 260}, {510, 260}, 120},
             Row{"no type, no picture", untypedPlain, {135, 210}, {405, 210}, 100},
         }) {
        SCOPED_TRACE(row.name);
        const auto layout = DMGInstallerLayout::from(row.config);
        EXPECT_EQ(layout.appPosition, row.app);
        EXPECT_EQ(layout.applicationsPosition, row.applications);
        EXPECT_EQ(layout.iconSize, row.iconSize);
        EXPECT_DOUBLE_EQ(layout.titleTop, row.config.windowHeight * 0.145);
        EXPECT_DOUBLE_EQ(layout.titleWidth, row.config.windowWidth - 96);
    }
    auto narrow = DMGDesignConfig{};
    narrow.windowWidth = 90;
    EXPECT_EQ(DMGInstallerLayout::from(narrow).titleWidth, 1);
}

TEST(DMGLayout, WindowIsCentredOnTheScreen) {
    EXPECT_EQ(dmgWindowBounds(preset(DMGLayoutPreset::classic)), "{{390, 250}, {660, 400}}");
    EXPECT_EQ(dmgWindowBounds(preset(DMGLayoutPreset::modernWide), 1920, 1080),
              "{{600, 320}, {720, 440}}");
    auto odd = DMGDesignConfig{};
    odd.windowWidth = 661;
    EXPECT_EQ(dmgWindowBounds(odd), "{{389.5, 250}, {661, 400}}");
}

// Premultiplied ARGB to its channels.
struct Pixel {
    int a, r, g, b;
};
Pixel channels(std::uint32_t value) {
    return {static_cast<int>(value >> 24), static_cast<int>(value >> 16 & 0xFF),
            static_cast<int>(value >> 8 & 0xFF), static_cast<int>(value & 0xFF)};
}

TEST(DMGBackground, GradientTitleAndArrowWhereTheLayoutSaysForEveryPreset) {
    for (const auto p : allDMGLayoutPresets) {
        SCOPED_TRACE(shortName(p));
        const auto config = preset(p);
        const auto layout = DMGInstallerLayout::from(config);
        const auto image = DMGBackgroundRenderer::renderDefaultBackground(
            "Acme", config.windowWidth, config.windowHeight, layout.appPosition.y, layout);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->pixelWidth(), static_cast<int>(config.windowWidth * 2));
        EXPECT_EQ(image->pixelHeight(), static_cast<int>(config.windowHeight * 2));
        // The 90° gradient: lighter at the bottom edge, darker at the top.
        const auto top = channels(image->pixel(2, 0));
        const auto bottom = channels(image->pixel(2, image->pixelHeight() - 1));
        EXPECT_NEAR(top.r, 0.93 * 255, 2);
        EXPECT_NEAR(top.b, 0.95 * 255, 2);
        EXPECT_NEAR(bottom.r, 0.985 * 255, 2);
        EXPECT_EQ(top.a, 255);

        // The arrow's shaft crosses the midpoint of the two icons; nothing is drawn on the icons.
        const int midX = static_cast<int>((layout.appPosition.x + layout.applicationsPosition.x));
        const int midY = static_cast<int>(layout.appPosition.y * 2);
        EXPECT_LT(channels(image->pixel(midX, midY)).r, 80);
        EXPECT_GT(channels(image->pixel(static_cast<int>(layout.appPosition.x * 2), midY)).r, 200);
        EXPECT_GT(
            channels(image->pixel(static_cast<int>(layout.applicationsPosition.x * 2), midY)).r,
            200);

        // The title at full size, centred, its top at titleTop: dark pixels in its box.
        const auto title = DMGBackgroundRenderer::title("Acme", config.windowWidth, layout);
        EXPECT_EQ(title.fontSize, 32);
        EXPECT_NEAR(title.left + title.width / 2, config.windowWidth / 2, 0.5);
        EXPECT_EQ(title.top, layout.titleTop);
        int dark = 0;
        for (int y = static_cast<int>(title.top * 2);
             y < static_cast<int>((title.top + title.height) * 2); ++y) {
            for (int x = static_cast<int>(title.left * 2);
                 x < static_cast<int>((title.left + title.width) * 2); ++x) {
                dark += channels(image->pixel(x, y)).r < 60 ? 1 : 0;
            }
        }
        EXPECT_GT(dark, 500);
    }
}

TEST(DMGBackground, LongAndNonLatinNamesFitTheTitleWidth) {
    const auto config = preset(DMGLayoutPreset::compact);
    const auto layout = DMGInstallerLayout::from(config);
    const std::string longName = "Extraordinarily Long Application Name Professional Edition";
    const auto title = DMGBackgroundRenderer::title(longName, config.windowWidth, layout);
    EXPECT_LT(title.fontSize, 32);
    EXPECT_LE(title.width, layout.titleWidth + 0.5);
    EXPECT_GE(title.left, 48 - 0.5);

    // Japanese through font fallback: laid out with real glyph widths, not empty boxes of zero.
    const auto japanese = DMGBackgroundRenderer::title("写真整理", config.windowWidth, layout);
    EXPECT_EQ(japanese.fontSize, 32);
    EXPECT_GT(japanese.width,
              DMGBackgroundRenderer::title("", config.windowWidth, layout).width + 4 * 20);
}

TEST(DMGBackground, ArrowTurnsTowardsApplications) {
    auto config = preset(DMGLayoutPreset::classic, DMGBackgroundType::custom);
    config.appIconPosition = {330, 120};
    config.dropLinkPosition = {330, 320}; // Applications straight below the app
    const auto layout = DMGInstallerLayout::from(config);
    const auto image = DMGBackgroundRenderer::renderDefaultBackground(
        "Acme", config.windowWidth, config.windowHeight, layout.appPosition.y, layout);
    ASSERT_TRUE(image);
    // The shaft runs vertically through (330, 220); the head opens upwards below it.
    EXPECT_LT(channels(image->pixel(660, 440 - 20)).r, 80);
    EXPECT_LT(channels(image->pixel(660, 440 + 20)).r, 80);
    EXPECT_GT(channels(image->pixel(660 - 20, 440)).r, 200);
    // Arrowhead strokes reach sideways near the tip (below the centre), not above it.
    EXPECT_LT(channels(image->pixel(660 - 14, 440 + 16)).r, 120);
    EXPECT_GT(channels(image->pixel(660 - 14, 440 - 16)).r, 200);
}

TEST(DMGBackground, SavedPictureIsARetinaPNGAndFailuresHaveTheirText) {
    testing::TempDir dir;
    const auto config = preset(DMGLayoutPreset::classic);
    const auto layout = DMGInstallerLayout::from(config);
    DMGBackgroundRenderer::saveDefaultBackground(dir / "bg.png", "Acme", 660, 400, 235, layout);
    const auto png = readFile(dir / "bg.png");
    ASSERT_GT(png.size(), 60u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_EQ(png.substr(12, 4), "IHDR");
    EXPECT_EQ(png.substr(37, 4), "pHYs");
    // 144 dpi = 5669 pixels per metre, both ways, unit metre.
    EXPECT_EQ(png.substr(41, 9), std::string("\x00\x00\x16\x25\x00\x00\x16\x25\x01", 9));

    for (const auto& [name, path, width] :
         {std::tuple{"unwritable", dir / "missing" / "bg.png", 660.0},
          std::tuple{"no pixels", dir / "empty.png", 0.0}}) {
        SCOPED_TRACE(name);
        try {
            DMGBackgroundRenderer::saveDefaultBackground(path, "Acme", width, 400, 235, layout);
            FAIL() << "no error";
        } catch (const VeltraError& error) {
            EXPECT_EQ(error.domain(), "Veltra.DMGBackgroundRenderer");
            EXPECT_EQ(error.message(), "Failed to render default background");
        }
    }
}

} // namespace
} // namespace veltra
