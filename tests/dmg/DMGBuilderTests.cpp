// The disk image builder against the hdiutil, sips and codesign stand-ins: the exact tool runs,
// every failure's text, clean-up, and what a user sees in the finished image.

#include "AppleTools.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/dmg/DMGInstallerLayout.h"
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFImage.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"
#include "dsstore/AliasRecord.h"
#include "dsstore/DSStore.h"
#include "dsstore/IconPlacement.h"
#include "dsstore/IconViewSettings.h"
#include "dsstore/WindowSettings.h"

#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class DMGBuilderRun : public testing::AppleToolsTest {
protected:
    DMGBuilderRun() {
        // A small bundle with what copies get wrong: links, modes, nested folders.
        const auto contents = app / "Contents";
        fs::create_directories(contents / "MacOS");
        fs::create_directories(contents / "Frameworks" / "Kit.framework" / "Versions" / "A");
        testing::writeFile(contents / "Info.plist", "<plist/>");
        testing::writeFile(contents / "MacOS" / "Acme", "binary");
        ::chmod((contents / "MacOS" / "Acme").c_str(), 0755);
        testing::writeFile(contents / "Frameworks" / "Kit.framework" / "Versions" / "A" / "Kit",
                           "framework");
        ::chmod((contents / "Frameworks" / "Kit.framework" / "Versions" / "A" / "Kit").c_str(),
                0750);
        fs::create_directory_symlink("A", contents / "Frameworks" / "Kit.framework" / "Versions" /
                                              "Current");
        fs::create_symlink("Versions/Current/Kit",
                           contents / "Frameworks" / "Kit.framework" / "Kit");
        fs::create_directories(work);
        builder.temporaryDirectory = work;
        // Retries of a busy volume, quick enough for a test; how many depends on the clock.
        builder.busyRetry = {std::chrono::milliseconds(5), std::chrono::milliseconds(20),
                             std::chrono::milliseconds(200)};
        fake("VELTRA_FAKE_COUNTERS", (dir / "counters").string());
        options.appPath = app;
        options.outputDMGPath = dir / "Acme-1.2.3.dmg";
        options.config.volumeName = "Acme 1.2.3";
        options.config.backgroundType = DMGBackgroundType::defaultTemplate;
    }

    void build(StopToken stop = {}) {
        builder.build(
            options,
            [this](const std::string& line) {
                const std::lock_guard guard(lock);
                log.push_back(line);
            },
            stop);
    }

    VeltraError failure() {
        try {
            build();
        } catch (const VeltraError& error) {
            return error;
        }
        ADD_FAILURE() << "the build succeeded";
        return VeltraError("", 0, "");
    }

    // Work files left in the builder's temporary folder.
    Lines leftovers() const {
        Lines names;
        for (const auto& entry : fs::directory_iterator(work)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    // Opens a finished image as a user would: the stand-in attaches it at a folder.
    fs::path open(const fs::path& image) {
        const auto mount = dir / "opened";
        const auto result = ProcessRunner::run(
            ProcessRequest{.command = "hdiutil",
                           .arguments = {"attach", image.string(), "-mountpoint", mount.string()}});
        EXPECT_EQ(result.exitCode, 0) << result.errorOutput;
        return mount;
    }

    // The verbs hdiutil was run with, a retried one once.
    std::vector<std::string> hdiutilVerbs() const {
        std::vector<std::string> verbs;
        for (const auto& run : runsOf("hdiutil")) {
            auto verb = run.at(0) + (run.back() == "-force" ? " -force" : "");
            if (verbs.empty() || verbs.back() != verb) {
                verbs.push_back(std::move(verb));
            }
        }
        return verbs;
    }

    fs::path app = dir / "export" / "Acme.app";
    fs::path work = dir / "tmp";
    DMGBuilder builder;
    DMGBuildOptions options;
    std::mutex lock;
    Lines log;
};

TEST_F(DMGBuilderRun, DefaultArtworkImageHoldsWhatAUserSees) {
    testing::writeFile(options.outputDMGPath, "an older image");
    build();
    EXPECT_EQ(log, (Lines{"Applying default Veltra installer artwork...",
                          "Creating image volume 'Acme 1.2.3'...",
                          "Applying Finder layout on the mounted installer volume...",
                          "Compressing disk image with UDZO...",
                          "Success: Successfully built DMG: " + options.outputDMGPath.string()}));
    EXPECT_TRUE(leftovers().empty()) << leftovers().front();

    // The tools, exactly.
    const auto hdiutil = runsOf("hdiutil");
    ASSERT_EQ(hdiutil.size(), 4u);
    const auto& create = hdiutil[0];
    ASSERT_EQ(create.size(), 13u);
    EXPECT_EQ(create[0], "create");
    EXPECT_EQ(create[1], "-srcfolder");
    EXPECT_TRUE(create[2].starts_with((work / "veltra_dmg_").string()));
    EXPECT_EQ(Lines(create.begin() + 3, create.end() - 2),
              (Lines{"-volname", "Acme 1.2.3", "-fs", "HFS+", "-fsargs", "-c c=64,a=16,e=16",
                     "-format", "UDRW"}));
    // Work folders carry this process's id: a later run removes them if this one is killed.
    const auto owned = (work / ("veltra_dmg_" + std::to_string(::getpid()) + "-")).string();
    EXPECT_TRUE(create[2].starts_with(owned)) << create[2];
    EXPECT_EQ(create[11], (fs::path(create[2]).parent_path() / "temp.dmg").string());
    EXPECT_EQ(create[12], "-quiet");
    const auto& intermediate = create[11];
    const auto& attach = hdiutil[1];
    ASSERT_EQ(attach.size(), 7u);
    EXPECT_EQ(attach[1], intermediate);
    EXPECT_TRUE(attach[3].starts_with((work / "veltra_volume_").string()));
    EXPECT_EQ(Lines({attach[0], attach[2], attach[4], attach[5], attach[6]}),
              (Lines{"attach", "-mountpoint", "-nobrowse", "-noautoopen", "-readwrite"}));
    EXPECT_EQ(hdiutil[2], (Lines{"detach", attach[3]}));
    EXPECT_EQ(hdiutil[3], (Lines{"convert", intermediate, "-format", "UDZO", "-o",
                                 options.outputDMGPath.string(), "-quiet"}));
    const auto sips = runsOf("sips");
    ASSERT_EQ(sips.size(), 1u);
    EXPECT_EQ(Lines(sips[0].begin(), sips[0].begin() + 9),
              (Lines{"-z", "800", "1320", "-s", "dpiWidth", "144.0", "-s", "dpiHeight", "144.0"}));
    EXPECT_EQ(sips[0][9], sips[0][11]);
    EXPECT_EQ(sips[0][10], "--out");
    EXPECT_TRUE(runsOf("codesign").empty());

    // The older image was replaced; opening the new one shows the installer.
    const auto volume = open(options.outputDMGPath);
    const auto copy = volume / "Acme.app" / "Contents";
    EXPECT_EQ(readFile(copy / "MacOS" / "Acme"), "binary");
    EXPECT_EQ(fs::status(copy / "MacOS" / "Acme").permissions() & fs::perms::all,
              static_cast<fs::perms>(0755));
    const auto kit = copy / "Frameworks" / "Kit.framework";
    EXPECT_EQ(fs::status(kit / "Versions" / "A" / "Kit").permissions() & fs::perms::all,
              static_cast<fs::perms>(0750));
    EXPECT_TRUE(fs::is_symlink(kit / "Versions" / "Current"));
    EXPECT_EQ(fs::read_symlink(kit / "Versions" / "Current"), "A");
    EXPECT_EQ(fs::read_symlink(kit / "Kit"), "Versions/Current/Kit");
    EXPECT_EQ(fs::read_symlink(volume / "Applications"), "/Applications");
    EXPECT_TRUE(isExtensionHidden(volume / "Acme.app"));

    const auto facts = ProcessRunner::run(
        ProcessRequest{.command = "sips",
                       .arguments = {"-g", "pixelWidth", "-g", "pixelHeight", "-g", "dpiWidth",
                                     (volume / ".background" / "background.png").string()}});
    EXPECT_EQ(facts.output, (volume / ".background" / "background.png").string() +
                                "\n  pixelWidth: 1320\n  pixelHeight: 800\n  dpiWidth: 143.993\n");

    const auto store = dsstore::DSStore::readFile(volume / ".DS_Store");
    const auto window = dsstore::WindowSettings::from(store);
    ASSERT_TRUE(window);
    EXPECT_EQ(window->windowBounds, "{{390, 250}, {660, 400}}");
    EXPECT_EQ(window->showToolbar, false);
    EXPECT_EQ(window->showSidebar, false);
    const auto icons = dsstore::IconViewSettings::from(store);
    ASSERT_TRUE(icons);
    EXPECT_EQ(icons->iconSize, 120);
    EXPECT_EQ(icons->arrangeBy, "none");
    EXPECT_EQ(icons->labelOnBottom, true);
    ASSERT_EQ(icons->backgroundType, 2);
    const auto alias = dsstore::AliasRecord::decode(*icons->backgroundImageAlias);
    EXPECT_EQ(alias.volumeName, "Acme 1.2.3");
    EXPECT_EQ(alias.text(dsstore::AliasRecord::Tag::posixPath), "/.background/background.png");
    EXPECT_EQ(alias.text(dsstore::AliasRecord::Tag::volumeMountPoint), "/Volumes/Acme 1.2.3");
    EXPECT_EQ(alias.fileName, "background.png");
    std::map<std::string, std::pair<int, int>> placed;
    for (const auto& record : store.records) {
        if (const auto p = dsstore::IconPlacement::fromRecord(record)) {
            placed[p->filename] = {p->x, p->y};
        }
    }
    EXPECT_EQ(placed, (std::map<std::string, std::pair<int, int>>{{"Acme.app", {165, 235}},
                                                                  {"Applications", {495, 235}}}));
}

// A machine without hdiutil (nor sips): Veltra makes the image itself, says so once, and
// leaves no work files; stopped, it leaves no image either.
TEST_F(DMGBuilderRun, WithoutHdiutilVeltraMakesTheImageItself) {
    const testing::ScopedEnvironment path("PATH", "/usr/bin:/bin");
    const testing::ScopedEnvironment tools("VELTRA_TOOL_PATH", "");
    const testing::ScopedEnvironment engine("VELTRA_DMG_ENGINE", "");
    // The alias keeps local time, as HFS did; the comparison below is in UTC.
    const testing::ScopedEnvironment zone("TZ", "UTC");
    build();
    EXPECT_EQ(log,
              (Lines{"No hdiutil on this machine: Veltra writes the HFS+ volume and the "
                     "UDZO image itself.",
                     "Applying default Veltra installer artwork...", "Applying Finder layout...",
                     "Creating image volume 'Acme 1.2.3' and compressing it with UDZO...",
                     "Success: Successfully built DMG: " + options.outputDMGPath.string()}));
    EXPECT_TRUE(fs::is_empty(work));
    const UDIFImage image(options.outputDMGPath);
    image.verify();
    const HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
        return image.read(image.partitions().front(), offset, length);
    });
    EXPECT_EQ(volume.volumeName(), "Acme 1.2.3");
    std::vector<std::string> top;
    for (const auto& entry : volume.list()) {
        top.push_back(entry.name);
    }
    EXPECT_EQ(top, (Lines{".background", ".DS_Store", "Acme.app", "Applications"}));
    // The layout's alias names the volume as the volume is (its name and creation date) and
    // leaves the IDs the staging folder had unknown, so Finder finds the picture by its path.
    fs::create_directories(dir / "x");
    ASSERT_EQ(ProcessRunner::run("7z", {"x", "-y", "-o" + (dir / "x").string(),
                                        options.outputDMGPath.string(), "Acme 1.2.3/.DS_Store"})
                  .exitCode,
              0);
    const auto store = dsstore::DSStore::readFile(dir / "x" / "Acme 1.2.3" / ".DS_Store");
    const auto icons = dsstore::IconViewSettings::from(store);
    ASSERT_TRUE(icons && icons->backgroundImageAlias);
    const auto alias = dsstore::AliasRecord::decode(*icons->backgroundImageAlias);
    EXPECT_EQ(alias.volumeName, "Acme 1.2.3");
    EXPECT_EQ(static_cast<std::int64_t>(alias.volumeCreated) - 2'082'844'800, volume.createdAt());
    EXPECT_EQ(alias.parentID, 0xFFFFFFFFu);
    EXPECT_EQ(alias.fileID, 0xFFFFFFFFu);
    EXPECT_EQ(alias.text(dsstore::AliasRecord::Tag::posixPath), "/.background/background.png");

    StopSource stop;
    stop.request_stop();
    fs::remove(options.outputDMGPath);
    EXPECT_THROW(build(stop.get_token()), CancellationError);
    EXPECT_FALSE(fs::exists(options.outputDMGPath));
    EXPECT_TRUE(fs::is_empty(work));
}

TEST_F(DMGBuilderRun, CustomPictureIsStagedAndResizedMissingOneFallsBackToTheArtwork) {
    // A picture of the wrong size is resized to twice a fractional window, truncated.
    DMGBackgroundRenderer::saveDefaultBackground(dir / "mine.png", "Mine", 100, 50, 25,
                                                 DMGInstallerLayout::from(DMGDesignConfig{}));
    options.config.backgroundType = DMGBackgroundType::custom;
    options.config.backgroundPath = (dir / "mine.png").string();
    options.config.windowWidth = 660.7;
    options.config.windowHeight = 400.9;
    build();
    EXPECT_EQ(log.front(), "Applying custom DMG artwork...");
    const auto sips = runsOf("sips");
    ASSERT_EQ(sips.size(), 1u);
    EXPECT_EQ(Lines(sips[0].begin(), sips[0].begin() + 3), (Lines{"-z", "801", "1321"}));
    const auto volume = open(options.outputDMGPath);
    const auto facts = ProcessRunner::run(
        ProcessRequest{.command = "sips",
                       .arguments = {"-g", "pixelWidth", "-g", "pixelHeight",
                                     (volume / ".background" / "background.png").string()}});
    EXPECT_TRUE(facts.output.ends_with("  pixelWidth: 1321\n  pixelHeight: 801\n")) << facts.output;
    EXPECT_TRUE(fs::exists(volume / ".DS_Store"));

    // The same design whose picture has gone: the default artwork, not a plain image.
    fs::remove_all(dir / "opened");
    fs::remove(dir / "mine.png");
    log.clear();
    build();
    EXPECT_EQ(log.front(), "Applying default Veltra installer artwork...");
    EXPECT_EQ(log[1], "Warning: dmgDesign.backgroundPath names " + (dir / "mine.png").string() +
                          ", which is not a file; the default artwork is used instead.");
    EXPECT_TRUE(fs::exists(open(options.outputDMGPath) / ".background" / "background.png"));
}

TEST_F(DMGBuilderRun, PlainImageHasOnlyTheAppAndApplications) {
    options.config.backgroundType = DMGBackgroundType::plain;
    options.config.hideExtension = false;
    options.signingIdentity = "";
    build();
    EXPECT_EQ(log,
              (Lines{"Building plain unstyled Finder DMG...",
                     "Creating image volume 'Acme 1.2.3'...", "Compressing disk image with UDZO...",
                     "Success: Successfully built DMG: " + options.outputDMGPath.string()}));
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create", "convert"}));
    EXPECT_TRUE(runsOf("sips").empty());
    EXPECT_TRUE(runsOf("codesign").empty());
    const auto volume = open(options.outputDMGPath);
    Lines entries;
    for (const auto& entry : fs::directory_iterator(volume)) {
        entries.push_back(entry.path().filename().string());
    }
    std::ranges::sort(entries);
    EXPECT_EQ(entries, (Lines{"Acme.app", "Applications"}));
    EXPECT_FALSE(isExtensionHidden(volume / "Acme.app"));
}

// With hdiutil: the zlib level goes to convert, and a volume icon gets mounted for its flag
// even in a plain image.
TEST_F(DMGBuilderRun, LevelAndVolumeIconReachHdiutilsImage) {
    options.config.backgroundType = DMGBackgroundType::plain;
    options.config.compressionLevel = 9;
    testing::writeFile(dir / "Volume.icns", "icns");
    options.config.volumeIconPath = (dir / "Volume.icns").string();
    build();
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create", "attach", "detach", "convert"}));
    const auto convert = runsOf("hdiutil").back();
    EXPECT_NE(std::ranges::find(convert, "zlib-level=9"), convert.end());
    const auto volume = open(options.outputDMGPath);
    EXPECT_EQ(readFile(volume / ".VolumeIcon.icns"), "icns");
    EXPECT_FALSE(fs::exists(volume / ".DS_Store")) << "a plain image has no layout";
}

TEST_F(DMGBuilderRun, TheImageIsSignedAndVerifiedOrTheBuildFails) {
    options.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    build();
    EXPECT_EQ(runsOf("codesign"),
              (std::vector<Lines>{
                  {"--force", "--sign", *options.signingIdentity, "--timestamp",
                   options.outputDMGPath.string()},
                  {"--verify", "--strict", "--verbose=2", options.outputDMGPath.string()}}));
    EXPECT_EQ(log[log.size() - 3], "Signing DMG with " + *options.signingIdentity + "...");
    EXPECT_EQ(log[log.size() - 2], "Success: Code signature applied to DMG and verified");

    // An unsigned image would fail notarization and Gatekeeper: nothing goes on from here.
    fake("VELTRA_FAKE_CODESIGN", "internal");
    auto error = failure();
    EXPECT_EQ(error.message(),
              "Could not sign the DMG: Warning: unable to build chain to self-signed root for "
              "signer \"Developer ID Application: Jane Doe (AB12CD34EF)\"\n" +
                  options.outputDMGPath.string() + ": errSecInternalComponent");
    fake("VELTRA_FAKE_CODESIGN", "");
    fake("VELTRA_FAKE_CODESIGN_VERIFY", "broken");
    error = failure();
    EXPECT_TRUE(
        error.message().starts_with("The signed DMG does not pass codesign --verify --strict: "))
        << error.message();
}

TEST_F(DMGBuilderRun, ABusyVolumeIsTriedAgainThenForced) {
    fake("VELTRA_FAKE_HDIUTIL", "create-busy,detach-busy,convert-busy");
    fake("VELTRA_FAKE_HDIUTIL_BUSY_TIMES", "2");
    builder.busyRetry.total = std::chrono::minutes(5); // a slow machine does not cut it short
    build();
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create", "attach", "detach", "convert"}));
    EXPECT_EQ(runsOf("hdiutil").size(), 10u) << "three tries of each busy verb, one attach";
    EXPECT_NE(std::ranges::find(log, "   Info: hdiutil detach failed (\"disk4\" unmounted.); "
                                     "trying again in 0.0 s (try 2)"),
              log.end());
    EXPECT_TRUE(fs::exists(options.outputDMGPath));

    // Still busy once the retries are spent: detached by force, and the build goes on.
    fs::remove(dir / "tools.log");
    fake("VELTRA_FAKE_HDIUTIL", "detach-busy");
    fake("VELTRA_FAKE_HDIUTIL_BUSY_TIMES", "");
    builder.busyRetry.total = std::chrono::milliseconds(100);
    build();
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create", "attach", "detach", "detach -force", "convert"}));
}

TEST_F(DMGBuilderRun, ToolFailuresHaveTheirTextsAndAlwaysDetachAndCleanUp) {
    struct Row {
        const char* scenario;
        const char* domain;
        std::string message;
        Lines verbs;
    };
    for (const auto& row : {
             Row{"create-busy",
                 "Veltra",
                 "Failed to create disk image volume: hdiutil: create failed - Resource busy",
                 {"create"}},
             Row{"create-silent", "Veltra", "Failed to create disk image volume: ", {"create"}},
             Row{"attach-busy",
                 "Veltra.DMG",
                 "Could not mount the installer to apply artwork: hdiutil: attach failed - "
                 "Resource busy",
                 {"create", "attach"}},
             Row{"detach-busy,force-busy",
                 "Veltra.DMG",
                 "Could not detach the installer after applying artwork: hdiutil: couldn't "
                 "eject \"disk4\" - Resource busy",
                 {"create", "attach", "detach", "detach -force"}},
             Row{"convert-busy",
                 "Veltra",
                 "Failed to compress disk image: hdiutil: convert failed - Resource temporarily "
                 "unavailable",
                 {"create", "attach", "detach", "convert"}},
         }) {
        SCOPED_TRACE(row.scenario);
        fake("VELTRA_FAKE_HDIUTIL", row.scenario);
        fs::remove(dir / "tools.log");
        const auto error = failure();
        EXPECT_EQ(error.domain(), row.domain);
        EXPECT_EQ(error.code(), 500);
        EXPECT_EQ(error.message(), row.message);
        EXPECT_EQ(hdiutilVerbs(), row.verbs);
        EXPECT_FALSE(fs::exists(options.outputDMGPath));
        // Staging, intermediate image and artwork are gone; a volume still mounted (the forced
        // detach failed too) keeps its folder rather than being deleted under the mount.
        for (const auto& name : leftovers()) {
            EXPECT_TRUE(name.starts_with("veltra_volume_") &&
                        std::string(row.scenario).find("force-busy") != std::string::npos)
                << name;
        }
        fs::remove_all(work);
        fs::create_directories(work);
    }
}

TEST_F(DMGBuilderRun, MissingArtworkStopsBeforeMounting) {
    // Rendering fails (a window of no pixels): a warning, then the missing-artwork failure.
    options.config.windowWidth = 0;
    const auto error = failure();
    EXPECT_EQ(error.domain(), "Veltra.DMG");
    // Both name the settings the picture came from.
    EXPECT_EQ(error.message(),
              "The installer artwork could not be prepared. Check the artwork and rebuild. It came "
              "from the default artwork for the 0x400 window (dmgDesign.windowWidth, "
              "windowHeight).");
    EXPECT_EQ(log, (Lines{"Applying default Veltra installer artwork...",
                          "Warning: Failed to generate default artwork: Failed to render default "
                          "background (the default artwork for the 0x400 window "
                          "(dmgDesign.windowWidth, windowHeight))",
                          "Creating image volume 'Acme 1.2.3'..."}));
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create"}));
    EXPECT_TRUE(leftovers().empty());
}

TEST_F(DMGBuilderRun, CancellingWhileMountedDetachesAndCleansUp) {
    fake("VELTRA_FAKE_HDIUTIL_DELAY", "60");
    StopSource stop;
    JThread canceller([&] {
        // Cancel once the attach is running.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (std::chrono::steady_clock::now() < deadline) {
            {
                const std::lock_guard guard(lock);
                if (!log.empty() && log.back().starts_with("Creating image volume") &&
                    hdiutilVerbs().size() >= 2) {
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        stop.request_stop();
    });
    EXPECT_THROW(build(stop.get_token()), CancellationError);
    canceller.join();
    EXPECT_EQ(hdiutilVerbs(), (Lines{"create", "attach", "detach -force"}));
    EXPECT_TRUE(leftovers().empty());
    EXPECT_FALSE(fs::exists(options.outputDMGPath));
}

TEST_F(DMGBuilderRun, AppThatCannotBeCopiedFailsWithTheFileSystemsWords) {
    options.appPath = dir / "missing" / "Acme.app";
    try {
        build();
        FAIL() << "built";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.domain(), "POSIX");
        EXPECT_TRUE(error.message().find("No such file or directory") != std::string::npos)
            << error.message();
    }
    EXPECT_TRUE(runsOf("hdiutil").empty());
    EXPECT_TRUE(leftovers().empty());
}

} // namespace
} // namespace veltra
