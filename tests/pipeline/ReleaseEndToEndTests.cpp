// Whole releases of the sample project through the stand-ins, real git (a bare origin whose
// hook publishes into a served folder) and a real local web server.

#include "AppleTools.h"
#include "GitFixture.h"
#include "core/demo/DemoSandbox.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/pipeline/PipelineManager.h"
#include "core/pipeline/ReleaseRunRecord.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/profile/ProfileStore.h"
#include "core/support/EventLoop.h"
#include "core/support/FileLock.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/StopToken.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class ReleaseRun : public testing::AppleToolsTest {
protected:
    ReleaseRun() : sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample") {
        profile = sandbox.profile();
        fs::create_directories(dir / "tmp");
        pipeline.temporaryDirectory = dir / "tmp";
    }

    void release(std::optional<std::int64_t> build = {}, std::optional<std::string> branch = {}) {
        ReleaseRequest request;
        request.profile = profile;
        request.build = build;
        request.branch = std::move(branch);
        pipeline.run(request);
        ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    }

    bool logged(const std::string& line) const {
        for (const auto& entry : pipeline.logs()) {
            if (entry.text == line) {
                return true;
            }
        }
        return false;
    }

    const PipelineStep& step(const std::string& id) const {
        for (const auto& candidate : pipeline.steps()) {
            if (candidate.id == id) {
                return candidate;
            }
        }
        throw std::runtime_error("no step " + id);
    }

    std::string failure() const { return pipeline.errorMessage().value_or(""); }

    DemoSandbox sandbox;
    ProjectProfile profile;
    EventLoop loop;
    NotificationCenter notifications{loop};
    PipelineManager pipeline{loop, notifications};
};

// A sandbox path is data wherever it goes: its origin's hook publishes into it without running
// any of it.
TEST(DemoSandboxPath, WithShellSyntaxIsNeverRunByTheHook) {
    testing::TempDir dir;
    const auto root = dir / "d$(touch PWNED)'\"`touch TICKED`\"";
    DemoSandbox sandbox(root, fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
    // The first push went through the hook and was published into the served folder.
    EXPECT_TRUE(fs::is_regular_file(sandbox.served() / "index.html"));
    for (const auto& place : {dir.path(), root, sandbox.origin(), fs::current_path()}) {
        EXPECT_FALSE(fs::exists(place / "PWNED")) << place;
        EXPECT_FALSE(fs::exists(place / "TICKED")) << place;
    }
    EXPECT_EQ(readFile(sandbox.origin() / "hooks" / "post-receive").find(root.string()),
              std::string::npos);
}

TEST_F(ReleaseRun, EveryStepFromProjectToALiveRelease) {
    ProfileStore store(loop, notifications, dir / "profiles.json");
    store.add(profile);
    WebsitePublicationWatcher watcher(loop, store, notifications, WebsitePublicationProbe::shared(),
                                      WebsiteWatchTiming{100ms, 120s, 50ms});
    std::optional<WebsitePublicationState> finished;
    watcher.onFinish = [&](const std::string&, WebsitePublicationState state) { finished = state; };
    pipeline.watcher = &watcher;

    release(7);
    ASSERT_EQ(failure(), "");
    std::vector<std::string> statuses;
    for (const auto& s : pipeline.steps()) {
        statuses.push_back(s.id + ":" + std::string(rawValue(s.status)) + ":" + s.message);
    }
    EXPECT_EQ(statuses, (std::vector<std::string>{
                            "version:Succeeded:v1.0 (7)", "archive:Succeeded:Built Sample.app",
                            "inspect:Succeeded:v1.0 (7)", "notes:Succeeded:Saved Sample-1.0.md",
                            std::string("dmg:Succeeded:") + step("dmg").message,
                            "notarize:Skipped:Notarization skipped (Local testing mode)",
                            "sparkle:Succeeded:Signed (v1.0 (Build 7))",
                            "deploy:Succeeded:Uploaded; website publishing"}));
    EXPECT_TRUE(logged("Releasing Sample (Build 7)"));
    EXPECT_TRUE(logged("Checking the publishing branch and live feed before building..."));
    EXPECT_TRUE(logged("\n[1/6] Building Xcode Archive"));
    EXPECT_TRUE(logged("   Building current app working copy, including local project edits"));
    // The sample did not read updates: the release set it up for the sandbox's feed and key.
    EXPECT_TRUE(logged("   Ensuring Sparkle framework is integrated into Xcode project..."));
    EXPECT_TRUE(logged("   Success: Added the Sparkle package to Sample"));
    EXPECT_TRUE(logged("   Success: Set SUFeedURL in Sample/Info.plist"));
    EXPECT_TRUE(logged("   Success: Set SUPublicEDKey in Sample/Info.plist"));
    EXPECT_TRUE(logged("\n[4/6] Apple Gatekeeper Notarization"));
    EXPECT_TRUE(logged("Success: Sparkle appcast.xml updated for v1.0"));
    EXPECT_TRUE(logged("\n[6/6] Deploying Release"));

    // The project now says what was released, and xcodebuild was told the same.
    EXPECT_NE(readFile(sandbox.project() / "project.pbxproj").find("CURRENT_PROJECT_VERSION = 7;"),
              std::string::npos);
    const auto& manifest = pipeline.completedManifest();
    ASSERT_TRUE(manifest);
    EXPECT_EQ(manifest->buildNumber, "7");
    ASSERT_TRUE(manifest->sparkleSignature);
    ASSERT_TRUE(manifest->websitePublication);
    // The item names the release's own file; the stable one is the download page's.
    EXPECT_EQ(manifest->websitePublication->downloadURL,
              sandbox.siteURL() + "downloads/Sample-1.0.dmg");
    EXPECT_EQ(readFile(sandbox.served() / "downloads" / "Sample-1.0.dmg"),
              readFile(*manifest->dmgURL));
    EXPECT_EQ(manifest->websitePublication->feedURL, sandbox.siteURL() + "downloads/appcast.xml");
    // The served site has what was pushed: the very image, and a feed offering it.
    EXPECT_EQ(readFile(sandbox.served() / "downloads" / "Sample.dmg"), readFile(*manifest->dmgURL));
    EXPECT_NE(
        readFile(sandbox.served() / "downloads" / "appcast.xml").find(*manifest->sparkleSignature),
        std::string::npos);
    EXPECT_TRUE(fs::is_regular_file(sandbox.served() / "downloads" / "icon.png"));
    // The feed's notes link names the notes file the website got.
    EXPECT_EQ(manifest->notesURL, sandbox.siteURL() + "downloads/Sample-1.0.md");
    EXPECT_NE(readFile(sandbox.served() / "downloads" / "appcast.xml")
                  .find("<sparkle:releaseNotesLink>" + sandbox.siteURL() +
                        "downloads/Sample-1.0.md</sparkle:releaseNotesLink>"),
              std::string::npos);
    EXPECT_TRUE(fs::is_regular_file(sandbox.served() / "downloads" / "Sample-1.0.md"));
    EXPECT_TRUE(fs::is_regular_file(sandbox.served() / "downloads" / "Sample.md"));
    EXPECT_TRUE(std::any_of(pipeline.logs().begin(), pipeline.logs().end(), [](const auto& e) {
        return e.text.find("uploaded in") != std::string::npos;
    }));

    // The watcher follows the release until the live site serves it, in the profile too.
    ASSERT_TRUE(loop.runUntil([&] { return finished.has_value(); }, 120s));
    EXPECT_EQ(*finished, WebsitePublicationState::live);
    const auto* stored = store.find(profile.id);
    ASSERT_TRUE(stored && stored->recentReleases && !stored->recentReleases->empty());
    EXPECT_EQ(stored->recentReleases->front().websitePublication->state,
              WebsitePublicationState::live);
    // Nothing of the build is left in the work folder.
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
}

// The archive step sets the app up for updates: a dry run only says what it would change, a
// release changes it once, and an app that checks updates against another key is not released.
TEST_F(ReleaseRun, TheArchiveStepSetsTheAppUpForUpdatesOnce) {
    const auto pbxproj = sandbox.project() / "project.pbxproj";
    const auto plist = sandbox.project().parent_path() / "Sample" / "Info.plist";
    const auto before = std::vector{readFile(pbxproj), readFile(plist)};
    ReleaseRequest request;
    request.profile = profile;
    request.build = 3;
    request.dryRun = true;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Dry run: would add the Sparkle product to target Sample"));
    EXPECT_TRUE(logged("   Dry run: would set SUPublicEDKey in Sample/Info.plist"));
    EXPECT_TRUE(logged("   Info: Dry run: the app has no SUFeedURL yet; a release adds " +
                       sandbox.siteURL() + "downloads/appcast.xml"));
    EXPECT_EQ(before, (std::vector{readFile(pbxproj), readFile(plist)}));

    release(4);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Success: Added the Sparkle package to Sample"));
    EXPECT_EQ(readPropertyListDictionary(plist)["SUPublicEDKey"], sandbox.publicKey());
    const auto setUp = readFile(pbxproj);
    release(5);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Success: Sparkle already integrated"));
    EXPECT_EQ(readFile(pbxproj).find("productName = Sparkle;"),
              setUp.find("productName = Sparkle;"));

    // Signed with a key the app does not carry, the update would be refused on every Mac.
    const auto otherKey = SparklePrivateKey::createFile(dir / "other_priv");
    profile.sparkle.privateKeyPath = (dir / "other_priv").string();
    release(6);
    EXPECT_EQ(pipeline.failedStepID(), "archive");
    EXPECT_EQ(failure(), "The app would refuse this release's update: SUPublicEDKey in "
                         "Sample/Info.plist is " +
                             sandbox.publicKey() + ", not " + otherKey +
                             ". Run 'veltra sparkle setup Sample --force' to give the app this "
                             "profile's feed and key, or sign with the key it has.");
    EXPECT_EQ(readPropertyListDictionary(plist)["SUPublicEDKey"], sandbox.publicKey());
}

// Releasing a version again keeps the files the earlier release names; a cancelled image step
// leaves the image that was there.
TEST_F(ReleaseRun, AnEarlierReleasesFilesAreNeverReplaced) {
    ProfileStore store(loop, notifications, dir / "profiles.json");
    store.add(profile);
    release(7);
    ASSERT_EQ(failure(), "");
    loop.runPending();
    profile = *store.find(profile.id);
    ASSERT_TRUE(profile.recentReleases && profile.recentReleases->size() == 1U);
    const auto first = std::vector{readFile(sandbox.releases() / "Sample-1.0.dmg"),
                                   readFile(sandbox.releases() / "Sample-1.0.md")};

    release(8);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("Warning: Version 1.0 was released before (build 7); this release ships it "
                       "again as build 8."));
    EXPECT_EQ(first, (std::vector{readFile(sandbox.releases() / "Sample-1.0.dmg"),
                                  readFile(sandbox.releases() / "Sample-1.0.md")}));
    EXPECT_TRUE(fs::is_regular_file(sandbox.releases() / "Sample-1.0-8.dmg"));
    EXPECT_TRUE(fs::is_regular_file(sandbox.releases() / "Sample-1.0-8.md"));
    EXPECT_EQ(pipeline.completedManifest()->dmgURL,
              (sandbox.releases() / "Sample-1.0-8.dmg").string());
    loop.runPending();
    profile = *store.find(profile.id);

    // Cancelled while the image is being made: what is there stays, nothing half-made is left.
    const auto before = readFile(sandbox.releases() / "Sample-1.0-8.dmg");
    fake("VELTRA_FAKE_HDIUTIL_DELAY", "60");
    ReleaseRequest request;
    request.profile = profile;
    request.build = 9;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return step("dmg").status == StepStatus::running; }, 300s));
    pipeline.cancel();
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    EXPECT_EQ(readFile(sandbox.releases() / "Sample-1.0.dmg"), first[0]);
    EXPECT_EQ(readFile(sandbox.releases() / "Sample-1.0-8.dmg"), before);
    EXPECT_FALSE(fs::exists(sandbox.releases() / "Sample-1.0-9.dmg"));
    for (const auto& entry : fs::directory_iterator(sandbox.releases())) {
        EXPECT_FALSE(entry.path().filename().string().starts_with(".veltra-image-"))
            << entry.path();
    }
}

// A dry run goes through every step without changing the project, the website repository or
// its origin, says what it would publish, and records nothing.
// A profile that names no key file signs with the key Sparkle's tools keep in the keychain.
TEST_F(ReleaseRun, WithoutAKeyFileTheKeychainsKeySigns) {
    fake("VELTRA_FAKE_KEYCHAIN_DIR", (dir / "keychains").string());
    profile.sparkle.privateKeyPath.clear();
    release();
    EXPECT_EQ(failure(), "No Sparkle key for account ed25519 in the login keychain. Make "
                         "one with 'veltra sparkle keys generate'.");

    SparkleKeys::importFile(sandbox.privateKey(), "ed25519");
    release();
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Using native CryptoKit Ed25519 signer with the keychain's key (account "
                       "ed25519)"));
    const auto& manifest = *pipeline.completedManifest();
    EXPECT_EQ(manifest.sparkleSignature,
              NativeEd25519Signer::signFile(SparklePrivateKey::readFile(sandbox.privateKey()),
                                            *manifest.dmgURL)
                  .signatureBase64());
}

TEST_F(ReleaseRun, ADryRunChangesNothingAndSaysWhatItWouldPublish) {
    ProfileStore store(loop, notifications, dir / "profiles.json");
    store.add(profile);
    // A release already published: its files must come through the dry run byte for byte.
    release(4);
    ASSERT_EQ(failure(), "");
    const auto published = std::vector{readFile(sandbox.releases() / "Sample-1.0.dmg"),
                                       readFile(sandbox.releases() / "Sample-1.0.md")};
    const auto pbxproj = sandbox.project() / "project.pbxproj";
    const auto plist = sandbox.project().parent_path() / "Sample" / "Info.plist";
    const auto feed = sandbox.website() / "downloads" / "appcast.xml";
    const auto before = std::vector{readFile(pbxproj),
                                    readFile(plist),
                                    readFile(feed),
                                    testing::git(sandbox.origin(), {"rev-parse", "main"}),
                                    testing::git(sandbox.website(), {"rev-parse", "HEAD"}),
                                    testing::git(sandbox.website(), {"status", "--porcelain"})};
    profile.notarization.enabled = true;
    profile.notarization.keychainProfileName = "AC_PASSWORD";
    profile.githubRelease.enabled = true;
    profile.githubRelease.repoOwnerAndName = "acme-org/sample";
    ReleaseRequest request;
    request.profile = profile;
    request.build = 5;
    request.dryRun = true;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    ASSERT_EQ(failure(), "");
    loop.runPending();

    EXPECT_EQ(before, (std::vector{readFile(pbxproj), readFile(plist), readFile(feed),
                                   testing::git(sandbox.origin(), {"rev-parse", "main"}),
                                   testing::git(sandbox.website(), {"rev-parse", "HEAD"}),
                                   testing::git(sandbox.website(), {"status", "--porcelain"})}));
    EXPECT_EQ(readFile(sandbox.served() / "downloads" / "Sample.dmg"), published[0]);
    // xcodebuild got the build as an override; nothing was submitted or created on GitHub.
    const auto archive = runsOf("xcodebuild").back();
    EXPECT_NE(std::find(archive.begin(), archive.end(), "CURRENT_PROJECT_VERSION=5"),
              archive.end());
    for (const auto& run : runsOf("xcrun")) {
        EXPECT_EQ(std::find(run.begin(), run.end(), "submit"), run.end());
    }
    EXPECT_TRUE(runsOf("gh").empty());
    EXPECT_EQ(step("notarize").message, "Not submitted (dry run)");
    EXPECT_EQ(step("deploy").message, "Committed in a temporary clone; not pushed");
    EXPECT_TRUE(logged("  Download: " + sandbox.siteURL() +
                       "downloads/Sample-1.0.dmg (and the download page's Sample.dmg)"));
    EXPECT_TRUE(logged("  Offered:  to everyone"));
    EXPECT_TRUE(logged("  Feed:     " + sandbox.siteURL() + "downloads/appcast.xml"));
    EXPECT_TRUE(logged("  Notarize: yes, with keychain profile 'AC_PASSWORD'"));
    // The dry run's image and notes are in a temporary folder of its own, which it names.
    std::vector<fs::path> folders;
    for (const auto& entry : fs::directory_iterator(dir / "tmp")) {
        folders.push_back(entry.path());
    }
    ASSERT_EQ(folders.size(), 1U);
    const auto files = folders.front();
    EXPECT_TRUE(files.filename().string().starts_with("veltra-dryrun-files-")) << files;
    EXPECT_TRUE(logged("Dry run: the image and notes go to " + files.string()));
    EXPECT_TRUE(fs::is_regular_file(files / "Sample-1.0.dmg"));
    EXPECT_TRUE(logged("   Dry run: would run: gh release create v1.0 " +
                       (files / "Sample-1.0.dmg").string() +
                       " --title 'Sample v1.0' --notes-file " + (files / "Sample-1.0.md").string() +
                       " --repo acme-org/sample"));
    EXPECT_EQ(published, (std::vector{readFile(sandbox.releases() / "Sample-1.0.dmg"),
                                      readFile(sandbox.releases() / "Sample-1.0.md")}));
    // The manifest is there for the caller; the profile records no release.
    ASSERT_TRUE(pipeline.completedManifest());
    EXPECT_FALSE(pipeline.completedManifest()->websitePublication);
    const auto* stored = store.find(profile.id);
    ASSERT_TRUE(stored);
    ASSERT_TRUE(stored->recentReleases);
    EXPECT_EQ(stored->recentReleases->size(), 1U) << "only the real release";
    fs::remove_all(files);
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
}

// How often a tool ran with `argument` among its arguments.
std::size_t countRuns(const std::vector<std::vector<std::string>>& runs,
                      const std::string& argument) {
    return static_cast<std::size_t>(std::count_if(runs.begin(), runs.end(), [&](const auto& run) {
        return std::find(run.begin(), run.end(), argument) != run.end();
    }));
}

// Cancelled while Apple processes the image: the resumed run looks the submission up instead of
// sending the image again, and builds and signs nothing.
TEST_F(ReleaseRun, ACancelledNotarizationResumesWithoutASecondSubmission) {
    profile.notarization.enabled = true;
    profile.notarization.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    fs::create_directories(dir / "keychain");
    testing::writeFile(dir / "keychain" / "AC_PASSWORD", "stored");
    fake("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
    {
        testing::ScopedEnvironment slow("VELTRA_FAKE_NOTARY_DELAY", "30");
        ReleaseRequest request;
        request.profile = profile;
        request.build = 4;
        pipeline.run(request);
        ASSERT_TRUE(loop.runUntil(
            [&] {
                return logged("   Success: Submission ID: 3f2b8c1e-7a4d-4e9b-9c21-5d6e7f809a1b");
            },
            120s));
        pipeline.cancel();
        ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 120s));
    }
    ASSERT_TRUE(pipeline.isCancelled());
    const auto kept = ReleaseRunRecord::load(sandbox.releases());
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->notarySubmissionID, "3f2b8c1e-7a4d-4e9b-9c21-5d6e7f809a1b");
    EXPECT_EQ(kept->completedSteps,
              (std::vector<std::string>{"version", "archive", "inspect", "notes", "dmg"}));
    const auto archives = countRuns(runsOf("xcodebuild"), "archive");
    const auto signings = countRuns(runsOf("codesign"), "--sign");

    ReleaseRequest request;
    request.profile = profile;
    request.resume = true;
    // Its kept steps would skip the dry run's clone, so the deploy would reach the real site.
    request.dryRun = true;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    ASSERT_EQ(failure(), "A stopped release resumes as it was, never as a dry run.");
    ASSERT_TRUE(ReleaseRunRecord::load(sandbox.releases()));

    request.dryRun = false;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("Resuming the stopped release of Sample v1.0 (Build 4) from "
                       "'Apple Notarize'"));
    EXPECT_EQ(countRuns(runsOf("xcrun"), "submit"), 1u);
    EXPECT_EQ(countRuns(runsOf("xcrun"), "info"), 1u);
    EXPECT_EQ(countRuns(runsOf("xcodebuild"), "archive"), archives);
    EXPECT_EQ(countRuns(runsOf("codesign"), "--sign"), signings);
    EXPECT_EQ(step("archive").message, "Kept from the stopped run");
    EXPECT_EQ(step("notarize").status, StepStatus::succeeded);
    ASSERT_TRUE(pipeline.completedManifest());
    EXPECT_TRUE(pipeline.completedManifest()->wasNotarized);
    EXPECT_EQ(pipeline.completedManifest()->buildNumber, "4");
    EXPECT_FALSE(fs::exists(ReleaseRunRecord::folder(sandbox.releases())));
}

// Failed at the push: the resumed run reuses the signed app, the checked image, the signature
// and the feed, and only deploys. A changed image is refused.
TEST_F(ReleaseRun, AFailedDeployResumesWithoutRebuildingOrReSigning) {
    // The hosting service turns the push away once.
    const auto hook = sandbox.origin() / "hooks" / "pre-receive";
    testing::writeFile(hook, "#!/bin/sh\necho 'rejected for maintenance' >&2\nexit 1\n");
    fs::permissions(hook, fs::perms::owner_all);
    release(8);
    EXPECT_EQ(pipeline.failedStepID(), "deploy");
    const auto kept = ReleaseRunRecord::load(sandbox.releases());
    ASSERT_TRUE(kept);
    EXPECT_TRUE(kept->completed("sparkle"));
    EXPECT_TRUE(kept->sparkleSignature);
    fs::remove(hook);
    const auto archives = countRuns(runsOf("xcodebuild"), "archive");
    const auto signings = countRuns(runsOf("codesign"), "--sign");
    const auto signatures = runsOf("sign_update").size();

    // An image changed since: refused, and kept for another try.
    const auto image = readFile(*kept->dmg);
    testing::writeFile(*kept->dmg, image + "tampered");
    ReleaseRequest request;
    request.profile = profile;
    request.resume = true;
    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    EXPECT_EQ(failure(), "The disk image changed since the release stopped, so it cannot be "
                         "reused. Start the release again without --resume.");
    testing::writeFile(*kept->dmg, image);

    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    ASSERT_EQ(failure(), "");
    EXPECT_EQ(countRuns(runsOf("xcodebuild"), "archive"), archives);
    EXPECT_EQ(countRuns(runsOf("codesign"), "--sign"), signings);
    EXPECT_EQ(runsOf("sign_update").size(), signatures);
    EXPECT_EQ(readFile(sandbox.served() / "downloads" / "Sample.dmg"), image);
    EXPECT_FALSE(fs::exists(ReleaseRunRecord::folder(sandbox.releases())));

    pipeline.run(request);
    ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 300s));
    EXPECT_EQ(failure(), "Nothing to resume for Sample: no stopped release is kept in " +
                             ReleaseRunRecord::folder(sandbox.releases()).string() + ".");
}

TEST_F(ReleaseRun, TheSameBuildTwiceIsRefusedBeforeAnythingIsBuilt) {
    release(3);
    ASSERT_EQ(failure(), "");
    const auto archives = runsOf("xcodebuild").size();
    release(3);
    EXPECT_EQ(pipeline.failedStepID(), "preflight");
    EXPECT_NE(failure().find("3"), std::string::npos) << failure();
    EXPECT_TRUE(logged("Error: " + failure()));
    EXPECT_EQ(step("archive").status, StepStatus::pending);
    EXPECT_EQ(runsOf("xcodebuild").size(), archives);
}

TEST_F(ReleaseRun, PreflightRefusalsNameWhatToChange) {
    struct Row {
        const char* name;
        std::function<void(ProjectProfile&)> change;
        std::string message;
    };
    const std::vector<Row> rows{
        {"publishing off", [](ProjectProfile& p) { p.webDeploy.gitCommitAndPush = false; },
         "Sparkle updates are configured, but automatic website publishing is off. Enable Git "
         "commit and push so Veltra can publish and verify the appcast, or distribute the "
         "release manually."},
        {"no website repository",
         [&](ProjectProfile& p) {
             p.webDeploy.websiteRepoPath = (dir / "nowhere").string();
             // Nor a "website" folder beside the releases.
             p.outputDirectory = (dir / "elsewhere" / "releases").string();
         },
         "Sparkle updates are configured, but Veltra could not find the website repository to "
         "publish the appcast and DMG."},
        {"feed elsewhere",
         [](ProjectProfile& p) { p.webDeploy.siteURL = "https://downloads.example.org/"; },
         "The Sparkle feed URL embedded in this app (" + sandbox.siteURL() +
             "downloads/appcast.xml) does not match the appcast Veltra will deploy "
             "(https://downloads.example.org/downloads/appcast.xml). Sync the website URL with "
             "the Sparkle URL pattern before releasing."},
    };
    // An app that reads the sandbox's feed already.
    setPropertyListStrings(sandbox.project().parent_path() / "Sample/Info.plist",
                           {{"SUFeedURL", sandbox.siteURL() + "downloads/appcast.xml"}});
    const auto original = profile;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        profile = original;
        row.change(profile);
        release(4);
        EXPECT_EQ(failure(), row.message);
        EXPECT_EQ(pipeline.failedStepID(), "preflight");
        EXPECT_EQ(step("version").status, StepStatus::pending);
    }
    EXPECT_TRUE(runsOf("xcodebuild").empty());
}

// A profile written by an older version with an app name that climbs out is refused before
// anything is written anywhere.
TEST_F(ReleaseRun, AnAppNameThatLeadsOutIsRefusedFirst) {
    profile.appName = "../../x";
    const auto above = sandbox.releases().parent_path().parent_path();
    const auto before = std::distance(fs::directory_iterator(above), {});
    release(9);
    EXPECT_EQ(failure(), "The app name '../../x' cannot name release files: it holds '/' or "
                         "'\\'. Change appName in the profile.");
    EXPECT_EQ(std::distance(fs::directory_iterator(above), {}), before);
    EXPECT_TRUE(runsOf("xcodebuild").empty());
}

// A feed on the publishing branch that a release would write into but that does not read stops
// the release before anything is built, saying where it breaks.
TEST_F(ReleaseRun, ABrokenFeedStopsThePreflightSayingWhereItBreaks) {
    const auto feed = sandbox.website() / "downloads" / "appcast.xml";
    auto text = readFile(feed);
    text.erase(text.find("</channel>"), std::string_view("</channel>").size());
    testing::writeFile(feed, text);
    testing::git(sandbox.website(), {"commit", "--quiet", "-am", "Lose the channel's end"});
    testing::git(sandbox.website(), {"push", "--quiet", "origin", "main"});
    release(4);
    EXPECT_TRUE(failure().starts_with(
        "The update feed is invalid. Repair it before releasing. Reason: line "))
        << failure();
    EXPECT_EQ(pipeline.failedStepID(), "preflight");
    EXPECT_TRUE(runsOf("xcodebuild").empty());
}

// A profile whose project is not there, or is a folder, names the path it was given.
TEST_F(ReleaseRun, AMissingProjectIsNamed) {
    const auto folder = sandbox.project().parent_path();
    profile.sourceProjectPath = (folder / "Gone.xcodeproj").string();
    release(9);
    EXPECT_EQ(failure(), "No Xcode project at " + (folder / "Gone.xcodeproj").string() +
                             ". Choose the project in the profile.");
    profile.sourceProjectPath = folder.string();
    release(9);
    EXPECT_EQ(failure(), "The profile's source " + folder.string() +
                             " is not an Xcode project (.xcodeproj or .xcworkspace). Choose the "
                             "project in the profile, or give the built app.");
    EXPECT_TRUE(runsOf("xcodebuild").empty());
}

// A website repository holding the developer's own unpublished work stops the release before
// anything is built, and nothing of it leaves the machine.
TEST_F(ReleaseRun, PrivateWorkInTheWebsiteRepositoryStopsTheReleaseBeforeBuilding) {
    const auto website = sandbox.website();
    const auto originBefore = testing::git(sandbox.origin(), {"rev-parse", "main"});
    testing::writeFile(website / "draft.html", "secret plans");
    testing::git(website, {"add", "draft.html"});
    testing::git(website, {"commit", "--quiet", "-m", "WIP private draft"});
    const auto draft = testing::git(website, {"log", "-1", "--format=%h"});
    release(9);
    EXPECT_EQ(failure(),
              "The website repository at " + website.string() +
                  " has commits that origin/main does not: " + draft.substr(0, draft.size() - 1) +
                  " WIP private draft. A release publishes only its own files: push "
                  "these commits first, or move them off 'main' (for example 'git "
                  "branch drafts && git reset --keep origin/main'), then release again.");
    EXPECT_EQ(pipeline.failedStepID(), "preflight");
    testing::git(website, {"reset", "--quiet", "--keep", "HEAD~1"});

    // An edit to the download page the release would commit.
    testing::writeFile(website / "index.html", readFile(website / "index.html") + "<!-- mine -->");
    release(9);
    EXPECT_EQ(failure(), "The website repository at " + website.string() +
                             " has uncommitted changes to files the release commits: index.html. "
                             "Commit and push them, or undo them (git restore --staged "
                             "--worktree -- index.html), then release again.");
    EXPECT_TRUE(runsOf("xcodebuild").empty());
    EXPECT_EQ(testing::git(sandbox.origin(), {"rev-parse", "main"}), originBefore);
    EXPECT_FALSE(fs::exists(sandbox.releases() / "Sample-1.0.dmg"));
}

// One release per profile at a time, whoever runs it: a second one refuses before it reads
// the next build; a lock whose process is gone is taken over; other profiles release meanwhile.
TEST_F(ReleaseRun, OneReleaseOfAProfileAtATime) {
    pipeline.releaseLockFolder = dir / "locks";
    const auto lockFile = dir / "locks" / (profile.id.string() + ".lock");
    const auto projectBefore = readFile(sandbox.project() / "project.pbxproj");
    {
        auto held = FileLock::tryLock(lockFile);
        ASSERT_TRUE(held);
        held->describeHolder("process 4242, started 15:07:12");
        release(9);
        EXPECT_EQ(failure(), "Sample is already being released (process 4242, started 15:07:12).");
        EXPECT_TRUE(runsOf("xcodebuild").empty());
        EXPECT_EQ(readFile(sandbox.project() / "project.pbxproj"), projectBefore);

        // Another profile is not held up.
        const auto first = profile;
        profile.id = Uuid::random();
        release(9);
        EXPECT_EQ(failure(), "");
        profile = first;
    }

    // Held by another process, which then goes away without a word: the lock is taken over.
    StopSource stop;
    std::atomic<bool> holding = false;
    JThread other([&] {
        // -o: only flock itself holds the lock, so it is free once the runner has seen flock end
        // (its shell and sleep, killed with it, may outlive it for a moment).
        ProcessRequest request{
            .command = "flock",
            .arguments = {"-o", lockFile.string(), "sh", "-c", "echo held; sleep 60"}};
        request.onOutput = [&](std::string_view) { holding = true; };
        try {
            ProcessRunner::run(request, stop.get_token());
        } catch (const CancellationError&) {
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holding && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    release(10);
    EXPECT_TRUE(failure().starts_with("Sample is already being released (")) << failure();
    stop.request_stop();
    other.join();
    release(10);
    EXPECT_EQ(failure(), "");
}

TEST_F(ReleaseRun, SigningIdentitiesDecideNotarization) {
    fake("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
    fs::create_directories(dir / "keychain");
    testing::writeFile(dir / "keychain" / "AC_PASSWORD", "stored");
    profile.notarization.enabled = true;
    release(5);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("Success: Auto-detected Developer ID: Developer ID Application: Jane Doe "
                       "(AB12CD34EF)"));
    EXPECT_EQ(step("notarize").status, StepStatus::succeeded);
    EXPECT_EQ(step("notarize").message, "Notarized; Gatekeeper accepts it");
    EXPECT_EQ(pipeline.completedManifest()->wasNotarized, true);
    // What a Mac that downloads the release checks, asked before it was published.
    EXPECT_EQ(pipeline.completedManifest()->finalChecks,
              (std::vector<std::string>{"stapler validate: accepted",
                                        "spctl (image): accepted (Notarized Developer ID)",
                                        "spctl (app): accepted (Notarized Developer ID)"}));
    const auto assessed = runsOf("spctl");
    ASSERT_EQ(assessed.size(), 2u);
    EXPECT_EQ(assessed[0], (std::vector<std::string>{
                               "-a", "-t", "open", "--context", "context:primary-signature", "-v",
                               pipeline.completedManifest()->dmgURL.value()}));
    EXPECT_TRUE(logged("   Success: Codesigned: Yes (Developer ID)"));
    // The release re-signs the app's extension with its own entitlements.
    EXPECT_TRUE(std::ranges::any_of(runsOf("codesign"), [](const std::vector<std::string>& run) {
        return run.front() == "--force" && run.back().ends_with("Contents/PlugIns/Share.appex") &&
               std::ranges::find(run, "--entitlements") != run.end();
    }));
    // The image's signature is checked as strictly as Gatekeeper will (where it is built).
    const auto codesigns = runsOf("codesign");
    EXPECT_TRUE(std::ranges::any_of(codesigns, [&](const std::vector<std::string>& run) {
        return run.size() == 4 && run[0] == "--verify" && run[1] == "--strict" &&
               fs::path(run[3]).filename() == fs::path(assessed[0].back()).filename();
    }));

    // A Gatekeeper rejection stops the release before anything is published.
    fake("VELTRA_FAKE_SPCTL", "reject");
    release(6);
    EXPECT_EQ(pipeline.failedStepID(), "notarize");
    EXPECT_EQ(failure(), "The notarized release would not open on a Mac: spctl (image): rejected "
                         "(Unnotarized Developer ID): Apple has not notarized it; Gatekeeper will "
                         "refuse to open it. Turn on notarization for this profile and release "
                         "again.");
    EXPECT_EQ(step("deploy").status, StepStatus::pending);
    fake("VELTRA_FAKE_SPCTL", "");

    profile.notarization.signingIdentity = "Apple Development: Jane Doe (ZY98XW76VU)";
    release(6);
    ASSERT_EQ(failure(), "");
    EXPECT_EQ(step("notarize").status, StepStatus::skipped);
    EXPECT_EQ(step("notarize").message, "Notarization skipped (Development identity)");

    // Two certificates under one name: codesign is given the SHA-1 instead.
    testing::writeFile(dir / "identities",
                       "  1) 0123456789ABCDEF0123456789ABCDEF01234567 \"Developer ID "
                       "Application: Jane Doe (AB12CD34EF)\"\n"
                       "  2) FEDCBA9876543210FEDCBA9876543210FEDCBA98 \"Developer ID "
                       "Application: Jane Doe (AB12CD34EF)\"\n"
                       "     2 valid identities found\n");
    fake("VELTRA_FAKE_IDENTITIES", (dir / "identities").string());
    profile.notarization.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    release(8);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Warning: Ambiguous certificate 'Developer ID Application: Jane Doe "
                       "(AB12CD34EF)' \xE2\x80\x94 pinning to SHA-1: "
                       "0123456789ABCDEF0123456789ABCDEF01234567"));
    auto signs = runsOf("codesign");
    std::erase_if(signs, [](const auto& run) { return run.front() != "--force"; });
    ASSERT_FALSE(signs.empty());
    EXPECT_NE(std::find(signs.back().begin(), signs.back().end(),
                        "0123456789ABCDEF0123456789ABCDEF01234567"),
              signs.back().end());
}

TEST_F(ReleaseRun, AnImageThatCannotBeSignedStopsBeforeAnythingIsPublished) {
    profile.notarization.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    fake("VELTRA_FAKE_CODESIGN_FAIL", ".dmg");
    const auto feed = sandbox.website() / "downloads" / "appcast.xml";
    const auto before = fs::exists(feed) ? readFile(feed) : std::string();
    release(5);
    EXPECT_EQ(pipeline.failedStepID(), "dmg");
    EXPECT_TRUE(failure().starts_with("Could not sign the DMG: ")) << failure();
    EXPECT_EQ(fs::exists(feed) ? readFile(feed) : std::string(), before);
    EXPECT_TRUE(runsOf("xcrun").empty()) << "nothing was sent to Apple";
}

TEST_F(ReleaseRun, TheFeedNamesTheMacOSTheAppRequires) {
    fake("VELTRA_FAKE_MINIMUM_SYSTEM", "14.2");
    release(5);
    ASSERT_EQ(failure(), "");
    const auto feed = readFile(sandbox.website() / "downloads" / "appcast.xml");
    EXPECT_NE(feed.find("<sparkle:minimumSystemVersion>14.2</sparkle:minimumSystemVersion>"),
              std::string::npos);
    // The profile may raise it, never lower it.
    profile.sparkle.minimumSystemVersion = "13.0";
    release(6);
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("Warning: The profile's sparkle.minimumSystemVersion 13.0 is below the 14.2 "
                       "the app requires (LSMinimumSystemVersion); the feed names 14.2."));
    profile.sparkle.minimumSystemVersion = "15.0";
    release(7);
    ASSERT_EQ(failure(), "");
    const auto raised = readFile(sandbox.website() / "downloads" / "appcast.xml");
    EXPECT_NE(raised.find("<sparkle:minimumSystemVersion>15.0</sparkle:minimumSystemVersion>"),
              std::string::npos);
}

TEST_F(ReleaseRun, ABrokenReSignatureFailsTheInspection) {
    profile.notarization.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    fake("VELTRA_FAKE_CODESIGN_VERIFY", "broken");
    release(5);
    EXPECT_EQ(pipeline.failedStepID(), "inspect");
    EXPECT_TRUE(
        failure().starts_with("The re-signed app does not pass code signature verification: "))
        << failure();
}

TEST_F(ReleaseRun, AFailedGitHubReleaseLeavesTheReleaseStanding) {
    profile.githubRelease.enabled = true;
    profile.githubRelease.repoOwnerAndName = "jane/sample";
    fake("VELTRA_FAKE_GH", "not-logged-in");
    release(5);
    ASSERT_EQ(failure(), "");
    EXPECT_EQ(pipeline.completedManifest()->githubPublicationSucceeded, false);
    EXPECT_TRUE(std::any_of(pipeline.logs().begin(), pipeline.logs().end(), [](const auto& e) {
        return e.text.starts_with("GitHub publication failed: ");
    }));
}

TEST_F(ReleaseRun, ACommittedBranchIsBuiltFromAWorktreeThatIsRemovedAfterwards) {
    const auto app = sandbox.project().parent_path();
    testing::git(app, {"checkout", "--quiet", "-b", "release"});
    testing::git(app, {"checkout", "--quiet", "main"});
    testing::writeFile(app / "Sample" / "AppDelegate.swift", "// an edit not committed\n");
    release(5, "release");
    ASSERT_EQ(failure(), "");
    EXPECT_TRUE(logged("   Building committed app branch 'release' from a temporary worktree; "
                       "local app edits excluded"));
    const auto archive = runsOf("xcodebuild").back();
    const auto project = std::find(archive.begin(), archive.end(), "-project");
    ASSERT_NE(project, archive.end());
    EXPECT_NE(project[1].find("veltra_branch_"), std::string::npos) << project[1];
    EXPECT_FALSE(fs::exists(project[1]));
    EXPECT_EQ(testing::git(app, {"worktree", "list", "--porcelain"}).find("veltra_branch_"),
              std::string::npos);

    release(6, "no-such-branch");
    EXPECT_EQ(failure(), "The app branch 'no-such-branch' does not exist in " +
                             fs::canonical(app).string() +
                             ". Choose another branch before shipping.");

    // A branch whose project no longer shares the chosen scheme is refused; the working copy
    // falls back to the project's own scheme.
    const auto schemes = fs::path("Sample.xcodeproj") / "xcshareddata" / "xcschemes";
    testing::git(app, {"checkout", "--quiet", "-b", "renamed"});
    testing::git(
        app, {"mv", (schemes / "Sample.xcscheme").string(), (schemes / "Other.xcscheme").string()});
    testing::git(app, {"-c", "user.name=T", "-c", "user.email=t@example.com", "commit", "--quiet",
                       "-m", "Rename the scheme"});
    testing::git(app, {"checkout", "--quiet", "main"});
    release(6, "renamed");
    EXPECT_EQ(failure(), "The selected app branch does not contain the 'Sample' Xcode scheme. "
                         "Choose another branch or scheme before shipping.");
    EXPECT_EQ(pipeline.failedStepID(), "archive");
    profile.selectedScheme = "Gone";
    release(6);
    EXPECT_EQ(failure(), "");
    EXPECT_TRUE(
        logged("Info: Target scheme 'Gone' is not in the project; falling back to 'Sample'"));
}

// Cancelling while each long step runs leaves no tool running, no image attached, the feed as
// it was and no worktree.
TEST_F(ReleaseRun, CancellingDuringEachLongStepLeavesNothingBehind) {
    struct Row {
        const char* step;
        const char* variable;
    };
    const auto feed = sandbox.website() / "downloads" / "appcast.xml";
    const auto before = readFile(feed);
    profile.notarization.enabled = true;
    profile.notarization.signingIdentity = "Developer ID Application: Jane Doe (AB12CD34EF)";
    fake("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
    fs::create_directories(dir / "keychain");
    testing::writeFile(dir / "keychain" / "AC_PASSWORD", "stored");
    for (const Row row :
         {Row{"archive", "VELTRA_FAKE_ARCHIVE_DELAY"}, Row{"dmg", "VELTRA_FAKE_HDIUTIL_DELAY"},
          Row{"notarize", "VELTRA_FAKE_NOTARY_DELAY"}}) {
        SCOPED_TRACE(row.step);
        testing::ScopedEnvironment slow(row.variable, "30");
        ReleaseRequest request;
        request.profile = profile;
        request.build = 9;
        request.branch = "main";
        pipeline.run(request);
        ASSERT_TRUE(
            loop.runUntil([&] { return step(row.step).status == StepStatus::running; }, 120s));
        pipeline.cancel();
        pipeline.cancel();
        ASSERT_TRUE(loop.runUntil([&] { return !pipeline.isRunning(); }, 120s));
        EXPECT_TRUE(pipeline.isCancelled());
        EXPECT_EQ(step(row.step).message, "Cancelled");
        EXPECT_EQ(
            std::count_if(pipeline.logs().begin(), pipeline.logs().end(),
                          [](const auto& e) { return e.text == "Stopping release pipeline..."; }),
            1);
        EXPECT_TRUE(logged("Pipeline cancelled by user."));
        EXPECT_EQ(readFile(feed), before);
        EXPECT_TRUE(fs::is_empty(dir / "tmp")) << row.step;
        EXPECT_EQ(testing::git(sandbox.project().parent_path(), {"worktree", "list"})
                      .find("veltra_branch_"),
                  std::string::npos);
        // No stand-in is still running in the test's folder.
        EXPECT_EQ(ProcessRunner::run(
                      ProcessRequest{.command = "pgrep", .arguments = {"-f", dir.path().string()}})
                      .output,
                  "");
    }
}

} // namespace
} // namespace veltra
