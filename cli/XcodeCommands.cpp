#include "Commands.h"
#include "JsonOutput.h"
#include "LinePrinter.h"
#include "core/support/VeltraError.h"
#include "core/xcode/AppInspector.h"
#include "core/xcode/XcodeArchiver.h"
#include "core/xcode/XcodeBuildSettings.h"
#include "core/xcode/XcodeEnvironment.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <memory>
#include <optional>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace veltra::cli {

namespace {

std::string schemeOrDefault(const XcodeProjectInfo& info, const std::string& given) {
    if (!given.empty()) {
        return given;
    }
    if (!info.defaultScheme) {
        throw VeltraError("Veltra", errorCode::notFound,
                          fmt::format("{} has no shared scheme. Give one with --scheme.",
                                      info.projectPath.filename().string()));
    }
    return *info.defaultScheme;
}

void addInfo(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("info", "Show the schemes, configurations, bundle ID and team");
    auto path = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *path, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    command->add_flag("--json", *json, "Print the fields as JSON");
    command->callback([&context, path, json] {
        const auto info = XcodeProjectDiscovery::discover(*path);
        if (*json) {
            Json schemes = Json::array();
            for (const auto& scheme : info.schemeDetails) {
                schemes.push_back({{"name", scheme.name},
                                   {"archiveConfiguration", scheme.archiveConfiguration},
                                   {"appName", orNull(scheme.appName)},
                                   {"appTarget", orNull(scheme.appTarget)}});
            }
            Json projects = Json::array();
            for (const auto& project : info.projects) {
                projects.push_back(project.string());
            }
            Json missing = Json::array();
            for (const auto& project : info.missingProjects) {
                missing.push_back(project.string());
            }
            const Json out{{"projectURL", info.projectPath.string()},
                           {"isWorkspace", info.isWorkspace},
                           {"name", info.name},
                           {"schemes", info.schemes},
                           {"configurations", info.configurations},
                           {"defaultScheme", orNull(info.defaultScheme)},
                           {"bundleIdentifier", orNull(info.bundleIdentifier)},
                           {"developmentTeam", orNull(info.developmentTeam)},
                           {"appTarget", orNull(info.appTarget)},
                           {"projects", projects},
                           {"missingProjects", missing},
                           {"schemeDetails", schemes}};
            context.out << jsonText(out) << '\n';
            return;
        }
        context.out << fmt::format("{}:{}{}\n", info.isWorkspace ? "Workspace" : "Project",
                                   info.isWorkspace ? "      " : "        ",
                                   info.projectPath.string());
        for (const auto& project : info.missingProjects) {
            context.out << fmt::format("Not on disk:    {}\n", project.string());
        }
        const auto join = [](const std::vector<std::string>& items) {
            return items.empty() ? std::string("none") : fmt::format("{}", fmt::join(items, ", "));
        };
        context.out << fmt::format("Schemes:        {}\n", join(info.schemes));
        context.out << fmt::format("Default scheme: {}\n", info.defaultScheme.value_or("none"));
        context.out << fmt::format("Configurations: {}\n", join(info.configurations));
        context.out << fmt::format("App target:     {}\n", info.appTarget.value_or("none"));
        context.out << fmt::format("Bundle ID:      {}\n",
                                   info.bundleIdentifier.value_or("not set"));
        context.out << fmt::format("Team:           {}\n",
                                   info.developmentTeam.value_or("not set"));
        for (const auto& scheme : info.schemeDetails) {
            context.out << fmt::format("  {}: archives {} in {}\n", scheme.name,
                                       scheme.appName ? *scheme.appName
                                                      : std::string("no application"),
                                       scheme.archiveConfiguration);
        }
    });
}

void addCheck(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "check", "Check that Xcode is selected and the scheme's Release Info.plist is usable");
    auto path = std::make_shared<std::string>();
    auto scheme = std::make_shared<std::string>();
    command->add_option("PATH", *path, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    command->add_option("--scheme", *scheme, "The scheme to archive (default: the project's)");
    command->callback([&context, path, scheme] {
        const auto info = XcodeProjectDiscovery::discover(*path);
        const auto chosen = schemeOrDefault(info, *scheme);
        XcodeEnvironmentValidator().validate(context.stop);
        context.out << "Success: Xcode is the active developer directory\n";
        if (auto problem = XcodePlistValidator().validate(info, chosen, context.stop)) {
            throw VeltraError("Veltra", errorCode::toolFailed, *problem);
        }
        context.out << "Success: Release Info.plist paths verified for '" << chosen << "'\n";
    });
}

void addArchive(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "archive",
        "Archive the project with its scheme's configuration, lift the app out and re-sign it");
    auto path = std::make_shared<std::string>();
    auto scheme = std::make_shared<std::string>();
    auto identity = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    command->add_option("PATH", *path, ".xcodeproj, .xcworkspace or a folder holding one")
        ->required();
    command->add_option("--scheme", *scheme, "The scheme to archive (default: the project's)");
    auto configuration = std::make_shared<std::string>();
    command->add_option("--configuration", *configuration,
                        "Build configuration to archive (default: the scheme's own)");
    command->add_option("--identity", *identity,
                        "Signing identity to re-sign with (default: keep Xcode's signature)");
    command->add_option("--version", *version, "Marketing version for this build only");
    auto* buildOption = command->add_option("--build", *build, "Build number for this build only");
    command->callback([&context, path, scheme, configuration, identity, version, build,
                       buildOption] {
        auto info = XcodeProjectDiscovery::discover(*path);
        if (!configuration->empty()) {
            info.configurationOverride = *configuration;
        }
        const auto chosen = schemeOrDefault(info, *scheme);
        const std::optional<std::int64_t> buildNumber =
            buildOption->count() > 0 ? std::optional(releaseBuildArgument(*build)) : std::nullopt;
        LinePrinter print(context.out);
        const auto built = XcodeArchiver().archiveAndExport(
            info, chosen, identity->empty() ? std::nullopt : std::optional(*identity),
            version->empty() ? std::nullopt : std::optional(*version), buildNumber,
            [&print](const std::string& line) { print(line); }, context.stop);
        print(built.string());
    });
}

void addInspect(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "inspect", "Show a built app's identity, version, signature and architectures");
    auto path = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("APP", *path, "The .app bundle")->required();
    command->add_flag("--json", *json, "Print the fields as JSON");
    command->callback([&context, path, json] {
        const auto info = AppInspector().inspect(*path, context.stop);
        if (*json) {
            const Json out{{"appURL", info.appPath.string()},
                           {"bundleIdentifier", info.bundleIdentifier},
                           {"displayName", info.displayName},
                           {"version", info.version},
                           {"build", info.build},
                           {"minimumOSVersion", info.minimumOSVersion},
                           {"isCodesigned", info.isCodesigned},
                           {"signingTeam", orNull(info.signingTeam)},
                           {"architectures", info.architectures},
                           {"executableURL", orNull(info.executableURL)},
                           {"iconURL", orNull(info.iconURL)},
                           {"sparkleFeedURL", orNull(info.sparkleFeedURL)}};
            context.out << jsonText(out) << '\n';
            return;
        }
        const auto orDash = [](const std::string& text) { return text.empty() ? "-" : text; };
        context.out << fmt::format("Name:          {}\n", info.displayName);
        context.out << fmt::format("Bundle ID:     {}\n", info.bundleIdentifier);
        context.out << fmt::format("Version:       {} (build {})\n", orDash(info.version),
                                   orDash(info.build));
        context.out << fmt::format("Minimum macOS: {}\n", orDash(info.minimumOSVersion));
        context.out << fmt::format("Signature:     {}\n",
                                   !info.isCodesigned ? std::string("not signed")
                                   : info.signingTeam ? "team " + *info.signingTeam
                                                      : std::string("Ad-hoc"));
        context.out << fmt::format("Architectures: {}\n",
                                   info.architectures.empty()
                                       ? std::string("unknown")
                                       : fmt::format("{}", fmt::join(info.architectures, " ")));
        context.out << fmt::format("Executable:    {}\n",
                                   info.executableURL ? info.executableURL->string() : "none");
        context.out << fmt::format("Icon:          {}\n",
                                   info.iconURL ? info.iconURL->string() : "none");
        context.out << fmt::format("Update feed:   {}\n", info.sparkleFeedURL.value_or("none"));
    });
}

} // namespace

void addXcodeCommands(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("xcode", "Read and check the Xcode project");
    group->require_subcommand(1);
    addInfo(*group, context);
    addCheck(*group, context);
    addArchive(app, context);
    addInspect(app, context);
}

} // namespace veltra::cli
