#include "TestSupport.h"
#include "cli/VeltraRun.h"
#include "core/support/FileUtilities.h"

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
    EXPECT_EQ(none.output, "No signing identity names a team.\n");
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
    EXPECT_NE(readFile(dir / "tools.log").find("--password\nabcd-efgh-ijkl-mnop\n"),
              std::string::npos);
    EXPECT_EQ(runVeltra({"notary", "check", "acme"}, env).output,
              "Connected to Apple Notary ('acme' active in Keychain)\n");

    auto silentEnv = env;
    silentEnv["VELTRA_FAKE_NOTARY"] = "silent";
    EXPECT_EQ(runVeltra({"notary", "check", "acme"}, silentEnv).errorOutput,
              "Error: notarytool could not use this profile.\nnotarytool returned no "
              "diagnostic.\n");

    testing::writeFile(dir / "Acme.dmg", "image");
    const auto accepted =
        runVeltra({"notarize", (dir / "Acme.dmg").string(), "--profile", "acme"}, env);
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

} // namespace
} // namespace veltra
