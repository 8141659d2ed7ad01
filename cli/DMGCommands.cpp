#include "Commands.h"
#include "JsonOutput.h"
#include "LinePrinter.h"
#include "OpenStore.h"
#include "Terminal.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/dmg/DMGInstallerLayout.h"
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFImage.h"
#include "core/support/PropertyList.h"

#include <cmath>
#include <memory>

namespace veltra::cli {
namespace {

// Points as a person reads them: at most two decimals (400 × 0.145 is 58, not 57.99999999999999).
double points(double value) {
    return std::round(value * 100) / 100;
}

// The short version the app carries, for the image's default name.
std::string appVersion(const std::filesystem::path& app) {
    try {
        const auto plist = readPropertyListDictionary(app / "Contents" / "Info.plist");
        if (const auto it = plist.find("CFBundleShortVersionString");
            it != plist.end() && it->is_string()) {
            return it->get<std::string>();
        }
    } catch (const std::exception&) {
    }
    return {};
}

void addBuild(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "build", "Pack an app into the installer disk image the profile designs");
    auto app = std::make_shared<std::string>();
    auto profile = std::make_shared<std::string>();
    auto output = std::make_shared<std::string>();
    auto identity = std::make_shared<std::string>();
    auto earlier = std::make_shared<std::string>();
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_option("APP", *app, "The .app bundle");
    // The earlier spelling, kept for scripts: --profile NAME APP.
    command->add_option("--profile", *earlier)->group("");
    command->add_option("--output", *output,
                        "The image to write (default: <output folder>/<app>-<version>.dmg)");
    command->add_option("--identity", *identity, "Sign the image with this identity");
    auto engine = std::make_shared<std::string>("auto");
    command
        ->add_option("--engine", *engine,
                     "hdiutil, native (Veltra's own HFS+ and UDIF writer) or auto (hdiutil "
                     "where there is one)")
        ->check(CLI::IsMember({"auto", "hdiutil", "native"}));
    command->callback([&context, app, profile, output, identity, earlier, engine] {
        if (!earlier->empty() && app->empty()) {
            *app = *profile;
            *profile = *earlier;
        }
        if (app->empty()) {
            throw CLI::RequiredError("APP");
        }
        OpenStore store(context);
        const auto& chosen = store.find(*profile);
        const std::filesystem::path appPath = expandTilde(standardizePath(*app));
        if (!std::filesystem::is_directory(appPath)) {
            throw failure("No app at " + appPath.string() + ".");
        }
        DMGBuildOptions options;
        options.appPath = appPath;
        options.config = chosen.dmgDesign;
        if (!identity->empty()) {
            options.signingIdentity = *identity;
        }
        const auto name = appPath.stem().string();
        const auto version = appVersion(appPath);
        if (options.config.volumeName.empty()) {
            options.config.volumeName = version.empty() ? name : name + " " + version;
        }
        if (!output->empty()) {
            options.outputDMGPath = expandTilde(*output);
        } else {
            const auto folder = expandTilde(chosen.outputDirectory);
            std::filesystem::create_directories(folder);
            options.outputDMGPath =
                folder / (version.empty() ? name + ".dmg" : name + "-" + version + ".dmg");
        }
        options.engine = *engine == "native"    ? DMGEngine::native
                         : *engine == "hdiutil" ? DMGEngine::hdiutil
                                                : DMGEngine::automatic;
        LinePrinter print(context.out);
        DMGBuilder().build(options, std::ref(print), context.stop);
    });
}

void addBackground(CLI::App& group) {
    auto* command = group.add_subcommand("background", "Render the default installer artwork");
    auto app = std::make_shared<std::string>();
    auto preset = std::make_shared<std::string>();
    auto width = std::make_shared<double>(0);
    auto height = std::make_shared<double>(0);
    auto output = std::make_shared<std::string>();
    command->add_option("--app", *app, "The app's name for the title")->required();
    auto* presetOption = command->add_option("--preset", *preset, "classic, modernWide or compact")
                             ->check(CLI::IsMember({"classic", "modernWide", "compact"}));
    auto* widthOption = command->add_option("--width", *width, "Window width in points");
    auto* heightOption = command->add_option("--height", *height, "Window height in points");
    widthOption->needs(heightOption)->excludes(presetOption);
    heightOption->needs(widthOption)->excludes(presetOption);
    command->add_option("--output", *output, "The PNG to write")->required();
    command->callback([app, preset, width, height, output] {
        auto config = applying(dmgLayoutPreset(preset->empty() ? "classic" : *preset).value(),
                               DMGDesignConfig{});
        if (*width > 0 || *height > 0) {
            config.windowWidth = *width;
            config.windowHeight = *height;
        }
        const auto layout = DMGInstallerLayout::from(config);
        DMGBackgroundRenderer::saveDefaultBackground(expandTilde(*output), *app, config.windowWidth,
                                                     config.windowHeight, layout.appPosition.y,
                                                     layout);
    });
}

void addLayout(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("layout", "Show where the installer window puts its icons");
    auto profile = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *profile, "The profile's name or ID");
    command->add_option("--profile", *profile)->group(""); // the earlier spelling
    command->add_flag("--json", *json, "Print the fields as JSON");
    command->callback([&context, profile, json] {
        if (profile->empty()) {
            throw CLI::RequiredError("NAME|ID");
        }
        OpenStore store(context);
        const auto& config = store.find(*profile).dmgDesign;
        const auto layout = DMGInstallerLayout::from(config);
        const auto preset = matchingPreset(config);
        const auto bounds = dmgWindowBounds(config);
        const auto background = rawValue(effectiveBackgroundType(config));
        if (*json) {
            const auto point = [](Point p) { return Json{{"x", points(p.x)}, {"y", points(p.y)}}; };
            const Json out{{"appPosition", point(layout.appPosition)},
                           {"applicationsPosition", point(layout.applicationsPosition)},
                           {"iconSize", points(layout.iconSize)},
                           {"titleTop", points(layout.titleTop)},
                           {"titleWidth", points(layout.titleWidth)},
                           {"windowBounds", bounds},
                           {"backgroundType", background},
                           {"preset", preset ? Json(shortName(*preset)) : Json(nullptr)}};
            context.out << jsonText(out) << '\n';
            return;
        }
        context.out << fmt::format("Window:        {}\n", bounds);
        context.out << fmt::format("Preset:        {}\n",
                                   preset ? std::string(rawValue(*preset)) : "none (own sizes)");
        context.out << fmt::format("Background:    {}\n", background);
        context.out << fmt::format("Icon size:     {}\n", points(layout.iconSize));
        context.out << fmt::format("App:           ({}, {})\n", points(layout.appPosition.x),
                                   points(layout.appPosition.y));
        context.out << fmt::format("Applications:  ({}, {})\n",
                                   points(layout.applicationsPosition.x),
                                   points(layout.applicationsPosition.y));
        context.out << fmt::format("Title:         top {}, width {}\n", points(layout.titleTop),
                                   points(layout.titleWidth));
    });
}

void addVerify(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "verify", "Check a disk image's checksums and volume, and list its top level");
    auto file = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("FILE", *file, "The .dmg (made by Veltra or by hdiutil)")->required();
    command->add_flag("--json", *json, "Print the result as JSON");
    command->callback([&context, file, json] {
        const UDIFImage image(expandTilde(*file));
        image.verify(context.stop);
        const auto* holder = image.volumePartition();
        const auto verified =
            fmt::format("✓ {}: {} image, checksums verified\n",
                        std::filesystem::path(*file).filename().string(), image.format());
        if (const auto* container = image.apfsPartition(); holder == nullptr && container) {
            // APFS is checked (its checksums above) and named; its files are not listed.
            if (*json) {
                context.out << jsonText(Json{{"format", image.format()},
                                             {"partition", container->name},
                                             {"fileSystem", "APFS"},
                                             {"checksumsVerified", true}})
                            << '\n';
                return;
            }
            context.out << verified
                        << fmt::format("Volume: APFS container in '{}' (Veltra lists only HFS+ "
                                       "volumes)\n",
                                       container->name);
            return;
        }
        if (holder == nullptr) {
            throw failure("The image's checksums are right, but none of its partitions holds an "
                          "HFS+ volume.");
        }
        const HFSPlusVolume volume([&image, holder](std::uint64_t offset, std::size_t length) {
            return image.read(*holder, offset, length);
        });
        const auto entries = volume.list();
        const auto fileSystem = volume.signature() == "H+" ? "HFS+" : "HFSX (case-sensitive)";
        const auto kind = [](HFSPlusVolume::Entry::Kind k) {
            return k == HFSPlusVolume::Entry::Kind::folder    ? "folder"
                   : k == HFSPlusVolume::Entry::Kind::symlink ? "link"
                                                              : "file";
        };
        if (*json) {
            Json listed = Json::array();
            for (const auto& entry : entries) {
                listed.push_back(
                    {{"name", entry.name}, {"kind", kind(entry.kind)}, {"size", entry.size}});
            }
            context.out << jsonText(Json{{"format", image.format()},
                                         {"partition", holder->name},
                                         {"volumeName", volume.volumeName()},
                                         {"fileSystem", fileSystem},
                                         {"volumeBytes", volume.totalBytes()},
                                         {"customIcon", volume.hasCustomIcon()},
                                         {"checksumsVerified", true},
                                         {"topLevel", listed}})
                        << '\n';
            return;
        }
        context.out << verified;
        context.out << fmt::format("Volume '{}': {}, {} bytes{}\n", volume.volumeName(), fileSystem,
                                   volume.totalBytes(),
                                   volume.hasCustomIcon() ? ", custom icon" : "");
        // HFS+ names its private folders with control characters ("\r", NULs).
        for (const auto& entry : entries) {
            context.out << fmt::format("  {:<7} {}{}\n", kind(entry.kind), printable(entry.name),
                                       entry.kind == HFSPlusVolume::Entry::Kind::file
                                           ? fmt::format(" ({} bytes)", entry.size)
                                           : std::string());
        }
    });
}

} // namespace

void addDMGCommands(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("dmg", "Build the installer disk image and its artwork");
    group->require_subcommand(1);
    addBuild(*group, context);
    addBackground(*group);
    addLayout(*group, context);
    addVerify(*group, context);
}

} // namespace veltra::cli
