#include "TestSupport.h"
#include "core/process/ProcessExecutionError.h"
#include "core/process/ProcessRunner.h"
#include "core/profile/ProfileStore.h"
#include "core/records/ReleaseCompletion.h"
#include "core/support/FileUtilities.h"
#include "core/support/ManualClockQueue.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <chrono>
#include <random>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::TempDir;

class ProfileStoreTest : public ::testing::Test {
protected:
    std::vector<ProjectProfile> fileProfiles() {
        return profilesFromJson(parseJson(readFile(file)));
    }

    TempDir dir;
    std::filesystem::path file = dir / "profiles.json";
    ManualClockQueue queue;
    NotificationCenter notifications{queue};
};

ReleaseManifest manifest(const std::string& appName, const std::string& version) {
    ReleaseManifest m;
    m.appName = appName;
    m.version = version;
    m.buildNumber = "1";
    m.sha256Checksum = "00";
    return m;
}

TEST_F(ProfileStoreTest, TenQuickEditsCostAtMostTwoWritesAndKeepTheNewest) {
    ProfileStore store(queue, notifications, file);
    auto profile = ProjectProfile::create("Foo", "com.example.foo");
    store.add(profile);
    for (int i = 1; i < 10; ++i) {
        profile.name = "Foo " + std::to_string(i);
        store.update(profile);
    }
    store.flush();
    EXPECT_LE(store.persistence()->writeCount(), 2);
    ASSERT_EQ(fileProfiles().size(), 1u);
    EXPECT_EQ(fileProfiles()[0].name, "Foo 9");

    // A new store reads back what the old one wrote, paths in standard form.
    profile.sourceProjectPath = "~/src//Foo/./App/../Foo.xcodeproj/";
    store.update(profile);
    store.flush();
    ProfileStore reopened(queue, notifications, file);
    ASSERT_EQ(reopened.profiles().size(), 1u);
    EXPECT_EQ(reopened.profiles()[0].sourceProjectPath, "~/src/Foo/Foo.xcodeproj");
    EXPECT_EQ(reopened.selectedProfileID(), profile.id);
    EXPECT_FALSE(reopened.loadProblem());
}

TEST_F(ProfileStoreTest, MemoryOnlyStoreTouchesNoFile) {
    ProfileStore store(queue, notifications, "/dev/null");
    EXPECT_TRUE(store.isMemoryOnly());
    store.add(ProjectProfile::create("Foo", "com.example.foo"));
    store.flush();
    EXPECT_EQ(store.profiles().size(), 1u);
    struct stat info {};
    ASSERT_EQ(::stat("/dev/null", &info), 0);
    EXPECT_TRUE(S_ISCHR(info.st_mode));
}

TEST_F(ProfileStoreTest, UnreadableFileIsKeptAsideAndNeverWrittenOver) {
    struct Row {
        const char* name;
        std::string contents;
        const char* reason;
    };
    const std::vector<Row> rows{
        {"not JSON", "[{\"id\": broken", "profiles: not valid JSON"},
        {"a profile missing a key", R"([{"id":"5B0E1F2A-9C3D-4E5F-8A7B-6C5D4E3F2A1B"}])",
         "profiles[0].name: missing"},
    };
    const auto copies = [&] {
        std::vector<std::filesystem::path> aside;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            if (entry.path().filename().string().starts_with("profiles.json.unreadable-")) {
                aside.push_back(entry.path());
            }
        }
        return aside;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directories(dir.path());
        testing::writeFile(file, row.contents);
        for (int opening = 0; opening < 3; ++opening) {
            ProfileStore store(queue, notifications, file);
            EXPECT_TRUE(store.profiles().empty());
            ASSERT_TRUE(store.loadProblem());
            ASSERT_EQ(copies().size(), 1u) << "one copy per broken content";
            const auto& problem = *store.loadProblem();
            EXPECT_TRUE(problem.starts_with("The profile file " + file.string() +
                                            " could not be read (" + row.reason))
                << problem;
            EXPECT_TRUE(problem.ends_with("). A copy is kept as " + copies()[0].string() +
                                          ". Fix the file or move it away; until then Veltra "
                                          "changes nothing in it."))
                << problem;
            store.add(ProjectProfile::create("New", "com.example.new"));
            store.flush();
            EXPECT_EQ(readFile(file), row.contents);
        }
        EXPECT_EQ(readFile(copies()[0]), row.contents);
        EXPECT_EQ(std::filesystem::status(copies()[0]).permissions(),
                  std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        testing::writeFile(file, row.contents + " ");
        ProfileStore changed(queue, notifications, file);
        EXPECT_EQ(copies().size(), 2u) << "other broken content, another copy";
    }

    // Broken by someone else after it was read: the save refuses and the file stays.
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    ProfileStore store(queue, notifications, file);
    auto profile = ProjectProfile::create("Foo", "com.example.foo");
    store.add(profile);
    store.flush();
    testing::writeFile(file, "{broken");
    profile.name = "Bar";
    store.update(profile);
    store.flush();
    const auto error = store.persistence()->lastError();
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->ends_with(
        "Fix the file or move it away; until then Veltra changes nothing in it. This change was "
        "not saved."))
        << *error;
    EXPECT_EQ(readFile(file), "{broken");
    EXPECT_EQ(copies().size(), 1u);
}

// Two stores on one file stand for two Veltra processes: each save keeps the other's changes.
TEST_F(ProfileStoreTest, SavesKeepOtherStoresChangesAndUnknownFields) {
    auto foo = ProjectProfile::create("Foo", "com.example.foo");
    auto bar = ProjectProfile::create("Bar", "com.example.bar");
    auto json = profilesToJson({foo, bar});
    // Written by a newer version.
    json[0]["futureField"] = Json::array({1, 2});
    json[0]["webDeploy"]["cdnZone"] = "eu";
    json[1]["recentReleases"] = Json::array({manifest("Bar", "1.0").toJson()});
    json[1]["recentReleases"][0]["futureReleaseField"] = true;
    testing::writeFile(file, dumpJson(json));

    ProfileStore first(queue, notifications, file);
    ProfileStore second(queue, notifications, file);
    foo.name = "Foo renamed";
    first.update(foo);
    first.flush();
    auto secondBar = *second.find(bar.id);
    secondBar.sparkle.minimumSystemVersion = "14.0";
    second.update(secondBar);
    second.recordRelease(manifest("Foo", "2.0"), foo.id);
    second.add(ProjectProfile::create("Baz", "com.example.baz"));
    second.flush();
    // The first store never saw the second's edits; its next save must not undo them.
    foo.notarization.enabled = true;
    first.update(foo);
    first.remove(bar.id);
    first.flush();

    const auto saved = parseJson(readFile(file));
    const auto profiles = profilesFromJson(saved);
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_EQ(profiles[0].name, "Foo renamed");
    EXPECT_TRUE(profiles[0].notarization.enabled);
    ASSERT_TRUE(profiles[0].recentReleases);
    EXPECT_EQ(profiles[0].recentReleases->at(0).version, "2.0");
    EXPECT_EQ(profiles[1].name, "Baz");
    EXPECT_EQ(saved[0]["futureField"], Json::array({1, 2}));
    EXPECT_EQ(saved[0]["webDeploy"]["cdnZone"], "eu");

    // A newer version's field inside a release survives a change of that release.
    testing::writeFile(file, dumpJson(json));
    ProfileStore third(queue, notifications, file);
    auto thirdBar = *third.find(bar.id);
    thirdBar.recentReleases->at(0).releaseNotes = "Fixed";
    third.update(thirdBar);
    third.flush();
    const auto release = parseJson(readFile(file))[1]["recentReleases"][0];
    EXPECT_EQ(release["releaseNotes"], "Fixed");
    EXPECT_EQ(release["futureReleaseField"], true);
}

TEST_F(ProfileStoreTest, FinishedReleasesAreRecordedNewestFirst) {
    ProfileStore store(queue, notifications, file);
    auto foo = ProjectProfile::create("Foo", "com.example.foo");
    auto bar = ProjectProfile::create("Bar", "com.example.bar");
    store.add(foo);
    store.add(bar);
    int changes = 0;
    store.setChangeObserver([&] { ++changes; });

    notifications.post(releaseCompletedNotification,
                       ReleaseCompletion{manifest("Bar", "1.0"), std::nullopt});
    notifications.post(releaseCompletedNotification,
                       ReleaseCompletion{manifest("Bar", "1.1"), std::nullopt});
    notifications.post(releaseCompletedNotification,
                       ReleaseCompletion{manifest("Renamed", "2.0"), foo.id});
    EXPECT_EQ(changes, 0) << "recorded off the main queue";
    queue.runPending();
    EXPECT_EQ(changes, 3);

    const auto* recordedBar = store.find(bar.id);
    ASSERT_TRUE(recordedBar->recentReleases);
    ASSERT_EQ(recordedBar->recentReleases->size(), 2u);
    EXPECT_EQ(recordedBar->recentReleases->at(0).version, "1.1");
    EXPECT_TRUE(recordedBar->hasCompletedInitialSetup);
    EXPECT_EQ(store.find(foo.id)->recentReleases->at(0).version, "2.0");
    EXPECT_FALSE(store.recordRelease(manifest("Nobody", "1"), std::nullopt));

    store.flush();
    EXPECT_EQ(fileProfiles().at(1).recentReleases->size(), 2u);

    // Deleting the selected profile selects the first one left.
    store.select(bar.id);
    store.remove(bar.id);
    EXPECT_EQ(store.selectedProfileID(), foo.id);
}

TEST_F(ProfileStoreTest, InspectorReportsFoldersAndFeedAddress) {
    auto profile = ProjectProfile::create("Foo", "com.example.foo");
    std::filesystem::create_directories(dir / "site");
    testing::writeFile(dir / "Foo.xcodeproj", "");
    profile.sourceProjectPath = (dir / "Foo.xcodeproj").string();
    profile.webDeploy.websiteRepoPath = (dir / "site").string();
    profile.webDeploy.siteURL = "https://www.example.com/";
    auto status = ProfileFileInspector().inspect(profile);
    EXPECT_TRUE(status.projectExists);
    EXPECT_TRUE(status.websiteExists);
    EXPECT_EQ(status.updaterURL, "https://www.example.com/downloads/appcast.xml");

    profile.webDeploy.websiteRepoPath = (dir / "missing").string();
    profile.webDeploy.siteURL.clear();
    status = ProfileFileInspector().inspect(profile);
    EXPECT_FALSE(status.websiteExists);
    EXPECT_FALSE(status.updaterURL);
}

// How long the writer needs, on this machine and in this build, from launch to its first complete
// save: the kills below are spread over a few times that span, so they land before, during and
// after saves however fast the disk and the build are.
std::chrono::duration<double> firstSaveTime(const std::filesystem::path& file) {
    const ProcessRunner runner;
    StopSource stop;
    const auto started = std::chrono::steady_clock::now();
    JThread writer([&] {
        try {
            runner.run(ProcessRequest{.command = PROFILE_WRITER, .arguments = {file.string()}},
                       stop.get_token());
        } catch (const CancellationError&) {
        }
    });
    const auto deadline = started + std::chrono::seconds(120);
    while (!std::filesystem::exists(file) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto elapsed = std::chrono::steady_clock::now() - started;
    stop.request_stop();
    writer.join();
    return elapsed;
}

// kill -9 in the middle of saving leaves the old file or the new one, never a broken one.
TEST(ProfilePersistence, KilledWriterNeverLeavesABrokenFile) {
    TempDir dir;
    const auto file = dir / "profiles.json";
    const auto span = firstSaveTime(dir / "calibration.json").count();
    ASSERT_TRUE(std::filesystem::exists(dir / "calibration.json")) << "the writer never saved";

    const ProcessRunner runner;
    std::mt19937 random(20261121);
    int killedWhileRunning = 0;
    int killedAfterASave = 0;
    constexpr int runs = 60;
    for (int iteration = 0; iteration < runs; ++iteration) {
        const double timeout = std::uniform_real_distribution<double>(0.0, 3.0 * span)(random);
        const bool existedBefore = std::filesystem::exists(file);
        try {
            runner.run(ProcessRequest{
                .command = PROFILE_WRITER, .arguments = {file.string()}, .timeout = timeout});
            FAIL() << "the writer stopped by itself";
        } catch (const ProcessExecutionError& error) {
            ASSERT_EQ(error.kind(), ProcessExecutionError::Kind::timedOut);
            ++killedWhileRunning;
        }
        if (!std::filesystem::exists(file)) {
            ASSERT_FALSE(existedBefore) << "a kill removed a saved file";
            continue; // killed before the first save finished: the old state, no file
        }
        ++killedAfterASave;
        SCOPED_TRACE(iteration);
        const auto profiles = profilesFromJson(parseJson(readFile(file)));
        ASSERT_EQ(profiles.size(), 40u);
        for (const auto& profile : profiles) {
            ASSERT_EQ(profile.name, profiles[0].name) << "a file mixing two saves";
        }
    }
    EXPECT_EQ(killedWhileRunning, runs);
    // Kills up to three spans in: on any machine some runs get as far as a complete file.
    EXPECT_GT(killedAfterASave, 0) << "first save took " << span << " s";
}

} // namespace
} // namespace veltra
