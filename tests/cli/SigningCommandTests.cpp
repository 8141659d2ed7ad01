#include "TestSupport.h"
#include "cli/VeltraRun.h"
#include "core/support/FileUtilities.h"

#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

using testing::runVeltra;

std::map<std::string, std::string> standIns(std::map<std::string, std::string> more = {}) {
    more["PATH"] = std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH");
    return more;
}

TEST(IdentitiesCommand, ListsAndSuggestsATeam) {
    const auto list = runVeltra({"identities"}, standIns());
    EXPECT_EQ(list.output,
              "0123456789ABCDEF0123456789ABCDEF01234567  Developer ID Application: Jane Doe "
              "(AB12CD34EF)  [Developer ID, team AB12CD34EF]\n"
              "89ABCDEF0123456789ABCDEF0123456789ABCDEF  Apple Development: Jane Doe (ZY98XW76VU)"
              "  [Development, team ZY98XW76VU]\n");
    const auto json = nlohmann::json::parse(runVeltra({"identities", "--json"}, standIns()).output);
    EXPECT_EQ(json[1]["isDevelopment"], true);
    EXPECT_EQ(json[1]["accountName"], "Jane Doe");

    const auto best = runVeltra({"identities", "--best-team"}, standIns());
    EXPECT_EQ(best.output, "AB12CD34EF, Jane Doe (from a Developer ID identity)\n");
    const auto none =
        runVeltra({"identities", "--best-team"}, standIns({{"VELTRA_FAKE_SECURITY", "fail"}}));
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_EQ(none.output, "");
    EXPECT_EQ(
        none.errorOutput,
        "Error: Could not list the code-signing identities (security find-identity exited with 1): "
        "security: SecKeychainCopySearchList: A default keychain could not be found.\n");
}

TEST(NotaryCommand, StoresChecksAndNotarizes) {
    testing::TempDir dir;
    const auto env = standIns({{"VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string()},
                               {"VELTRA_TOOL_LOG", (dir / "tools.log").string()}});
    const auto missing = runVeltra({"notary", "check", "acme"}, env);
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.errorOutput,
              "Error: No notary credentials are stored under this profile. Store them with "
              "'veltra notary store-credentials'.\nError: No Keychain password item found for "
              "profile: acme\n");

    const auto stored = runVeltra({"notary", "store-credentials", "acme", "--apple-id",
                                   "jane@example.com", "--team-id", "AB12CD34EF"},
                                  env, "abcd-efgh-ijkl-mnop\n");
    ASSERT_EQ(stored.exitCode, 0) << stored.errorOutput;
    EXPECT_EQ(stored.output, "Storing notarization credentials in macOS Keychain...\nSuccess: "
                             "Credentials stored under profile 'acme'\n");
    EXPECT_EQ(readFile(dir / "keychain" / "acme.secret"), "abcd-efgh-ijkl-mnop\n");
    EXPECT_EQ(readFile(dir / "tools.log").find("abcd-efgh-ijkl-mnop"), std::string::npos);
    EXPECT_EQ(runVeltra({"notary", "check", "acme"}, env).output,
              "Connected to Apple Notary ('acme' active in Keychain)\n");

    auto silentEnv = env;
    silentEnv["VELTRA_FAKE_NOTARY"] = "silent";
    EXPECT_EQ(runVeltra({"notary", "check", "acme"}, silentEnv).errorOutput,
              "Error: notarytool could not use this profile.\nnotarytool returned no "
              "diagnostic.\n");

    testing::writeFile(dir / "Acme.dmg", "image");
    const auto accepted =
        runVeltra({"notarize", (dir / "Acme.dmg").string(), "--keychain-profile", "acme"}, env);
    EXPECT_EQ(accepted.exitCode, 0) << accepted.errorOutput;
    EXPECT_TRUE(accepted.output.ends_with(
        "   Success: Gatekeeper ticket successfully stapled to Acme.dmg\n"));

    auto invalidEnv = env;
    invalidEnv["VELTRA_FAKE_NOTARY"] = "invalid";
    const auto invalid =
        runVeltra({"notarize", (dir / "Acme.dmg").string(), "--profile", "acme"}, invalidEnv);
    EXPECT_EQ(invalid.exitCode, 1);
    EXPECT_TRUE(
        invalid.errorOutput.starts_with("Error: Notarization failed or was marked Invalid:\n"));

    const auto noPassword = runVeltra(
        {"notary", "store-credentials", "acme", "--apple-id", "j", "--team-id", "T"}, env, "");
    EXPECT_EQ(noPassword.exitCode, 1);
    EXPECT_EQ(noPassword.errorOutput, "Error: No app-specific password given.\n");
}

std::vector<std::vector<std::string>> readRuns(const std::filesystem::path& log) {
    std::vector<std::vector<std::string>> runs;
    std::istringstream in(std::filesystem::exists(log) ? readFile(log) : "");
    for (std::string line; std::getline(in, line);) {
        if (line == "security") {
            runs.emplace_back();
        } else if (!runs.empty()) {
            runs.back().push_back(line);
        }
    }
    return runs;
}

// security's runs in order, each `security -i` replaced by the command it read.
std::vector<std::vector<std::string>> securityRuns(const std::filesystem::path& dir) {
    auto runs = readRuns(dir / "tools.log");
    const auto interactive = readRuns(dir / "tools.log.stdin");
    std::size_t next = 0;
    for (auto& run : runs) {
        if (run == std::vector<std::string>{"-i"} && next < interactive.size()) {
            run = interactive[next++];
        }
    }
    return runs;
}

// A CI job's keychain: made, unlocked, holding the identity for codesign, searched first, and
// gone again after teardown; the passwords never show.
TEST(KeychainCommand, SetsUpForCodesignAndTearsDown) {
    testing::TempDir dir;
    testing::writeFile(dir / "cert.p12", "p12");
    auto env = standIns({{"VELTRA_FAKE_KEYCHAIN_DIR", (dir / "keychains").string()},
                         {"VELTRA_TOOL_LOG", (dir / "tools.log").string()},
                         {"HOME", dir.path().string()},
                         {"CERT_PASSWORD", "secret"}});
    const auto setup = {std::string("keychain"),       std::string("setup"),
                        std::string("--p12"),          (dir / "cert.p12").string(),
                        std::string("--password-env"), std::string("CERT_PASSWORD")};

    const auto made = runVeltra(setup, env);
    ASSERT_EQ(made.exitCode, 0) << made.errorOutput;
    EXPECT_EQ(made.output, "Keychain veltra-ci.keychain-db is unlocked and searched first.\n"
                           "Identity: Developer ID Application: CI Runner (AB12CD34EF) "
                           "(0123456789ABCDEF0123456789ABCDEF01234567)\n");
    EXPECT_EQ(readFile(dir / "keychains" / "search-list"),
              "veltra-ci.keychain-db\n" + (dir / "Library/Keychains/login.keychain-db").string() +
                  "\n");
    // The steps in order, those carrying a password read by `security -i` from standard input;
    // one random keychain password for all of them.
    const auto runs = securityRuns(dir.path());
    std::vector<std::string> steps;
    for (const auto& run : runs) {
        steps.push_back(run.front());
    }
    EXPECT_EQ(steps,
              (std::vector<std::string>{"create-keychain", "set-keychain-settings",
                                        "unlock-keychain", "import", "set-key-partition-list",
                                        "list-keychains", "list-keychains", "find-identity"}));
    const auto keychainPassword = runs[0][2];
    EXPECT_EQ(keychainPassword.size(), 48u);
    EXPECT_EQ(runs[2][2], keychainPassword);
    EXPECT_EQ(runs[4], (std::vector<std::string>{"set-key-partition-list", "-S",
                                                 "apple-tool:,apple:,codesign:", "-s", "-k",
                                                 keychainPassword, "veltra-ci.keychain-db"}));
    EXPECT_EQ(made.output.find("secret"), std::string::npos);
    EXPECT_EQ(made.output.find(keychainPassword), std::string::npos);

    // Setting up again while it exists fails with security's words.
    const auto twice = runVeltra(setup, env);
    EXPECT_EQ(twice.exitCode, 1);
    EXPECT_NE(twice.errorOutput.find("A keychain with the same name already exists."),
              std::string::npos);

    const auto removed = runVeltra({"keychain", "teardown"}, env);
    ASSERT_EQ(removed.exitCode, 0) << removed.errorOutput;
    EXPECT_EQ(removed.output, "Keychain veltra-ci.keychain-db deleted.\n");
    EXPECT_EQ(readFile(dir / "keychains" / "search-list"),
              (dir / "Library/Keychains/login.keychain-db").string() + "\n");
    EXPECT_EQ(runVeltra({"keychain", "teardown"}, env).exitCode, 1);

    // A wrong password leaves no half-made keychain behind.
    env["CERT_PASSWORD"] = "wrong";
    const auto refused = runVeltra(setup, env);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errorOutput,
              "Error: Could not import cert.p12: security: SecKeychainItemImport: MAC "
              "verification failed during PKCS12 import (wrong password?)\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "keychains" / "veltra-ci.keychain-db"));

    env.erase("CERT_PASSWORD");
    const auto unset = runVeltra(setup, env);
    EXPECT_EQ(unset.exitCode, 1);
    EXPECT_NE(unset.errorOutput.find("The environment variable CERT_PASSWORD is not set."),
              std::string::npos);
}

// Every command that takes a secret, run with a marker secret: the marker is in no tool's
// argument list and no tool's environment, as the stand-ins saw them from /proc while running,
// and the variable that carried it is gone from every tool's environment.
TEST(Secrets, StayOffCommandLinesAndOutOfChildEnvironments) {
    testing::TempDir dir;
    const std::string marker = "MARKER-s3cr3t-4711";
    testing::writeFile(dir / "cert.p12", "p12");
    testing::writeFile(dir / "AuthKey.p8", "key");
    auto env = standIns({{"VELTRA_FAKE_KEYCHAIN_DIR", (dir / "keychains").string()},
                         {"VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string()},
                         {"VELTRA_FAKE_P12_PASSWORD", "*"},
                         {"VELTRA_TOOL_LOG", (dir / "tools.log").string()},
                         {"VELTRA_TOOL_PROC_LOG", (dir / "proc.log").string()},
                         {"HOME", dir.path().string()}});
    const auto with = [&env](const char* name, const std::string& value) {
        auto more = env;
        more[name] = value;
        return more;
    };

    const auto made = runVeltra({"keychain", "setup", "--p12", (dir / "cert.p12").string(),
                                 "--password-env", "CERT_PASSWORD"},
                                with("CERT_PASSWORD", marker));
    ASSERT_EQ(made.exitCode, 0) << made.errorOutput;
    EXPECT_EQ(runVeltra({"keychain", "teardown"}, env).exitCode, 0);
    const auto typed = runVeltra(
        {"notary", "store", "typed", "--apple-id", "jane@example.com", "--team-id", "AB12CD34EF"},
        env, marker + "\n");
    ASSERT_EQ(typed.exitCode, 0) << typed.errorOutput;
    // Two lines are refused, not cut to the first, from standard input or the environment.
    for (const auto& refused :
         {runVeltra({"notary", "store", "cut", "--apple-id", "jane@example.com", "--team-id",
                     "AB12CD34EF"},
                    env, "first\nsecond\n"),
          runVeltra({"notary", "store", "cut", "--apple-id", "jane@example.com", "--team-id",
                     "AB12CD34EF", "--password-env", "NOTARY_PASSWORD"},
                    with("NOTARY_PASSWORD", "first\nsecond"))}) {
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_NE(refused.errorOutput.find("holds a line break"), std::string::npos)
            << refused.errorOutput;
    }
    const auto fromEnvironment =
        runVeltra({"notary", "store-credentials", "env", "--apple-id", "jane@example.com",
                   "--team-id", "AB12CD34EF", "--password-env", "NOTARY_PASSWORD"},
                  with("NOTARY_PASSWORD", marker));
    ASSERT_EQ(fromEnvironment.exitCode, 0) << fromEnvironment.errorOutput;
    const auto apiKey = runVeltra({"notary", "store", "api", "--key", (dir / "AuthKey.p8").string(),
                                   "--key-id", "ABC123", "--issuer", "issuer-uuid"},
                                  env);
    ASSERT_EQ(apiKey.exitCode, 0) << apiKey.errorOutput;

    // The secrets arrived where they belong...
    EXPECT_EQ(readFile(dir / "keychain" / "typed.secret"), marker + "\n");
    EXPECT_EQ(readFile(dir / "keychain" / "env.secret"), marker + "\n");
    EXPECT_EQ(readFile(dir / "keychain" / "api.secret"), "key ABC123\n");
    EXPECT_NE(readFile(dir / "tools.log.stdin").find(marker), std::string::npos);
    // ...and nowhere anyone else can look.
    const auto proc = readFile(dir / "proc.log");
    EXPECT_NE(proc.find("== security"), std::string::npos);
    EXPECT_NE(proc.find("== xcrun"), std::string::npos);
    EXPECT_EQ(proc.find(marker), std::string::npos);
    EXPECT_EQ(proc.find("CERT_PASSWORD="), std::string::npos);
    EXPECT_EQ(proc.find("NOTARY_PASSWORD="), std::string::npos);
    EXPECT_EQ(readFile(dir / "tools.log").find(marker), std::string::npos);
    for (const auto* output : {&made, &typed, &fromEnvironment, &apiKey}) {
        EXPECT_EQ(output->output.find(marker), std::string::npos);
        EXPECT_EQ(output->errorOutput.find(marker), std::string::npos);
    }

    const auto mixed = runVeltra({"notary", "store", "x", "--apple-id", "a", "--key", "k"}, env);
    EXPECT_EQ(mixed.exitCode, 1);
    EXPECT_EQ(mixed.errorOutput,
              "Error: Give either --apple-id and --team-id (the password is typed, read from "
              "standard input or from --password-env) or --key, --key-id and --issuer.\n");
}

} // namespace
} // namespace veltra
