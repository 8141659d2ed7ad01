#include "GitFixture.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/support/FileUtilities.h"

#include <fstream>

#include <gtest/gtest.h>

namespace veltra {
namespace {

std::vector<std::string> readLines(const std::filesystem::path& file) {
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(PublishingCommands, NotesPrintTheMarkdownAloneOnStandardOutput) {
    testing::TempDir dir;
    testing::git(dir.path(), {"init", "--quiet", "--initial-branch=main"});
    testing::writeFile(dir / "a", "1");
    testing::git(dir.path(), {"add", "a"});
    testing::git(dir.path(), {"commit", "--quiet", "-m", "fix(sync): lost edits"});
    const auto notes = testing::runVeltra({"notes", dir.path().string(), "--heading", "Acme 2.0"});
    ASSERT_EQ(notes.exitCode, 0) << notes.errorOutput;
    EXPECT_EQ(notes.output, "# What's New in Acme 2.0\n\n- **Fix**: lost edits\n");
    EXPECT_EQ(notes.errorOutput, "Generating release notes from git history for Acme 2.0\n"
                                 "Success: Release notes generated (1 items)\n");
}

TEST(PublishingCommands, GitHubReleaseThroughGh) {
    testing::TempDir dir;
    testing::writeFile(dir / "Acme.dmg", "image");
    testing::writeFile(dir / "notes.md", "# What's New\n\n- **Fix**: x");
    const std::map<std::string, std::string> environment{
        {"VELTRA_TOOL_PATH", VELTRA_TOOLS_DIR}, {"VELTRA_TOOL_LOG", (dir / "log").string()}};
    const auto published = testing::runVeltra(
        {"github", "release", "--dmg", (dir / "Acme.dmg").string(), "--app", "Acme", "--version",
         "2.0", "--notes", (dir / "notes.md").string(), "--repo", "o/n"},
        environment);
    ASSERT_EQ(published.exitCode, 0) << published.errorOutput;
    EXPECT_EQ(published.output, "Publishing release v2.0 to GitHub Releases...\n"
                                "https://github.com/o/n/releases/tag/v2.0\n"
                                "Success: Successfully published to GitHub Releases: v2.0\n");
    auto run = readLines(dir / "log");
    ASSERT_EQ(run.size(), 11U);
    EXPECT_TRUE(run[8].ends_with("/notes.md")) << run[8];
    run[8] = "NOTES";
    EXPECT_EQ(run, (std::vector<std::string>{"gh", "release", "create", "v2.0",
                                             (dir / "Acme.dmg").string(), "--title", "Acme v2.0",
                                             "--notes-file", "NOTES", "--repo", "o/n"}));
    EXPECT_EQ(readFile(dir / "log.notes"), "mode 600\n# What's New\n\n- **Fix**: x");

    auto failingEnvironment = environment;
    failingEnvironment["VELTRA_FAKE_GH"] = "not-logged-in";
    const auto failed =
        testing::runVeltra({"github", "release", "--dmg", (dir / "Acme.dmg").string(), "--app",
                            "Acme", "--version", "2.0"},
                           failingEnvironment);
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_EQ(failed.errorOutput,
              "Error: GitHub release failed: To get started with GitHub CLI, please run:  gh auth "
              "login\nAlternatively, populate the GH_TOKEN environment variable with a GitHub API "
              "authentication token.\n\n");
}

} // namespace
} // namespace veltra
