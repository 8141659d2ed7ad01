#include "Commands.h"
#include "JsonOutput.h"
#include "LinePrinter.h"
#include "core/signing/CIKeychain.h"
#include "core/signing/CertificateScanner.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/FileUtilities.h"
#include "core/support/Secrets.h"
#include "core/support/VeltraError.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <termios.h>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra::cli {

namespace {

std::string kindOf(const SigningCertificate& certificate) {
    if (certificate.isDeveloperID) {
        return "Developer ID";
    }
    if (certificate.isDevelopment) {
        return "Development";
    }
    return certificate.isAdHoc ? "Ad-hoc" : "Other";
}

void addIdentities(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand("identities", "List the keychains' code-signing identities");
    auto json = std::make_shared<bool>(false);
    auto bestTeam = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print the identities (or the team) as JSON");
    command->add_flag("--best-team", *bestTeam,
                      "Print the team to suggest: Developer ID first, then Development");
    command->callback([&context, json, bestTeam] {
        const CertificateScanner scanner;
        if (*bestTeam) {
            const auto team = scanner.detectBestTeamInfo(context.stop);
            if (*json) {
                context.out << (team ? Json{{"teamID", team->teamID},
                                            {"accountName", orNull(team->accountName)},
                                            {"source", team->source}}
                                     : Json(nullptr))
                                   .dump(2)
                            << '\n';
            } else if (team) {
                context.out << fmt::format("{}{} (from a {} identity)\n", team->teamID,
                                           team->accountName ? ", " + *team->accountName : "",
                                           team->source);
            } else {
                context.out << "No signing identity names a team.\n";
            }
            context.exitStatus = team ? 0 : 1;
            return;
        }
        const auto scanned = scanner.scanIdentities(context.stop);
        if (!scanned) {
            throw scanned.error();
        }
        const auto& identities = *scanned;
        if (*json) {
            Json out = Json::array();
            for (const auto& certificate : identities) {
                out.push_back({{"hash", certificate.hash},
                               {"name", certificate.name},
                               {"isDeveloperID", certificate.isDeveloperID},
                               {"isDevelopment", certificate.isDevelopment},
                               {"isAdHoc", certificate.isAdHoc},
                               {"teamID", orNull(certificate.teamID)},
                               {"accountName", orNull(certificate.accountName)}});
            }
            context.out << out.dump(2) << '\n';
            return;
        }
        if (identities.empty()) {
            context.out << "No valid code-signing identities found. Sign ad-hoc, or add a "
                           "certificate in Xcode ➔ Settings ➔ Accounts.\n";
            return;
        }
        for (const auto& certificate : identities) {
            context.out << fmt::format("{}  {}  [{}{}]\n", certificate.hash, certificate.name,
                                       kindOf(certificate),
                                       certificate.teamID ? ", team " + *certificate.teamID : "");
        }
    });
}

// The app-specific password: typed without echo on a terminal, else one line of standard input.
std::string readPassword(CliContext& context) {
    std::string password;
    if (::isatty(STDIN_FILENO) == 1) {
        context.err << "App-specific password: " << std::flush;
        termios saved{};
        const bool canHide = ::tcgetattr(STDIN_FILENO, &saved) == 0;
        if (canHide) {
            termios quiet = saved;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
        std::getline(std::cin, password);
        if (canHide) {
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        }
        context.err << '\n';
    } else {
        std::getline(std::cin, password);
        // More than one line is not one password: keep it whole, so the engine refuses it.
        std::string rest;
        for (std::string line; std::getline(std::cin, line);) {
            rest += '\n' + line;
        }
        if (rest.find_first_not_of("\r\n") != std::string::npos) {
            password += rest;
        }
    }
    if (!password.empty() && password.back() == '\r') {
        password.pop_back();
    }
    if (password.empty()) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "No app-specific password given.");
    }
    return password;
}

std::string advice(NotaryFailure::Kind kind) {
    switch (kind) {
    case NotaryFailure::invalidCredentials:
        return "Apple refused the Apple ID or app-specific password. Store the credentials again "
               "with a new app-specific password from appleid.apple.com.";
    case NotaryFailure::missingProfile:
        return "No notary credentials are stored under this profile. Store them with 'veltra "
               "notary store-credentials'.";
    case NotaryFailure::connection:
        return "Apple's notary service could not be reached. Check the internet connection, then "
               "retry.";
    case NotaryFailure::unknown:
        break;
    }
    return "notarytool could not use this profile.";
}

void addNotary(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("notary", "Store and check notarization credentials");
    group->require_subcommand(1);

    auto* store = group->add_subcommand(
        "store-credentials", "Store notary credentials in a keychain profile: an Apple ID with "
                             "an app-specific password, or an App Store Connect API key");
    store->alias("store");
    struct Options {
        std::string profile, appleID, teamID, passwordVariable, key, keyID, issuer;
    };
    auto options = std::make_shared<Options>();
    store->add_option("KEYCHAIN_PROFILE", options->profile, "Keychain profile name")->required();
    store->add_option("--apple-id", options->appleID, "Apple ID (an email address)");
    store->add_option("--team-id", options->teamID, "Developer team ID");
    store->add_option("--password-env", options->passwordVariable,
                      "The environment variable holding the app-specific password (default: "
                      "typed, or one line of standard input)");
    store->add_option("--key", options->key, "App Store Connect API key file (.p8)");
    store->add_option("--key-id", options->keyID, "The API key's ID");
    store->add_option("--issuer", options->issuer, "The API key's issuer ID");
    store->callback([&context, options] {
        const auto& o = *options;
        const bool apiKey = !o.key.empty() || !o.keyID.empty() || !o.issuer.empty();
        const bool appleID = !o.appleID.empty() || !o.teamID.empty() || !o.passwordVariable.empty();
        if (apiKey == appleID ||
            (apiKey && (o.key.empty() || o.keyID.empty() || o.issuer.empty())) ||
            (appleID && (o.appleID.empty() || o.teamID.empty()))) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Give either --apple-id and --team-id (the password is typed, read "
                              "from standard input or from --password-env) or --key, --key-id "
                              "and --issuer.");
        }
        LinePrinter print(context.out);
        const auto log = [&print](const std::string& line) { print(line); };
        if (apiKey) {
            NotarizationEngine().storeAPIKeyCredentials(o.profile, expandTilde(o.key), o.keyID,
                                                        o.issuer, log, context.stop);
            return;
        }
        std::string password;
        if (!o.passwordVariable.empty()) {
            password = takeSecretFromEnvironment(o.passwordVariable).value_or("");
            if (password.empty()) {
                throw VeltraError("Veltra", errorCode::invalidSetup,
                                  "The environment variable " + o.passwordVariable +
                                      " holds no app-specific password.");
            }
        } else {
            password = readPassword(context);
        }
        NotarizationEngine().storeCredentials(o.profile, o.appleID, password, o.teamID, log,
                                              context.stop);
    });

    auto* check = group->add_subcommand("check", "Check that a keychain profile works");
    auto checked = std::make_shared<std::string>();
    check->add_option("KEYCHAIN_PROFILE", *checked, "Keychain profile name")->required();
    check->callback([&context, checked] {
        const NotarizationEngine engine;
        ProcessResult result;
        try {
            result = engine.checkCredentials(*checked, 20.0, context.stop);
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception& error) {
            result.exitCode = -1;
            result.errorOutput = error.what();
        }
        if (result.exitCode == 0) {
            context.out << "Connected to Apple Notary ('" << *checked << "' active in Keychain)\n";
            return;
        }
        auto said = combinedOutput(result);
        if (said.empty()) {
            said = "notarytool returned no diagnostic.";
        }
        throw VeltraError("Veltra", errorCode::notAuthorized,
                          advice(NotaryFailure::classify(said)) + "\n" + said);
    });
}

void addNotarize(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "notarize", "Submit a file to Apple's notary service, wait, and staple the ticket");
    auto file = std::make_shared<std::string>();
    auto profile = std::make_shared<std::string>();
    command->add_option("FILE", *file, "The .dmg, .zip or .pkg to notarize")->required();
    command->add_option("--keychain-profile", *profile,
                        "The keychain profile holding the credentials (required; notary store)");
    command->add_option("--profile", *profile)->group(""); // the earlier spelling
    command->callback([&context, file, profile] {
        if (profile->empty()) {
            throw CLI::RequiredError("--keychain-profile");
        }
        LinePrinter print(context.out);
        NotarizationEngine().notarize(
            *file, *profile, [&print](const std::string& line) { print(line); }, context.stop);
    });
}

void addKeychain(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("keychain", "A keychain of its own for a CI job");
    group->require_subcommand(1);
    auto* setup = group->add_subcommand(
        "setup", "Create and unlock a keychain, import a .p12 identity for codesign, search it");
    auto p12 = std::make_shared<std::string>();
    auto variable = std::make_shared<std::string>();
    auto name = std::make_shared<std::string>(CIKeychain::defaultName);
    setup->add_option("--p12", *p12, "The identity's .p12 file")->required();
    setup
        ->add_option("--password-env", *variable,
                     "The environment variable holding the .p12 password")
        ->required();
    setup->add_option("--keychain", *name, "The keychain's name (default veltra-ci.keychain-db)");
    setup->callback([&context, p12, variable, name] {
        // Secrets come from the environment, never from the command line, and no tool started
        // afterwards inherits the variable.
        const auto password = takeSecretFromEnvironment(*variable);
        if (!password) {
            throw VeltraError("Veltra", 1,
                              "The environment variable " + *variable +
                                  " is not set. Put the .p12 password there (for example from "
                                  "a repository secret).");
        }
        const auto identities =
            CIKeychain().setup(expandTilde(*p12), *password, *name, context.stop);
        context.out << "Keychain " << *name << " is unlocked and searched first.\n";
        if (identities.empty()) {
            context.out << "Warning: it offers no code-signing identity; check the .p12 file.\n";
            context.exitStatus = 1;
            return;
        }
        for (const auto& identity : identities) {
            context.out << "Identity: " << identity.name << " (" << identity.hash << ")\n";
        }
    });
    auto* teardown = group->add_subcommand("teardown", "Delete the keychain setup made");
    auto teardownName = std::make_shared<std::string>(CIKeychain::defaultName);
    teardown->add_option("--keychain", *teardownName,
                         "The keychain's name (default veltra-ci.keychain-db)");
    teardown->callback([&context, teardownName] {
        CIKeychain().teardown(*teardownName, context.stop);
        context.out << "Keychain " << *teardownName << " deleted.\n";
    });
}

} // namespace

void addSigningCommands(CLI::App& app, CliContext& context) {
    addIdentities(app, context);
    addNotary(app, context);
    addNotarize(app, context);
    addKeychain(app, context);
}

} // namespace veltra::cli
