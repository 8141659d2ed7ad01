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
    const auto unbuilt = runVeltra({"release", "MyApp"});
    EXPECT_EQ(unbuilt.exitCode, 1);
    EXPECT_EQ(unbuilt.output, "");
    EXPECT_EQ(unbuilt.errorOutput, "Error: 'veltra release' is not available in this build yet.\n");

    const auto usage = runVeltra({"--no-such-option"});
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_TRUE(usage.errorOutput.starts_with("Error: ")) << usage.errorOutput;
}

} // namespace
} // namespace veltra
