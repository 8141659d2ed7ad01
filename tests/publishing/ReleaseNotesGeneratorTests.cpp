#include "GitFixture.h"
#include "core/publishing/ReleaseNotesGenerator.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using Lines = std::vector<std::string>;

TEST(ReleaseNotes, SubjectsBecomeLabelledBullets) {
    struct Row {
        const char* subject;
        std::optional<std::string> bullet;
    };
    for (const auto& row : {
             Row{"feat(ui): dark mode", "- **New**: dark mode"},
             Row{"feat: sync", "- **New**: sync"},
             Row{"feature: x", "- **New**: feature: x"},
             Row{"fix: crash on launch", "- **Fix**: crash on launch"},
             Row{"Fix typo", "- **Update**: Fix typo"},
             Row{"perf(db):   faster start", "- **Performance**: faster start"},
             Row{"refactor: engine", "- **Improvement**: engine"},
             Row{"style: spacing", "- **Polish**: spacing"},
             Row{"docs(readme): install", "- **Polish**: install"},
             Row{"  Add export  ", "- **Update**: Add export"},
             Row{"Merge branch 'x'", std::nullopt},
             Row{"Bump version to 1.2", std::nullopt},
             Row{"Release 1.2", std::nullopt},
             Row{"Released on time", "- **Update**: Released on time"},
             Row{"chore(deps): update", std::nullopt},
             Row{"   ", std::nullopt},
         }) {
        SCOPED_TRACE(row.subject);
        EXPECT_EQ(ReleaseNotesGenerator::bullet(row.subject), row.bullet);
    }
    EXPECT_EQ(
        ReleaseNotesGenerator::compose("Merge x\nchore: y\nBump version\n", "Acme 1.2").markdown,
        "# What's New in Acme 1.2\n\n- **General Improvements**: Performance "
        "optimizations and stability refinements.");
}

TEST(ReleaseNotes, ReadsTheLastTenSubjectsOfTheRepository) {
    testing::TempDir dir;
    const auto repo = dir / "app";
    std::filesystem::create_directories(repo / "Sources");
    testing::git(repo, {"init", "--quiet", "--initial-branch=main"});
    for (int i = 1; i <= 11; ++i) {
        const auto file = i % 2 == 0 ? "Sources/a.swift" : "README.md";
        testing::writeFile(repo / file, std::to_string(i));
        testing::git(repo, {"add", file});
        testing::git(repo, {"commit", "--quiet", "-m", "feat: change " + std::to_string(i)});
    }
    Lines log;
    const auto notes = ReleaseNotesGenerator().generate(
        repo, std::nullopt, "Acme 1.2.3", [&log](const std::string& line) { log.push_back(line); });
    std::string expected = "# What's New in Acme 1.2.3\n\n";
    for (int i = 11; i >= 2; --i) {
        expected += "- **New**: change " + std::to_string(i) + (i > 2 ? "\n" : "");
    }
    EXPECT_EQ(notes, expected) << "the 11th commit is never read";
    EXPECT_EQ(log, (Lines{"Generating release notes from git history for Acme 1.2.3",
                          "Success: Release notes generated (10 items)"}));

    // Limited to a path: only its commits.
    const auto sources = ReleaseNotesGenerator().generate(repo, "Sources", "Acme 1.2.3");
    EXPECT_NE(sources.find("\n\n- **New**: change 10\n- **New**: change 8\n"), std::string::npos)
        << sources;
    EXPECT_EQ(std::count(sources.begin(), sources.end(), '\n'), 2 + 4);
}

TEST(ReleaseNotes, NoHistoryGivesTheGeneralBulletAndSaysWhy) {
    testing::TempDir dir;
    std::filesystem::create_directories(dir / "plain");
    std::filesystem::create_directories(dir / "empty");
    testing::git(dir / "empty", {"init", "--quiet"});
    for (const auto& folder : {dir / "plain", dir / "empty", dir / "missing"}) {
        SCOPED_TRACE(folder.filename().string());
        Lines log;
        const auto notes = ReleaseNotesGenerator().generate(
            folder, std::nullopt, "Acme 1.0",
            [&log](const std::string& line) { log.push_back(line); });
        EXPECT_EQ(notes, "# What's New in Acme 1.0\n\n- **General Improvements**: Performance "
                         "optimizations and stability refinements.");
        ASSERT_EQ(log.size(), 3u);
        EXPECT_TRUE(log[1].starts_with("Info: No git history to draft notes from: ")) << log[1];
        EXPECT_EQ(log[2], "Success: Release notes generated (1 items)");
    }
}

} // namespace
} // namespace veltra
