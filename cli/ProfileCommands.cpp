#include "CommandLine.h"
#include "Commands.h"
#include "JsonOutput.h"
#include "OpenStore.h"
#include "core/profile/ProfileFieldEditor.h"
#include "core/profile/ProfileStore.h"
#include "core/records/ReleaseManifest.h"
#include "core/support/EventLoop.h"
#include "core/support/FileUtilities.h"
#include "core/support/NotificationCenter.h"
#include "core/support/Secrets.h"
#include "core/support/VeltraError.h"

#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra::cli {
namespace {

std::string formatSize(std::int64_t bytes) {
    if (bytes < 1000 * 1000) {
        return fmt::format("{:.1f} KB", static_cast<double>(bytes) / 1000.0);
    }
    return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

void addCreate(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand("create", "Create a profile with the default settings");
    auto appName = std::make_shared<std::string>();
    auto bundleID = std::make_shared<std::string>();
    auto output = std::make_shared<std::string>();
    command->add_option("APPNAME", *appName, "The app's name")->required();
    command->add_option("--bundle-id", *bundleID, "The app's bundle identifier")->required();
    command->add_option("--output", *output,
                        "Where release files go (default ~/Desktop/Veltra/APPNAME)");
    command->callback([&context, appName, bundleID, output] {
        if (const auto problem = ProfileFieldEditor::valueProblem("appName", *appName)) {
            throw VeltraError("Veltra", 1, *problem);
        }
        if (const auto problem = ProfileFieldEditor::bundleIdentifierProblem(*bundleID)) {
            throw VeltraError("Veltra", 1,
                              "Invalid value '" + *bundleID + "' for --bundle-id: " + *problem +
                                  ".");
        }
        OpenStore open(context);
        if (const auto problem = open.store().nameProblem(*appName)) {
            throw VeltraError("Veltra", 1, *problem);
        }
        auto created = ProjectProfile::create(
            *appName, *bundleID, output->empty() ? std::nullopt : std::optional(*output));
        const auto id = created.id;
        open.store().add(std::move(created));
        open.save();
        context.out << fmt::format("Created profile {} ({})\n", *appName, id.string());
    });
}

void addList(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand("list", "List the profiles");
    auto json = std::make_shared<bool>(false);
    auto names = std::make_shared<bool>(false);
    auto* jsonFlag = command->add_flag("--json", *json, "Print the stored JSON array");
    command->add_flag("--names", *names, "Only the names, one a line (for completion)")
        ->excludes(jsonFlag);
    command->callback([&context, json, names] {
        OpenStore open(context);
        const auto& profiles = open.store().profiles();
        if (*json) {
            context.out << dumpJson(withReadableDates(profilesToJson(profiles))) << '\n';
            return;
        }
        if (*names) {
            for (const auto& p : profiles) {
                context.out << p.name << '\n';
            }
            return;
        }
        if (profiles.empty()) {
            context.out << "No profiles yet. Create one with 'veltra profile create APPNAME "
                           "--bundle-id ID'.\n";
            return;
        }
        std::size_t width = 4;
        for (const auto& p : profiles) {
            width = std::max(width, p.name.size());
        }
        context.out << fmt::format("{:<{}}  {:<36}  {}\n", "NAME", width, "ID", "BUNDLE ID");
        for (const auto& p : profiles) {
            context.out << fmt::format("{:<{}}  {}  {}\n", p.name, width, p.id.string(),
                                       p.bundleIdentifier);
        }
    });
}

void addShow(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand("show", "Show one profile's settings");
    auto which = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *which, "Name or ID")->required();
    command->add_flag("--json", *json, "Print the stored JSON of the profile");
    command->callback([&context, which, json] {
        OpenStore open(context);
        const auto& p = open.find(*which);
        // A remote address may carry a token; what is printed may end up in a CI log.
        if (*json) {
            context.out << redactURLCredentials(dumpJson(withReadableDates(p.toJson()))) << '\n';
            return;
        }
        context.out << fmt::format("id = {}\n", p.id.string());
        for (const auto& field : ProfileFieldEditor::fields()) {
            context.out << fmt::format(
                "{} = {}\n", field.path,
                redactURLCredentials(ProfileFieldEditor::get(p, field.path)));
        }
        context.out << fmt::format("recentReleases = {}\n",
                                   p.recentReleases ? p.recentReleases->size() : 0);
    });
}

void addDelete(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand(
        "delete", "Delete a profile and its release history (asks first on a terminal)");
    auto which = std::make_shared<std::string>();
    auto yes = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *which, "Name or ID")->required();
    command->add_flag("--yes,-y", *yes, "Do not ask");
    command->callback([&context, which, yes] {
        OpenStore open(context);
        const auto& p = open.find(*which);
        const auto name = p.name;
        // A person at a terminal confirms; a script has said what it wants.
        if (!*yes && &context.out == &std::cout && ::isatty(STDIN_FILENO) == 1) {
            const auto releases = p.recentReleases ? p.recentReleases->size() : 0;
            context.out << fmt::format("Delete profile {} and the {} release{} it records? This "
                                       "cannot be undone. [y/N] ",
                                       name, releases, releases == 1 ? "" : "s")
                        << std::flush;
            std::string answer;
            std::getline(std::cin, answer);
            if (answer != "y" && answer != "Y" && answer != "yes") {
                context.out << fmt::format("Kept profile {}.\n", name);
                context.exitStatus = exitFailure;
                return;
            }
        }
        open.store().remove(p.id);
        open.save();
        context.out << fmt::format("Deleted profile {}\n", name);
    });
}

void addSet(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand("set", "Change settings: key.path=value ...");
    auto which = std::make_shared<std::string>();
    auto assignments = std::make_shared<std::vector<std::string>>();
    command->add_option("NAME|ID", *which, "Name or ID")->required();
    command
        ->add_option("SETTINGS", *assignments,
                     "key.path=value (empty value clears an optional key)")
        ->required();
    command->callback([&context, which, assignments] {
        OpenStore open(context);
        auto edited = open.find(*which);
        for (const auto& assignment : *assignments) {
            const auto equals = assignment.find('=');
            if (equals == std::string::npos) {
                throw failure(fmt::format("'{}' is not key.path=value.", assignment));
            }
            ProfileFieldEditor::set(edited, assignment.substr(0, equals),
                                    assignment.substr(equals + 1));
        }
        if (const auto problem = open.store().nameProblem(edited.name, edited.id)) {
            throw failure(*problem);
        }
        open.store().update(edited);
        open.save();
        for (const auto& assignment : *assignments) {
            const auto key = assignment.substr(0, assignment.find('='));
            context.out << fmt::format("{} = {}\n", key, ProfileFieldEditor::get(edited, key));
        }
    });
}

void addCheck(CLI::App& profile, CliContext& context) {
    auto* command = profile.add_subcommand("check", "Check that a profile file can be read");
    auto file = std::make_shared<std::string>();
    command->add_option("FILE", *file, "A profile file")->required();
    command->callback([&context, file] {
        const Json json = parseJson(readFile(expandTilde(*file)), *file);
        if (!json.is_array()) {
            throw failure(fmt::format("{}: expected an array of profiles", *file));
        }
        int failed = 0;
        for (std::size_t i = 0; i < json.size(); ++i) {
            try {
                ProjectProfile::fromJson(json[i], fmt::format("profiles[{}]", i));
            } catch (const JsonDecodingError& error) {
                context.out << error.what() << '\n';
                ++failed;
            }
        }
        if (failed > 0) {
            throw failure(fmt::format("{} of {} profiles cannot be read.", failed, json.size()));
        }
        context.out << fmt::format("OK: {} profile{}\n", json.size(), json.size() == 1 ? "" : "s");
    });
}

void addReleases(CLI::App& app, CliContext& context) {
    auto* command =
        app.add_subcommand("releases", "List a profile's recent releases, newest first");
    auto which = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *which, "Name or ID")->required();
    command->add_flag("--json", *json, "Print the release manifests as JSON");
    command->callback([&context, which, json] {
        OpenStore open(context);
        const auto& p = open.find(*which);
        const auto releases = p.recentReleases.value_or(std::vector<ReleaseManifest>{});
        if (*json) {
            Json array = Json::array();
            for (const auto& manifest : releases) {
                array.push_back(withReadableDates(manifest.toJson()));
            }
            context.out << dumpJson(array) << '\n';
            return;
        }
        if (releases.empty()) {
            context.out << fmt::format("{} has no releases yet.\n", p.name);
            return;
        }
        context.out << fmt::format("{:<12} {:<8} {:<20} {:>9}  {:<9}  {:<24}  {}\n", "VERSION",
                                   "BUILD", "DATE", "SIZE", "NOTARIZED", "OFFERED", "WEBSITE");
        for (const auto& m : releases) {
            const auto notarized = m.wasNotarized ? (*m.wasNotarized ? "yes" : "no") : "unknown";
            const auto offered = m.withdrawnAt                ? std::string("withdrawn")
                                 : m.feedControls.isDefault() ? std::string("everyone")
                                                              : m.feedControls.summary();
            context.out << fmt::format("{:<12} {:<8} {:<20} {:>9}  {:<9}  {:<24}  {}\n", m.version,
                                       m.buildNumber, m.releaseDate.iso8601(),
                                       formatSize(m.dmgFileSize), notarized, offered,
                                       websiteStatusText(m.websitePublication));
        }
    });
}

} // namespace

void addProfileCommands(CLI::App& app, CliContext& context) {
    auto* profile =
        app.add_subcommand("profile", "Create, list, show, change and delete project profiles");
    profile->require_subcommand(1);
    addCreate(*profile, context);
    addList(*profile, context);
    addShow(*profile, context);
    addDelete(*profile, context);
    addSet(*profile, context);
    addCheck(*profile, context);
    addReleases(app, context);
}

} // namespace veltra::cli
