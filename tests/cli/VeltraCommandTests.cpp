#include "TestSupport.h"
#include "VeltraRun.h"

#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::runVeltra;

TEST(VeltraCommand, VersionAndHelp) {
    const auto version = runVeltra({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output, "veltra " VELTRA_VERSION "\n");

    const auto help = runVeltra({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* group : {"profile", "dsstore", "appcast", "sign", "version", "notes",
                              "release", "website", "dmg", "github"}) {
        EXPECT_NE(help.output.find(group), std::string::npos) << group;
    }
    EXPECT_EQ(runVeltra({}).output, help.output);
    EXPECT_NE(help.output.find("Exit status: 0 done, 1 failed, 2 usage error, 3 a check said no"),
              std::string::npos);

    // `veltra help COMMAND…` is the command's --help; placeholders say what they take.
    EXPECT_EQ(runVeltra({"help"}).output, help.output);
    const auto release = runVeltra({"help", "release"});
    EXPECT_EQ(release.exitCode, 0);
    EXPECT_EQ(release.output, runVeltra({"release", "--help"}).output);
    EXPECT_NE(release.output.find("Usage: veltra release [OPTIONS] NAME|ID"), std::string::npos);
    EXPECT_NE(release.output.find("--build BUILD "), std::string::npos);
    EXPECT_NE(release.output.find("--notes FILE "), std::string::npos);
    EXPECT_EQ(release.output.find(" TEXT"), std::string::npos) << release.output;
    EXPECT_NE(runVeltra({"help", "sparkle", "keys", "generate"})
                  .output.find("Usage: veltra sparkle keys generate"),
              std::string::npos);
}

// A close miss gets a suggestion; unexpected words are listed as typed.
TEST(VeltraCommand, UsageErrorsSuggestAndKeepTheTypedOrder) {
    const auto typo = runVeltra({"releas", "Sample"});
    EXPECT_EQ(typo.exitCode, 2);
    EXPECT_NE(typo.errorOutput.find("\nDid you mean 'release'?\n"), std::string::npos)
        << typo.errorOutput;
    EXPECT_NE(runVeltra({"sparkle", "kyes"}).errorOutput.find("Did you mean 'sparkle keys'?"),
              std::string::npos);
    EXPECT_EQ(runVeltra({"zzzzzz"}).errorOutput.find("Did you mean"), std::string::npos);
    EXPECT_TRUE(
        runVeltra({"a", "b", "c"})
            .errorOutput.starts_with("Error: The following arguments were not expected: a b c\n"));

    // With --json, a usage error is a JSON object on standard output too.
    const auto json = runVeltra({"release", "--json"});
    EXPECT_EQ(json.exitCode, 2);
    EXPECT_EQ(json.errorOutput, "");
    EXPECT_EQ(json.output,
              "{\"type\":\"error\",\"domain\":\"Usage\",\"code\":2,\"message\":\"NAME|ID is "
              "required\"}\n");
}

// Global options anywhere on the line, and a profile named the same way everywhere (the
// earlier --profile kept for scripts).
TEST(VeltraCommand, GlobalOptionsAnywhereAndOneWayToNameAProfile) {
    testing::TempDir dir;
    const auto file = (dir / "profiles.json").string();
    ASSERT_EQ(runVeltra({"profile", "create", "Acme", "--bundle-id", "com.example.acme",
                         "--profiles", file})
                  .exitCode,
              0);
    const auto layout = runVeltra({"dmg", "layout", "Acme", "--profiles", file});
    EXPECT_EQ(layout.exitCode, 0) << layout.errorOutput;
    EXPECT_EQ(runVeltra({"--profiles", file, "dmg", "layout", "--profile", "Acme"}).output,
              layout.output);
    EXPECT_EQ(runVeltra({"dmg", "layout", "--profiles", file}).errorOutput,
              "Error: NAME|ID is required\nRun 'veltra --help' for usage.\n");
    // The notarization's keychain profile is --keychain-profile.
    const auto notarize = runVeltra({"notarize", (dir / "none.dmg").string()});
    EXPECT_EQ(notarize.exitCode, 2);
    EXPECT_TRUE(notarize.errorOutput.starts_with("Error: --keychain-profile is required"))
        << notarize.errorOutput;
}

TEST(VeltraCommand, FailuresPrintErrorAndExitNonZero) {
    testing::TempDir dir;
    const auto unknown =
        runVeltra({"release", "MyApp"}, {{"VELTRA_PROFILES", (dir / "profiles.json").string()}});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_EQ(unknown.output, "");
    EXPECT_EQ(unknown.errorOutput,
              "Error: No profile named 'MyApp'. Run 'veltra profile list' to see the profiles.\n");

    const auto usage = runVeltra({"--no-such-option"});
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_TRUE(usage.errorOutput.starts_with("Error: ")) << usage.errorOutput;
}

} // namespace
} // namespace veltra
