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
