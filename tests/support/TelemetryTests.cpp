// Consent and the event queue: off until turned on, the environment's word wins, and a queue
// that keeps its caps, survives a torn line and drops what is too old.

#include "TestSupport.h"
#include "core/support/FileUtilities.h"
#include "core/support/Telemetry.h"

#include <fstream>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

fs::perms modeOf(const fs::path& path) {
    return fs::status(path).permissions() & fs::perms::mask;
}

TEST(TelemetrySettings, OffUntilTurnedOnAndTheEnvironmentWins) {
    testing::TempDir dir;
    std::map<std::string, std::string> variables;
    const auto environment = [&](const char* name) -> const char* {
        const auto found = variables.find(name);
        return found == variables.end() ? nullptr : found->second.c_str();
    };
    TelemetrySettings settings(dir / ".veltra", environment);
    EXPECT_FALSE(settings.active());
    EXPECT_FALSE(fs::exists(settings.file())) << "nothing is written until the user says so";

    settings.enable();
    EXPECT_TRUE(settings.active());
    const auto id = settings.installID();
    EXPECT_EQ(id.size(), 36u);
    EXPECT_EQ(modeOf(settings.file()), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(TelemetrySettings(dir / ".veltra", environment).installID(), id);

    // Switches are read as people write them, in any case.
    for (const auto& [name, value] :
         {std::pair{"DO_NOT_TRACK", "1"}, std::pair{"DO_NOT_TRACK", "TRUE"},
          std::pair{"DO_NOT_TRACK", "yes"}, std::pair{"DO_NOT_TRACK", "On"},
          std::pair{"DO_NOT_TRACK", "anything"}, std::pair{"VELTRA_TELEMETRY", "0"},
          std::pair{"VELTRA_TELEMETRY", "false"}, std::pair{"VELTRA_TELEMETRY", "OFF"},
          std::pair{"VELTRA_TELEMETRY", "No"}}) {
        SCOPED_TRACE(std::string(name) + "=" + value);
        variables = {{name, value}};
        EXPECT_EQ(settings.overriddenBy(), std::string(name) + "=" + value);
        EXPECT_FALSE(settings.active());
    }
    for (const auto* no : {"0", "false", "Off", "NO", ""}) {
        variables = {{"DO_NOT_TRACK", no}, {"VELTRA_TELEMETRY", "1"}};
        EXPECT_TRUE(settings.active()) << no;
    }

    settings.resetID();
    EXPECT_NE(settings.installID(), id);

    // Off deletes what was queued.
    TelemetryQueue(settings.queueFile()).append({{"event", "command_run"}});
    settings.disable();
    EXPECT_FALSE(fs::exists(settings.queueFile()));
    EXPECT_FALSE(TelemetrySettings(dir / ".veltra", environment).enabledSetting());

    // A settings file that does not read means off.
    testing::writeFile(settings.file(), "{not json");
    EXPECT_FALSE(TelemetrySettings(dir / ".veltra", environment).enabledSetting());
}

// The Studio asks once, and never where a CI job or the environment already decided.
TEST(TelemetrySettings, AsksForConsentOnceAndNeverOnCI) {
    testing::TempDir dir;
    for (const auto& [ci, doNotTrack, asks] :
         {std::tuple{"", "", true}, std::tuple{"true", "", false}, std::tuple{"", "1", false}}) {
        const std::map<std::string, std::string> variables{{"CI", ci},
                                                           {"DO_NOT_TRACK", doNotTrack}};
        const auto environment = [&](const char* name) -> const char* {
            const auto found = variables.find(name);
            return found == variables.end() ? nullptr : found->second.c_str();
        };
        EXPECT_EQ(TelemetrySettings(dir / "fresh", environment).shouldAsk(), asks)
            << "CI=" << ci << " DO_NOT_TRACK=" << doNotTrack;
    }
    const auto none = [](const char*) -> const char* { return nullptr; };
    TelemetrySettings settings(dir / "asked", none);
    settings.markAsked();
    EXPECT_FALSE(settings.active()) << "asking is not consenting";
    EXPECT_FALSE(TelemetrySettings(dir / "asked", none).shouldAsk());
    TelemetrySettings enabled(dir / "enabled", none);
    enabled.enable();
    EXPECT_FALSE(enabled.shouldAsk());
}

TEST(TelemetryQueue, AppendsPrivatelyAndSkipsATornLine) {
    testing::TempDir dir;
    const auto file = dir / "telemetry" / "queue.jsonl";
    TelemetryQueue queue(file);
    queue.append({{"event", "release_started"}});
    EXPECT_EQ(modeOf(file), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(modeOf(file.parent_path()), fs::perms::owner_all);
    // A crash mid-write leaves half a line; the next event starts a line of its own.
    {
        std::ofstream torn(file, std::ios::app | std::ios::binary);
        torn << R"({"event":"release_fini)";
    }
    queue.append({{"event", "release_finished"}});
    const auto events = queue.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], "release_started");
    EXPECT_EQ(events[1]["event"], "release_finished");
    EXPECT_EQ(events[1]["timestamp"].get<std::string>().size(), 20u);

    queue.removeFirst(1);
    ASSERT_EQ(queue.events().size(), 1u);
    EXPECT_EQ(queue.events()[0]["event"], "release_finished");
}

TEST(TelemetryQueue, KeepsItsCapsAndDropsOldEvents) {
    testing::TempDir dir;
    auto now = std::chrono::system_clock::now();
    TelemetryQueue queue(dir / "queue.jsonl", [&] { return now; });
    for (std::size_t i = 0; i < TelemetryQueue::maxEvents + 5; ++i) {
        queue.append({{"event", "command_run"}, {"n", i}});
    }
    auto events = queue.events();
    ASSERT_EQ(events.size(), TelemetryQueue::maxEvents);
    EXPECT_EQ(events.front()["n"], 5) << "the oldest went first";
    EXPECT_EQ(queue.dropped(), 5u);

    // The byte cap too: large events push the old ones out.
    queue.clear();
    const std::string padding(200 * 1024, 'x');
    for (int i = 0; i < 6; ++i) {
        queue.append({{"event", "command_run"}, {"padding", padding}});
    }
    EXPECT_LE(fs::file_size(dir / "queue.jsonl"), TelemetryQueue::maxBytes);
    EXPECT_EQ(queue.events().size(), 5u);

    // Thirty days on, they are gone.
    now += TelemetryQueue::maxAge + 1h;
    EXPECT_TRUE(queue.events().empty());
}

// Two processes appending at once, each past a cap, as two Veltra commands may: every event
// lands whole and none is lost but the oldest the cap drops.
TEST(TelemetryQueue, TwoProcessesAppendingAtOnceLoseNothing) {
    testing::TempDir dir;
    const auto file = dir / "telemetry" / "queue.jsonl";
    constexpr int perWriter = 600;
    std::vector<pid_t> writers;
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    for (int w = 0; w < 2; ++w) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // Both start together, so their appends interleave.
            char go = 0;
            ::close(ready[1]);
            const bool started = ::read(ready[0], &go, 1) == 0;
            TelemetryQueue queue(file);
            for (int i = 0; started && i < perWriter; ++i) {
                queue.append({{"writer", w}, {"n", i}});
            }
            ::_exit(started ? 0 : 1);
        }
        writers.push_back(pid);
    }
    ::close(ready[0]);
    ::close(ready[1]);
    for (const auto pid : writers) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const TelemetryQueue queue(file);
    const auto events = queue.events();
    EXPECT_EQ(events.size(), TelemetryQueue::maxEvents);
    EXPECT_EQ(queue.dropped(), 2 * perWriter - TelemetryQueue::maxEvents);
    // Each writer's events are still in order, and its last one is there.
    std::map<int, int> last{{0, -1}, {1, -1}};
    for (const auto& event : events) {
        const int writer = event.at("writer");
        const int n = event.at("n");
        EXPECT_GT(n, last[writer]);
        last[writer] = n;
    }
    EXPECT_EQ(last[0], perWriter - 1);
    EXPECT_EQ(last[1], perWriter - 1);
}

} // namespace
} // namespace veltra
