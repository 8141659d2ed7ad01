#include "Commands.h"
#include "OpenStore.h"
#include "core/pipeline/ProfileUpdatesSetup.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileUtilities.h"
#include "core/xcode/SparkleProjectSetup.h"

#include <memory>
#include <optional>
#include <string>

namespace veltra::cli {
namespace {

namespace fs = std::filesystem;

std::optional<fs::path> fileArgument(const std::string& file) {
    if (file.empty()) {
        return std::nullopt;
    }
    return fs::absolute(expandTilde(file));
}

void printPublicKey(CliContext& context, const std::string& publicKey) {
    context.out << "Add the SUPublicEDKey key to the Info.plist of each app that Sparkle updates "
                   "with this key:\n\n"
                << "    <key>SUPublicEDKey</key>\n"
                << "    <string>" << publicKey << "</string>\n";
}

void addGenerate(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "generate", "Make a new Ed25519 key in the login keychain (or a key file); never replaces "
                    "one");
    auto account = std::make_shared<std::string>(SparkleKeys::defaultAccount);
    auto file = std::make_shared<std::string>();
    command->add_option("--account", *account, "The keychain account naming the key")
        ->capture_default_str();
    command->add_option("--file", *file,
                        "Keep the key in this new file (0600) instead of the keychain");
    command->callback([&context, account, file] {
        const auto location = SparkleKeys::locate(*account, fileArgument(*file));
        const auto publicKey = SparkleKeys::generate(location, context.stop);
        context.out << "A new Sparkle key is kept in " << location.description() << ".\n";
        printPublicKey(context, publicKey);
    });
}

void addShow(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "show", "Print the public key (the SUPublicEDKey value) of the keychain's key or a file");
    auto account = std::make_shared<std::string>(SparkleKeys::defaultAccount);
    auto file = std::make_shared<std::string>();
    command->add_option("--account", *account, "The keychain account naming the key")
        ->capture_default_str();
    command->add_option("--file", *file, "A private key file instead of the keychain");
    command->callback([&context, account, file] {
        const auto key =
            SparkleKeys::load(SparkleKeys::locate(*account, fileArgument(*file)), context.stop);
        context.out << key.publicKeyBase64() << '\n';
    });
}

void addExport(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "export", "Write the keychain's private key to a new file (0600), e.g. for a CI secret");
    auto account = std::make_shared<std::string>(SparkleKeys::defaultAccount);
    auto file = std::make_shared<std::string>();
    command->add_option("--account", *account, "The keychain account naming the key")
        ->capture_default_str();
    command->add_option("--file", *file, "The new file")->required();
    command->callback([&context, account, file] {
        const auto target = *fileArgument(*file);
        SparkleKeys::exportToFile(SparkleKeys::locate(*account).account, target, context.stop);
        context.out << "The private key of account " << *account << " is in " << target.string()
                    << " (readable by you only). Keep it secret; delete it once it is stored "
                       "where it is needed.\n";
    });
}

void addImport(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "import", "Keep a private key file's key in the login keychain; never replaces one");
    auto account = std::make_shared<std::string>(SparkleKeys::defaultAccount);
    auto file = std::make_shared<std::string>();
    command->add_option("--account", *account, "The keychain account to keep it under")
        ->capture_default_str();
    command->add_option("--file", *file, "The private key file")->required();
    command->callback([&context, account, file] {
        const auto location = SparkleKeys::locate(*account);
        if (location.file) {
            throw failure("This machine has no keychain; use the key file itself (--file, or "
                          "sparkle.privateKeyPath in the profile).");
        }
        const auto publicKey =
            SparkleKeys::importFile(*fileArgument(*file), location.account, context.stop);
        context.out << "The key is kept in " << location.description() << ".\n";
        printPublicKey(context, publicKey);
    });
}

struct SetupOptions {
    std::string profile;
    std::string project;
    std::string scheme;
    std::string target;
    std::string feedURL;
    std::string publicKey;
    bool dryRun = false;
    bool force = false;
};

// The request from a profile, with the options given on top; or from the options alone.
SparkleSetupRequest setupRequest(CliContext& context, const SetupOptions& options) {
    SparkleSetupRequest request;
    if (!options.profile.empty()) {
        OpenStore store(context);
        const std::optional<fs::path> project =
            options.project.empty() ? std::nullopt
                                    : std::optional(fs::absolute(expandTilde(options.project)));
        request = ProfileUpdatesSetup::request(
            store.find(options.profile), context.stop, project,
            options.publicKey.empty() ? std::nullopt : std::optional(options.publicKey));
    }
    request.force = options.force;
    if (!options.project.empty()) {
        request.project = fs::absolute(expandTilde(options.project));
    }
    if (!options.scheme.empty()) {
        request.scheme = options.scheme;
    }
    if (!options.target.empty()) {
        request.target = options.target;
    }
    if (!options.feedURL.empty()) {
        request.feedURL = options.feedURL;
    }
    if (!options.publicKey.empty()) {
        request.publicKey = options.publicKey;
    }
    if (request.project.empty()) {
        throw failure("Name a profile whose source is an Xcode project, or give --project.");
    }
    if (request.feedURL.empty()) {
        throw failure("No feed address: set the profile's website (webDeploy.siteURL), or give "
                      "--feed-url.");
    }
    if (request.publicKey.empty()) {
        throw failure("No public key: give --public-key, or make a key with 'veltra sparkle keys "
                      "generate'.");
    }
    return request;
}

void addSetup(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "setup", "Set an Xcode project up for Sparkle's updates: the package on the app target, "
                 "SUFeedURL and SUPublicEDKey in its Info.plist");
    auto options = std::make_shared<SetupOptions>();
    command->add_option("NAME|ID", options->profile,
                        "The profile whose project, feed address and key to use");
    command->add_option("--project", options->project, "The .xcodeproj");
    auto* scheme =
        command->add_option("--scheme", options->scheme, "The scheme whose app target to set up");
    auto* target = command->add_option("--target", options->target, "The app target to set up");
    scheme->excludes(target);
    command->add_option("--feed-url", options->feedURL, "The SUFeedURL the app reads");
    command->add_option("--public-key", options->publicKey,
                        "The SUPublicEDKey (from 'veltra sparkle keys show')");
    command->add_flag("--dry-run", options->dryRun, "List what would change and change nothing");
    command->add_flag("--force", options->force,
                      "Replace a different SUFeedURL or SUPublicEDKey the app has");
    command->callback([&context, options] {
        const auto request = setupRequest(context, *options);
        const auto plan = SparkleProjectSetup::plan(request);
        if (plan.alreadySetUp()) {
            context.out << plan.targetName << " is already set up for updates.\n";
            return;
        }
        for (const auto& change : plan.changes) {
            context.out << (options->dryRun ? "Would: " : "") << change << '\n';
        }
        for (const auto& conflict : plan.conflicts) {
            context.err << "Warning: " << conflict << "; --force replaces it\n";
        }
        if (!plan.conflicts.empty()) {
            context.exitStatus = 1;
        }
        if (options->dryRun || plan.changes.empty()) {
            return;
        }
        SparkleProjectSetup::apply(plan);
        context.out << "\n"
                    << plan.targetName
                    << " is set up. Veltra writes no source code; to start Sparkle's updater, "
                       "add:\n\n"
                    << SparkleProjectSetup::swiftSnippet();
    });
}

} // namespace

void addSparkleCommands(CLI::App& app, CliContext& context) {
    auto* group =
        app.add_subcommand("sparkle", "Sparkle update keys, and setting a project up for updates");
    group->require_subcommand(1);
    auto* keys = group->add_subcommand(
        "keys", "Make, show, export and import the Ed25519 key that signs updates");
    keys->require_subcommand(1);
    addGenerate(*keys, context);
    addShow(*keys, context);
    addExport(*keys, context);
    addImport(*keys, context);
    addSetup(*group, context);
}

} // namespace veltra::cli
