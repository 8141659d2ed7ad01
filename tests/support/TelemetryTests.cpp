// Consent and the event queue: off until turned on, the environment's word wins, and a queue
// that keeps its caps, survives a torn line and drops what is too old.

#include "TestSupport.h"
#include "core/support/FileUtilities.h"
#include "core/support/Telemetry.h"

#include <fstream>
#include <map>
#include <sys/stat.h>
#include <thread>

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

    for (const auto& [name, value, said] :
         {std::tuple{"DO_NOT_TRACK", "1", "DO_NOT_TRACK=1"},
          std::tuple{"VELTRA_TELEMETRY", "0", "VELTRA_TELEMETRY=0"}}) {
        variables = {{name, value}};
        EXPECT_EQ(settings.overriddenBy(), said);
        EXPECT_FALSE(settings.active());
    }
    variables = {{"DO_NOT_TRACK", "0"}, {"VELTRA_TELEMETRY", "1"}};
    EXPECT_TRUE(settings.active());

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

// Two writers at once (each with its own lock, as two processes have): every event lands whole.
TEST(TelemetryQueue, WritersAtOnceLoseNothing) {
    testing::TempDir dir;
    {
        std::vector<std::jthread> writers;
        for (int w = 0; w < 2; ++w) {
            writers.emplace_back([&, w] {
                TelemetryQueue queue(dir / "queue.jsonl");
                for (int i = 0; i < 100; ++i) {
                    queue.append({{"writer", w}, {"n", i}});
                }
            });
        }
    }
    EXPECT_EQ(TelemetryQueue(dir / "queue.jsonl").events().size(), 200u);
}

} // namespace
} // namespace veltra
