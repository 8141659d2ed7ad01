#include "Commands.h"
#include "OpenStore.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/support/FileUtilities.h"

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

} // namespace

void addSparkleCommands(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("sparkle", "Sparkle update keys");
    group->require_subcommand(1);
    auto* keys = group->add_subcommand(
        "keys", "Make, show, export and import the Ed25519 key that signs updates");
    keys->require_subcommand(1);
    addGenerate(*keys, context);
    addShow(*keys, context);
    addExport(*keys, context);
    addImport(*keys, context);
}

} // namespace veltra::cli
