#include "DMGBuilder.h"

#include "DMGBackgroundRenderer.h"
#include "DMGInstallerLayout.h"
#include "HFSPlusVolume.h"
#include "UDIFWriter.h"
#include "core/process/ProcessExecutionError.h"
#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <cstdlib>
#include <ctime>
#include <optional>

#include <fmt/format.h>

namespace veltra {
namespace {

constexpr const char* stagedBackground = ".background/background.png";
// hdiutil's own default for UDZO.
constexpr int defaultZlibLevel = 1;

std::vector<std::string> convertArguments(const std::filesystem::path& from,
                                          const DMGDesignConfig& config,
                                          const std::filesystem::path& to) {
    std::vector<std::string> arguments{"convert", from.string(), "-format",
                                       config.compressionFormat};
    if (config.compressionFormat == "UDZO" && config.compressionLevel) {
        arguments.insert(arguments.end(),
                         {"-imagekey", "zlib-level=" + std::to_string(*config.compressionLevel)});
    }
    arguments.insert(arguments.end(), {"-o", to.string(), "-quiet"});
    return arguments;
}

// File-system steps fail with the file manager's own description.
template <typename Operation> void fileStep(Operation&& operation) {
    try {
        operation();
    } catch (const std::filesystem::filesystem_error& error) {
        throw VeltraError("POSIX", error.code().value(), error.what());
    }
}

// hdiutil's words for a volume something else still holds for a moment.
bool isBusy(const ProcessResult& result) {
    const auto said = combinedOutput(result);
    return contains(said, "Resource busy") || contains(said, "Resource temporarily unavailable");
}

std::string errorText(const ProcessResult& result) {
    return std::string(trimWhitespace(result.errorOutput));
}

// Removes the build's work files however the build ends.
struct WorkFiles {
    // Holds the staging folder and the intermediate image; never a mounted volume.
    std::filesystem::path root;
    std::filesystem::path staging;
    std::filesystem::path intermediate;
    std::filesystem::path mountPoint;
    std::optional<std::filesystem::path> defaultBackground;

    WorkFiles() = default;
    WorkFiles(const WorkFiles&) = delete;
    WorkFiles& operator=(const WorkFiles&) = delete;
    ~WorkFiles() {
        std::error_code ignored;
        if (!root.empty()) {
            std::filesystem::remove_all(root, ignored);
        }
        if (defaultBackground) {
            std::filesystem::remove(*defaultBackground, ignored);
        }
        // Only an empty mount point goes: a folder that still holds a volume stays untouched.
        std::filesystem::remove(mountPoint, ignored);
    }
};

} // namespace

void DMGBuilder::build(const DMGBuildOptions& options, const LogHandler& log,
                       StopToken stop) const {
    const auto say = [&log](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    const auto run = [&](std::vector<std::string> arguments, std::optional<double> timeout,
                         const std::string& tool) {
        return ProcessRunner::run(
            ProcessRequest{.command = tool, .arguments = std::move(arguments), .timeout = timeout},
            stop);
    };
    // Every hdiutil step is tried again while the volume is busy.
    const auto hdiutil = [&](const std::vector<std::string>& arguments,
                             std::optional<double> timeout) {
        return runRetrying([&] { return run(arguments, timeout, "hdiutil"); }, isBusy, busyRetry,
                           "hdiutil " + arguments.front(), say, stop);
    };
    const auto& config = options.config;
    const bool automatic = options.engine == DMGEngine::automatic;
    const bool noHdiutil = automatic && !ProcessRunner::findTool("hdiutil");
    const char* asked = std::getenv("VELTRA_DMG_ENGINE");
    const bool native = options.engine == DMGEngine::native || noHdiutil ||
                        (automatic && asked != nullptr && std::string_view(asked) == "native");
    if (native) {
        // Refused before any work when the format cannot be written here.
        udifFormat(config.compressionFormat);
        say(std::string(noHdiutil ? "No hdiutil on this machine: " : "") +
            "Veltra writes the HFS+ volume and the " + config.compressionFormat + " image itself.");
    }
    const auto appName = options.appPath.filename().string();
    const auto displayName = options.appPath.stem().string();
    const auto volumeName = config.volumeName.empty() ? displayName : config.volumeName;
    const auto temporary =
        temporaryDirectory.empty() ? std::filesystem::temp_directory_path() : temporaryDirectory;
    WorkFiles work;
    // Named after this process, so a later run removes them if this one is killed.
    fileStep([&] { std::filesystem::create_directories(temporary); });
    work.root = makeOwnedTemporaryFolder(temporary, "veltra_dmg_");
    work.staging = work.root / "staging";
    work.intermediate = work.root / "temp.dmg";
    work.mountPoint = makeOwnedTemporaryFolder(temporary, "veltra_volume_");

    fileStep([&] {
        if (std::filesystem::exists(std::filesystem::symlink_status(options.outputDMGPath))) {
            std::filesystem::remove(options.outputDMGPath);
        }
        std::filesystem::create_directories(work.staging);
    });
    // Read only by hdiutil; the extension flag goes on the staged bundle's own new folder.
    copyItem(options.appPath, work.staging / appName, CopyUse::readOnly);
    if (config.hideExtension) {
        try {
            setExtensionHidden(work.staging / appName, true);
        } catch (const VeltraError& error) {
            say("   Warning: " + error.message());
        }
    }
    std::error_code linked;
    std::filesystem::create_directory_symlink("/Applications", work.staging / "Applications",
                                              linked);
    if (linked) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Failed to link Applications: " + linked.message());
    }

    // The background: none, the user's picture, or the default artwork.
    const auto type = effectiveBackgroundType(config);
    const auto staged = work.staging / stagedBackground;
    const auto stage = [&](const std::filesystem::path& picture, bool ownArtwork) {
        fileStep([&] {
            std::filesystem::create_directories(staged.parent_path());
            std::filesystem::copy_file(picture, staged,
                                       std::filesystem::copy_options::overwrite_existing);
        });
        if (native && !ProcessRunner::findTool("sips")) {
            // Veltra's own artwork is drawn at twice the window's size and 144 dpi already.
            if (!ownArtwork) {
                say("   Warning: sips is not available here; the picture keeps its own size.");
            }
            return;
        }
        const auto resize =
            run({"-z", std::to_string(static_cast<long long>(config.windowHeight * 2)),
                 std::to_string(static_cast<long long>(config.windowWidth * 2)), "-s", "dpiWidth",
                 "144.0", "-s", "dpiHeight", "144.0", staged.string(), "--out", staged.string()},
                std::nullopt, "sips");
        if (resize.exitCode != 0) {
            say("   Warning: Could not resize the installer artwork: " + errorText(resize));
        }
    };
    // Which settings the picture comes from, for a failure to name them.
    std::string artworkSettings = fmt::format(
        "the default artwork for the {}x{} window (dmgDesign.windowWidth, windowHeight)",
        config.windowWidth, config.windowHeight);
    if (type == DMGBackgroundType::plain) {
        say("Building plain unstyled Finder DMG...");
    } else if (config.backgroundPath && !config.backgroundPath->empty() &&
               std::filesystem::is_regular_file(*config.backgroundPath)) {
        say("Applying custom DMG artwork...");
        artworkSettings = "dmgDesign.backgroundPath " + *config.backgroundPath;
        stage(*config.backgroundPath, false);
    } else {
        say("Applying default Veltra installer artwork...");
        if (config.backgroundPath && !config.backgroundPath->empty()) {
            say("Warning: dmgDesign.backgroundPath names " + *config.backgroundPath +
                ", which is not a file; the default artwork is used instead.");
        }
        work.defaultBackground =
            temporary / ("veltra_default_bg_" + Uuid::random().string() + ".png");
        const auto layout = DMGInstallerLayout::from(config);
        try {
            DMGBackgroundRenderer::saveDefaultBackground(*work.defaultBackground, displayName,
                                                         config.windowWidth, config.windowHeight,
                                                         layout.appPosition.y, layout);
            stage(*work.defaultBackground, true);
        } catch (const VeltraError& error) {
            say("Warning: Failed to generate default artwork: " + error.message() + " (" +
                artworkSettings + ")");
        }
    }

    const auto requireArtwork = [&] {
        if (type != DMGBackgroundType::plain && !std::filesystem::is_regular_file(staged)) {
            throw VeltraError(
                "Veltra.DMG", errorCode::toolFailed,
                "The installer artwork could not be prepared. Check the artwork and rebuild. It "
                "came from " +
                    artworkSettings + ".");
        }
    };
    // The volume's icon: a file Finder looks for at the root, and the root's custom-icon flag.
    bool withIcon = false;
    if (config.volumeIconPath && !config.volumeIconPath->empty()) {
        const auto icon = expandTilde(*config.volumeIconPath);
        if (std::filesystem::is_regular_file(icon)) {
            fileStep([&] { std::filesystem::copy_file(icon, work.staging / ".VolumeIcon.icns"); });
            withIcon = true;
        } else {
            say("Warning: dmgDesign.volumeIconPath names " + *config.volumeIconPath +
                ", which is not a file; the volume keeps the standard icon.");
        }
    }
    if (native) {
        requireArtwork();
        // The layout's alias names the volume by its creation date, which the volume then gets.
        const auto createdAt = static_cast<std::int64_t>(std::time(nullptr));
        if (type != DMGBackgroundType::plain) {
            say("Applying Finder layout...");
            DMGDesignConfig layout = config;
            layout.volumeName = volumeName;
            DSStoreWriter writer = dsStoreWriter;
            writer.volumeCreatedAt = createdAt;
            writer.write(work.staging, layout, appName, stagedBackground);
        }
        say("Creating image volume '" + volumeName + "' and compressing it with " +
            config.compressionFormat + "...");
        UDIFWriter image(options.outputDMGPath,
                         {udifFormat(config.compressionFormat),
                          config.compressionLevel.value_or(defaultZlibLevel), 0},
                         stop);
        writeHFSPlusVolume(
            work.staging, {volumeName, withIcon, createdAt},
            [&](std::span<const char> bytes) { image.write(bytes); }, stop);
        image.finish();
    } else {
        say("Creating image volume '" + volumeName + "'...");
        const auto created = hdiutil({"create", "-srcfolder", work.staging.string(), "-volname",
                                      volumeName, "-fs", "HFS+", "-fsargs", "-c c=64,a=16,e=16",
                                      "-format", "UDRW", work.intermediate.string(), "-quiet"},
                                     std::nullopt);
        if (created.exitCode != 0) {
            throw VeltraError("Veltra", errorCode::toolFailed,
                              "Failed to create disk image volume: " + errorText(created));
        }

        if (type != DMGBackgroundType::plain || withIcon) {
            requireArtwork();
            fileStep([&] { std::filesystem::create_directories(work.mountPoint); });
            bool attached = false;
            try {
                const auto attach =
                    hdiutil({"attach", work.intermediate.string(), "-mountpoint",
                             work.mountPoint.string(), "-nobrowse", "-noautoopen", "-readwrite"},
                            attachTimeout);
                if (attach.exitCode != 0) {
                    throw VeltraError("Veltra.DMG", errorCode::toolFailed,
                                      "Could not mount the installer to apply artwork: " +
                                          errorText(attach));
                }
                attached = true;
                if (type != DMGBackgroundType::plain) {
                    say("Applying Finder layout on the mounted installer volume...");
                    DMGDesignConfig mounted = config;
                    mounted.volumeName = volumeName;
                    dsStoreWriter.write(work.mountPoint, mounted, appName, stagedBackground);
                }
                if (withIcon) {
                    try {
                        setCustomIcon(work.mountPoint, true);
                    } catch (const VeltraError& error) {
                        say("   Warning: " + error.message());
                    }
                }
                auto detach = hdiutil({"detach", work.mountPoint.string()}, detachTimeout);
                if (detach.exitCode != 0 && isBusy(detach)) {
                    say("   Info: The volume is still busy; detaching it with -force");
                    detach = hdiutil({"detach", work.mountPoint.string(), "-force"}, detachTimeout);
                }
                if (detach.exitCode != 0) {
                    throw VeltraError("Veltra.DMG", errorCode::toolFailed,
                                      "Could not detach the installer after applying artwork: " +
                                          errorText(detach));
                }
                attached = false;
            } catch (const ProcessExecutionError&) {
                // A timed-out attach may still have mounted the image.
                attached = true;
                forceDetach(work.mountPoint);
                throw;
            } catch (...) {
                if (attached || stop.stop_requested()) {
                    forceDetach(work.mountPoint);
                }
                throw;
            }
        }

        say("Compressing disk image with " + config.compressionFormat + "...");
        const auto converted = hdiutil(
            convertArguments(work.intermediate, config, options.outputDMGPath), std::nullopt);
        if (converted.exitCode != 0) {
            throw VeltraError("Veltra", errorCode::toolFailed,
                              "Failed to compress disk image: " + errorText(converted));
        }
    }

    if (options.signingIdentity && !options.signingIdentity->empty()) {
        say("Signing DMG with " + *options.signingIdentity + "...");
        const auto signedImage = run({"--force", "--sign", *options.signingIdentity, "--timestamp",
                                      options.outputDMGPath.string()},
                                     std::nullopt, "codesign");
        // An unsigned or badly signed image fails notarization and Gatekeeper: stop here,
        // before anything is sent or published.
        if (signedImage.exitCode != 0) {
            throw VeltraError("Veltra.DMG", errorCode::toolFailed,
                              "Could not sign the DMG: " + errorText(signedImage));
        }
        const auto verified =
            run({"--verify", "--strict", "--verbose=2", options.outputDMGPath.string()},
                std::nullopt, "codesign");
        if (verified.exitCode != 0) {
            throw VeltraError("Veltra.DMG", errorCode::toolFailed,
                              "The signed DMG does not pass codesign --verify --strict: " +
                                  std::string(trimWhitespace(combinedOutput(verified))));
        }
        say("Success: Code signature applied to DMG and verified");
    }
    say("Success: Successfully built DMG: " + options.outputDMGPath.string());
}

void DMGBuilder::forceDetach(const std::filesystem::path& mountPoint) const {
    // Clean-up runs even when the build was cancelled; its own result does not matter.
    try {
        ProcessRunner::run(ProcessRequest{.command = "hdiutil",
                                          .arguments = {"detach", mountPoint.string(), "-force"},
                                          .timeout = detachTimeout});
    } catch (...) {
    }
}

} // namespace veltra
