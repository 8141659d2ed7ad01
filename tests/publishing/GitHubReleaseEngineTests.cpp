#include "AppleTools.h"
#include "core/publishing/GitHubReleaseEngine.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <mutex>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using Lines = std::vector<std::string>;

class GitHubRelease : public testing::AppleToolsTest {
protected:
    GitHubRelease() {
        testing::writeFile(dmg, "image");
        config.enabled = true;
    }

    void publish(const std::string& notes = "Bug fixes.") {
        GitHubReleaseEngine().publish(config, dmg, "Acme", "1.2.3", notes,
                                      [this](const std::string& line) {
                                          const std::lock_guard guard(lock);
                                          log.push_back(line);
                                      });
    }

    VeltraError failure() {
        try {
            publish();
        } catch (const VeltraError& error) {
            return error;
        }
        ADD_FAILURE() << "published";
        return VeltraError("", 0, "");
    }

    std::filesystem::path dmg = dir / "Acme-1.2.3.dmg";
    GitHubReleaseConfig config;
    std::mutex lock;
    Lines log;
};

TEST_F(GitHubRelease, ArgumentsInTheirFixedOrder) {
    struct Row {
        const char* name;
        std::string repo;
        bool draft;
        std::string notes;
        Lines tail;
    };
    for (const auto& row : {
             Row{"no repository", "", false, "Notes", {}},
             Row{"blank repository is passed on", "  ", false, "Notes", {"--repo", "  "}},
             Row{"draft last",
                 "acme-org/acme",
                 true,
                 "Notes",
                 {"--repo", "acme-org/acme", "--draft"}},
             Row{"empty notes", "", true, "", {"--draft"}},
         }) {
        SCOPED_TRACE(row.name);
        config.repoOwnerAndName = row.repo;
        config.createDraft = row.draft;
        Lines expected{"release", "create",      "v1.2.3",       dmg.string(),
                       "--title", "Acme v1.2.3", "--notes-file", "/n/notes.md"};
        expected.insert(expected.end(), row.tail.begin(), row.tail.end());
        EXPECT_EQ(GitHubReleaseEngine::arguments(config, dmg, "Acme", "1.2.3", "/n/notes.md"),
                  expected);
    }
    // A version given with its "v" is not stripped.
    EXPECT_EQ(GitHubReleaseEngine::arguments(config, dmg, "Acme", "v2.0", "/n")[2], "vv2.0");
}

TEST_F(GitHubRelease, PublishesThroughGhAndLogsItsAnswer) {
    config.repoOwnerAndName = "acme-org/acme";
    publish();
    EXPECT_EQ(log, (Lines{"Publishing release v1.2.3 to GitHub Releases...",
                          "https://github.com/acme-org/acme/releases/tag/v1.2.3",
                          "Success: Successfully published to GitHub Releases: v1.2.3"}));
    // The notes reach gh in a private file of their own, gone once gh is done.
    ASSERT_EQ(runsOf("gh").size(), 1U);
    const auto notesFile = runsOf("gh")[0].at(7);
    EXPECT_EQ(runsOf("gh")[0],
              GitHubReleaseEngine::arguments(config, dmg, "Acme", "1.2.3", notesFile));
    EXPECT_EQ(readFile(dir / "tools.log.notes"), "mode 600\nBug fixes.");
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(notesFile).parent_path()));

    // Notes longer than any one argument can be still arrive whole.
    const std::string longNotes(3 * 1024 * 1024, 'n');
    publish(longNotes);
    EXPECT_EQ(readFile(dir / "tools.log.notes"), "mode 600\n" + longNotes);

    log.clear();
    config.createDraft = true;
    publish();
    EXPECT_EQ(log[1],
              "https://github.com/acme-org/acme/releases/tag/untagged-1a2b3c4d5e6f7a8b9c0d");
}

TEST_F(GitHubRelease, OffMeansNothingRuns) {
    config.enabled = false;
    publish();
    EXPECT_TRUE(log.empty());
    EXPECT_TRUE(runsOf("gh").empty());
}

TEST_F(GitHubRelease, FailuresCarryGhsOwnWords) {
    struct Row {
        const char* scenario;
        bool draft;
        std::string message;
    };
    for (const auto& row : {
             Row{"tag-exists", false,
                 "GitHub release failed: a release with the same tag name already exists: "
                 "v1.2.3\n"},
             Row{"tag-exists", true,
                 "GitHub release failed: HTTP 422: Validation Failed "
                 "(https://api.github.com/repos/acme-org/acme/releases)\nRelease.tag_name already "
                 "exists\n"},
             Row{"not-logged-in", false,
                 "GitHub release failed: To get started with GitHub CLI, please run:  gh auth "
                 "login\nAlternatively, populate the GH_TOKEN environment variable with a GitHub "
                 "API authentication token.\n"},
             Row{"repo-not-found", false,
                 "GitHub release failed: HTTP 404: Not Found "
                 "(https://api.github.com/repos/acme-org/acme/releases)\n"},
         }) {
        SCOPED_TRACE(row.scenario);
        fake("VELTRA_FAKE_GH", row.scenario);
        config.createDraft = row.draft;
        const auto error = failure();
        EXPECT_EQ(error.domain(), "Veltra");
        EXPECT_EQ(error.code(), 500);
        EXPECT_EQ(error.message(), row.message);
    }
}

TEST_F(GitHubRelease, MissingGhIsNamedAndNeverRun) {
    for (const auto* folder : {"/opt/homebrew/bin", "/usr/local/bin", "/usr/bin", "/bin"}) {
        if (std::filesystem::exists(std::filesystem::path(folder) / "gh")) {
            GTEST_SKIP() << "a real gh is installed in " << folder;
        }
    }
    testing::ScopedEnvironment noStandIns("VELTRA_TOOL_PATH", "");
    testing::ScopedEnvironment path("PATH", "/nowhere");
    const auto error = failure();
    EXPECT_EQ(error.code(), 404);
    EXPECT_EQ(error.message(), "GitHub CLI ('gh') is not installed. Install via 'brew install gh' "
                               "or disable GitHub Releases in profile.");
    EXPECT_EQ(log, (Lines{"Publishing release v1.2.3 to GitHub Releases..."}));
}

} // namespace
} // namespace veltra
