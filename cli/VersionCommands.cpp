#include "CommandLine.h"
#include "Commands.h"
#include "JsonOutput.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/VersionValidation.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <memory>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace veltra::cli {

namespace {

std::optional<std::string> feedOption(const std::string& path) {
    return path.empty() ? std::nullopt : std::optional<std::string>(path);
}

// The project a command reads, which must be there: a missing one is not version 1.0.0.
std::string existingProject(const std::string& path) {
    if (!XcodeProjectDiscovery::locate(expandTilde(path))) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "No Xcode project or workspace at " + path + ".");
    }
    return path;
}

void addShow(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "show", "The project's version and build, and the last release in the feed");
    auto project = std::make_shared<std::string>();
    auto appcast = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *project, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    command->add_option("--appcast", *appcast, "The app's local appcast.xml");
    command->add_flag("--json", *json, "Print the fields as JSON");
    command->callback([&context, project, appcast, json] {
        const auto info =
            VersionManager().readVersionInfo(existingProject(*project), feedOption(*appcast));
        if (*json) {
            const nlohmann::ordered_json out{
                {"currentVersion", info.currentVersion},
                {"currentBuild", info.currentBuild},
                {"lastPublishedVersion", orNull(info.lastPublishedVersion)},
                {"lastPublishedBuild", orNull(info.lastPublishedBuild)},
                {"nextSuggestedBuild", info.nextSuggestedBuild},
            };
            context.out << out.dump(2) << '\n';
            return;
        }
        context.out << fmt::format("Version:              {}\nBuild:                {}\n",
                                   info.currentVersion, info.currentBuild);
        if (info.lastPublishedVersion || info.lastPublishedBuild) {
            context.out << fmt::format(
                "Last published:       {} (build {})\n", info.lastPublishedVersion.value_or("?"),
                info.lastPublishedBuild ? std::to_string(*info.lastPublishedBuild) : "?");
        }
        context.out << fmt::format("Next suggested build: {}\n", info.nextSuggestedBuild);
    });
}

void addBump(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand("bump", "Print the next patch, minor or major version");
    auto version = std::make_shared<std::string>();
    auto type = std::make_shared<BumpType>(BumpType::patch);
    command->add_option("VERSION", *version, "The current version")->required();
    auto* patch = command->add_flag_callback(
        "--patch", [type] { *type = BumpType::patch; }, "1.2.3 becomes 1.2.4");
    auto* minor = command->add_flag_callback(
        "--minor", [type] { *type = BumpType::minor; }, "1.2.3 becomes 1.3.0");
    auto* major = command->add_flag_callback(
        "--major", [type] { *type = BumpType::major; }, "1.2.3 becomes 2.0.0");
    patch->excludes(minor)->excludes(major);
    minor->excludes(major);
    command->callback([&context, version, type, patch, minor, major] {
        if (patch->count() + minor->count() + major->count() == 0) {
            throw CLI::ValidationError("Give one of --patch, --minor or --major.");
        }
        if (const auto problem = VersionManager::versionError(*version)) {
            throw VeltraError("Veltra", errorCode::invalidSetup, *problem);
        }
        if (version->empty() || version->front() < '0' || version->front() > '9') {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "'" + *version +
                                  "' is not a version to bump: it starts with its numbers (for "
                                  "example 1.2.3).");
        }
        context.out << VersionManager().bump(*version, *type) << '\n';
    });
}

void addSet(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("set", "Write a version and/or build into the project file");
    auto project = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    command->add_option("PATH", *project, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    auto* versionOption = command->add_option("--version", *version, "Marketing version");
    auto* buildOption = command->add_option("--build", *build, "Build number");
    command->callback([&context, project, version, build, versionOption, buildOption] {
        if (versionOption->count() == 0 && buildOption->count() == 0) {
            throw CLI::ValidationError("Give --version, --build or both.");
        }
        const std::optional<std::string> newVersion =
            versionOption->count() > 0 ? std::optional(*version) : std::nullopt;
        const std::optional<std::int64_t> newBuild =
            buildOption->count() > 0 ? std::optional(releaseBuildArgument(*build)) : std::nullopt;
        if (!VersionManager::projectFile(*project)) {
            throw VeltraError("Veltra", errorCode::notFound,
                              fmt::format("No Xcode project found at {}.", *project));
        }
        const auto result = VersionManager().apply(newVersion, newBuild, *project);
        for (const auto& notice : result.notices) {
            context.out << "Info: Version notice: " << notice << '\n';
        }
        if (!result.inserted.empty()) {
            context.out << fmt::format("Added {} to {} build settings blocks.\n",
                                       result.inserted == "version+build" ? "version and build"
                                                                          : result.inserted,
                                       result.insertions);
        }
        const auto state = [&](bool given, bool changed, std::string_view kind) {
            if (!given) {
                return "not asked for";
            }
            if (changed) {
                return "updated";
            }
            return result.inserted.find(kind) != std::string::npos ? "added" : "left as it is";
        };
        context.out << fmt::format("Version {}, build {}.\n",
                                   state(newVersion.has_value(), result.versionChanged, "version"),
                                   state(newBuild.has_value(), result.buildChanged, "build"));
    });
}

void addCheck(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "check", "Judge a version and build against the project and the published feed");
    auto project = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    auto appcast = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *project, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    command->add_option("--version", *version, "Version about to be released")->required();
    command->add_option("--build", *build, "Build about to be released")->required();
    command->add_option("--appcast", *appcast, "The app's local appcast.xml");
    command->add_flag("--json", *json, "Print the result as JSON");
    command->callback([&context, project, version, build, appcast, json] {
        const auto info =
            VersionManager().readVersionInfo(existingProject(*project), feedOption(*appcast));
        const auto result =
            VersionValidation::evaluate(*version, releaseBuildArgument(*build), info);
        if (*json) {
            const nlohmann::ordered_json out{
                {"severity", severityName(result.severity)},
                {"title", orNull(result.title)},
                {"message", orNull(result.message)},
                {"recommendedBuild", orNull(result.recommendedBuild)},
                {"recommendedVersion", orNull(result.recommendedVersion)},
            };
            context.out << out.dump(2) << '\n';
        } else if (result.severity == VersionValidation::Severity::none) {
            context.out << "OK\n";
        } else {
            context.out << fmt::format(
                "{}: {}\n{}\n",
                result.severity == VersionValidation::Severity::blocker ? "Blocker" : "Warning",
                result.title.value_or(""), result.message.value_or(""));
        }
        if (result.severity == VersionValidation::Severity::blocker) {
            context.exitStatus = exitCheckFailed;
        }
    });
}

} // namespace

void addVersionCommands(CLI::App& app, CliContext& context) {
    auto* group =
        app.add_subcommand("version", "Show, bump, check and set the project's version and build");
    group->require_subcommand(1);
    addShow(*group, context);
    addBump(*group, context);
    addSet(*group, context);
    addCheck(*group, context);
}

} // namespace veltra::cli
