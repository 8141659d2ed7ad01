#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"
#include "core/xcode/VersionManager.h"

#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::runVeltra;

TEST(VersionCommand, ShowSetAndCheck) {
    testing::TempDir dir;
    std::filesystem::copy(std::string(VELTRA_FIXTURES_DIR) + "/xcode/osxspell", dir.path(),
                          std::filesystem::copy_options::recursive);
    testing::writeFile(dir / "appcast.xml",
                       "<rss><channel><item><sparkle:shortVersionString>1.2"
                       "</sparkle:shortVersionString><sparkle:version>9</sparkle:version></item>"
                       "</channel></rss>");
    const auto feed = (dir / "appcast.xml").string();
    const auto shown = runVeltra({"version", "show", dir.path().string(), "--appcast", feed});
    EXPECT_EQ(shown.output, "Version:              1.1.0b1\n"
                            "Build:                1\n"
                            "Last published:       1.2 (build 9)\n"
                            "Next suggested build: 10\n");

    const auto set =
        runVeltra({"version", "set", dir.path().string(), "--version", "1.3", "--build", "10"});
    EXPECT_EQ(set.exitCode, 0) << set.errorOutput;
    EXPECT_EQ(set.output,
              "Info: Version notice: the project declares its version as 1.1.0b1, which is left "
              "as it is (only plain numbers are rewritten); the archive is still built as "
              "version 1.3\n"
              "Added build to 4 build settings blocks.\n"
              "Version left as it is, build added.\n");
    EXPECT_NE(runVeltra({"version", "show", dir.path().string(), "--json"})
                  .output.find("\"currentBuild\": 10,"),
              std::string::npos);

    const auto blocked = runVeltra({"version", "check", dir.path().string(), "--version", "1.3",
                                    "--build", "9", "--appcast", feed});
    EXPECT_EQ(blocked.exitCode, 3) << "a check said no";
    EXPECT_EQ(blocked.output, "Blocker: Sparkle Update Will Be Ignored\nBuild 9 is ≤ highest "
                              "known published build (9 (v1.2)). Sparkle clients already on "
                              "build 9 will ignore this release. Set build to at least 10.\n");
    const auto fine = runVeltra({"version", "check", dir.path().string(), "--version", "1.3",
                                 "--build", "11", "--appcast", feed, "--json"});
    EXPECT_EQ(fine.exitCode, 0);
    EXPECT_EQ(fine.output, "{\n  \"severity\": \"none\",\n  \"title\": null,\n  \"message\": "
                           "null,\n  \"recommendedBuild\": null,\n  \"recommendedVersion\": "
                           "null\n}\n");

    EXPECT_EQ(runVeltra({"version", "bump", "1.2b.3", "--patch"}).output, "1.3.1\n");
    EXPECT_EQ(runVeltra({"version", "bump", "1.2.3"}).exitCode, 2);
    const auto nowhere = runVeltra({"version", "set", (dir / "none").string(), "--build", "3"});
    EXPECT_EQ(nowhere.errorOutput,
              "Error: No Xcode project found at " + (dir / "none").string() + ".\n");
}

// A version is data: it never adds a build setting to the project.
TEST(VersionCommand, VersionsThatWouldChangeTheProjectFileAreRefused) {
    testing::TempDir dir;
    std::filesystem::copy(std::string(VELTRA_FIXTURES_DIR) + "/xcode/osxspell", dir.path(),
                          std::filesystem::copy_options::recursive);
    const auto project = VersionManager::projectFile(dir.path());
    ASSERT_TRUE(project);
    const auto before = readFile(*project);
    for (const std::string& version :
         {std::string("1.0; OTHER_LDFLAGS = \"-framework Evil\""), std::string("1.0\n"),
          std::string("\"1.0\""), std::string(), std::string(65, '1')}) {
        const auto refused =
            runVeltra({"version", "set", dir.path().string(), "--version", version});
        EXPECT_EQ(refused.exitCode, 1) << version;
        EXPECT_EQ(refused.errorOutput,
                  "Error: '" + version +
                      "' is not a valid version: use digits, letters, '.', '-' and '+', at most 64 "
                      "characters (for example 1.2.3).\n");
        EXPECT_EQ(readFile(*project), before);
    }

    // A version to bump starts with its numbers; a missing project is not version 1.0.0.
    const auto bumped = runVeltra({"version", "bump", "abc", "--patch"});
    EXPECT_EQ(bumped.exitCode, 1);
    EXPECT_EQ(bumped.errorOutput, "Error: 'abc' is not a version to bump: it starts with its "
                                  "numbers (for example 1.2.3).\n");
    EXPECT_EQ(runVeltra({"version", "bump", "1.2.3", "--patch"}).output, "1.2.4\n");
    for (const auto& arguments :
         {std::vector<std::string>{"version", "show", (dir / "nope").string()},
          std::vector<std::string>{"version", "check", (dir / "nope").string(), "--version", "1.0",
                                   "--build", "2"}}) {
        const auto missing = runVeltra(arguments);
        EXPECT_EQ(missing.exitCode, 1);
        EXPECT_EQ(missing.errorOutput,
                  "Error: No Xcode project or workspace at " + (dir / "nope").string() + ".\n");
    }

    // '+' is written quoted, as an old-style property list needs it.
    auto text = std::string("MARKETING_VERSION = 1.0;\n");
    VersionManager::applyToText(text, "2.0-beta+7", std::nullopt);
    EXPECT_EQ(text, "MARKETING_VERSION = \"2.0-beta+7\";\n");
}

} // namespace
} // namespace veltra
