// The pipeline shipping an already built app through the stand-ins: the step list, the log, the
// manifest and its completion notification, cancellation, failures and the post-release script.

#include "AppleTools.h"
#include "core/pipeline/PipelineManager.h"
#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/records/ReleaseCompletion.h"
#include "core/support/EventLoop.h"
#include "core/support/FileDigest.h"
#include "core/support/FileUtilities.h"
#include "core/xcode/XcodeArchiver.h"

#include <any>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class Sounds : public SystemSounds {
public:
    bool applicationIsActive() const override { return active; }
    void play(std::string_view name) override { played.emplace_back(name); }
    bool active = true;
    std::vector<std::string> played;
};

class PipelineRun : public testing::AppleToolsTest {
protected:
    PipelineRun() {
        const auto archived = XcodeArchiver().archiveAndExport(scratchProject(), "Acme",
                                                               std::nullopt, "1.4.2", 42, {});
        fs::copy(archived, app, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        fs::remove_all(archived.parent_path().parent_path());
        profile.outputDirectory = (dir / "out").string();
        fs::create_directories(dir / "tmp");
        pipeline.temporaryDirectory = dir / "tmp";
    }

    void runToTheEnd() {
        pipeline.run(ReleaseRequest{profile, app, std::nullopt});
        ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 120s));
    }

    std::vector<std::string> logText() const {
        std::vector<std::string> lines;
        for (const auto& entry : pipeline.logs()) {
            lines.push_back(entry.text);
        }
        return lines;
    }

    bool logged(const std::string& line) const {
        const auto lines = logText();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    fs::path app = dir / "Acme.app";
    ProjectProfile profile = ProjectProfile::create("Acme", "com.example.acme");
    EventLoop loop;
    NotificationCenter notifications{loop};
    Sounds sounds;
    PipelineManager pipeline{loop, notifications, &sounds};
};

TEST_F(PipelineRun, StepListsForProjectAndBuiltApp) {
    std::vector<std::string> ids;
    for (const auto& step : PipelineManager::stepList(true)) {
        ids.push_back(step.id);
        EXPECT_EQ(step.status, StepStatus::pending);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"version", "archive", "inspect", "notes", "dmg",
                                             "notarize", "sparkle", "deploy"}));
    const auto shipped = PipelineManager::stepList(false);
    ASSERT_EQ(shipped.size(), 3u);
    EXPECT_EQ(shipped[2].title, "Build Styled Retina DMG");
    auto p = profile;
    p.sourceProjectPath = "~/src/Acme/Acme.xcworkspace/";
    EXPECT_TRUE(PipelineManager::buildsFromProject(p));
    p.sourceProjectPath = "~/src/Acme/Acme.app";
    EXPECT_FALSE(PipelineManager::buildsFromProject(p));
}

TEST_F(PipelineRun, ShippingABuiltAppInspectsWritesNotesAndBuildsTheImage) {
    std::vector<ReleaseCompletion> completions;
    auto registration =
        notifications.addObserver(releaseCompletedNotification, [&](const Notification& n) {
            completions.push_back(std::any_cast<ReleaseCompletion>(n.payload));
        });
    profile.customPostScript = "echo \"$VELTRA_APP_NAME $VELTRA_VERSION $VELTRA_BUILD\"";
    runToTheEnd();
    ASSERT_FALSE(pipeline.errorMessage()) << *pipeline.errorMessage();
    const auto& steps = pipeline.steps();
    ASSERT_EQ(steps.size(), 3u);
    for (const auto& step : steps) {
        EXPECT_EQ(step.status, StepStatus::succeeded) << step.id;
        EXPECT_TRUE(step.duration) << step.id;
    }
    EXPECT_EQ(steps[0].message, "v1.4.2 (42)");
    const auto image = dir / "out" / "Acme-1.4.2.dmg";
    const auto notes = dir / "out" / "Acme-1.4.2.md";
    EXPECT_EQ(readFile(notes), "# What's New in 1.4.2\n\n- Release build for macOS.\n- "
                               "Performance and stability improvements.");
    EXPECT_TRUE(logged("Releasing Acme (Build 42)"));
    EXPECT_TRUE(logged("\n[2/6] Codesigning & Verifying Application Bundle"));
    EXPECT_TRUE(logged("   Success: Bundle ID: com.example.acme"));
    EXPECT_TRUE(logged("   Success: Release notes saved to " + notes.string()));
    EXPECT_TRUE(logged("\n[3/6] Packaging Disk Image (DMG)"));
    EXPECT_TRUE(logged("   Creating image volume 'Acme'..."));
    EXPECT_TRUE(logged("DMG:   " + image.string()));
    EXPECT_TRUE(logged("   Success: Post-release script finished: Acme 1.4.2 42"));
    std::string heavy;
    for (int i = 0; i < 53; ++i) {
        heavy += "\xE2\x94\x81";
    }
    EXPECT_TRUE(logged("\n" + heavy));

    const auto& manifest = pipeline.completedManifest();
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->version, "1.4.2");
    EXPECT_EQ(manifest->buildNumber, "42");
    EXPECT_EQ(manifest->dmgURL, image.string());
    EXPECT_EQ(manifest->dmgFileSize, static_cast<std::int64_t>(fs::file_size(image)));
    EXPECT_EQ(manifest->sha256Checksum, sha256Hex(image));
    EXPECT_EQ(manifest->sha256Checksum.size(), 64u);
    loop.runUntil([&] { return !completions.empty(); }, 60s);
    ASSERT_EQ(completions.size(), 1u);
    EXPECT_EQ(completions[0].profileID, profile.id);
    EXPECT_EQ(sounds.played, std::vector<std::string>{"Glass"});
}

TEST_F(PipelineRun, FailureMarksTheRunningStepAndLogsTheError) {
    std::vector<ReleaseNotificationEvent> events;
    auto registration = notifications.addObserver(
        std::string(ReleaseNotificationEvent::notificationName), [&](const Notification& n) {
            events.push_back(std::any_cast<ReleaseNotificationEvent>(n.payload));
        });
    fake("VELTRA_FAKE_HDIUTIL", "create-busy");
    profile.customPostScript = "exit 3";
    runToTheEnd();
    const std::string message =
        "Failed to create disk image volume: hdiutil: create failed - Resource busy";
    EXPECT_EQ(pipeline.errorMessage(), message);
    EXPECT_EQ(pipeline.failedStepID(), "dmg");
    EXPECT_EQ(pipeline.steps()[2].status, StepStatus::failed);
    EXPECT_EQ(pipeline.logs().back().text, "Error: " + message);
    EXPECT_TRUE(pipeline.logs().back().isError);
    EXPECT_FALSE(pipeline.completedManifest());
    EXPECT_EQ(sounds.played, std::vector<std::string>{"Basso"});
    loop.runUntil([&] { return !events.empty(); }, 60s);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].outcome, ReleaseNotificationEvent::Outcome::failed);

    // Nothing was built to inspect: the failure belongs to the inspect step.
    fs::remove_all(app / "Contents" / "Info.plist");
    sounds.active = false;
    runToTheEnd();
    EXPECT_EQ(pipeline.failedStepID(), "inspect");
    EXPECT_EQ(sounds.played.size(), 1u) << "no sound in the background";
}

TEST_F(PipelineRun, AFailingPostScriptIsOnlyAWarning) {
    profile.customPostScript = "echo nope >&2; exit 3";
    runToTheEnd();
    EXPECT_FALSE(pipeline.errorMessage());
    EXPECT_TRUE(pipeline.completedManifest());
    EXPECT_TRUE(logged("   Warning: Post-release script failed (exit status 3): nope"));
}

TEST_F(PipelineRun, CancellingOnceKillsTheToolAndLeavesNothingBehind) {
    fake("VELTRA_FAKE_HDIUTIL_DELAY", "60");
    pipeline.run(ReleaseRequest{profile, app, std::nullopt});
    ASSERT_TRUE(loop.runUntil(
        [&] {
            return pipeline.steps()[2].status == StepStatus::running &&
                   runsOf("hdiutil").size() >= 2;
        },
        120s));
    const auto started = std::chrono::steady_clock::now();
    pipeline.cancel();
    pipeline.cancel();
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 120s));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 60s);
    EXPECT_TRUE(pipeline.isCancelled());
    const auto lines = logText();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Stopping release pipeline..."), 1);
    EXPECT_EQ(lines.back(), "Pipeline cancelled by user.");
    EXPECT_EQ(pipeline.steps()[2].message, "Cancelled");
    EXPECT_FALSE(pipeline.errorMessage());
    EXPECT_TRUE(sounds.played.empty());
    // The attached image was detached and the work files removed.
    EXPECT_EQ(runsOf("hdiutil").back().back(), "-force");
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
    EXPECT_FALSE(fs::exists(dir / "out" / "Acme-1.4.2.dmg"));
}

} // namespace
} // namespace veltra
