// veltra telemetry: off by default, on when asked, and off again whatever the setting when the
// environment says so.

#include "Gunzip.h"
#include "TestHttpServer.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/support/FileUtilities.h"

#include <atomic>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

TEST(TelemetryCommand, OffByDefaultOnWhenAskedAndTheEnvironmentWins) {
    testing::TempDir dir;
    std::map<std::string, std::string> environment{
        {"HOME", dir.path().string()}, {"DO_NOT_TRACK", ""}, {"VELTRA_TELEMETRY", ""}};
    const auto veltra = [&](std::vector<std::string> arguments) {
        return testing::runVeltra(std::move(arguments), environment);
    };
    EXPECT_EQ(veltra({"telemetry", "status"}).output,
              "Telemetry is off (the default). 'veltra telemetry enable' turns it on.\n");
    EXPECT_FALSE(std::filesystem::exists(dir / ".veltra" / "telemetry.json"));

    const auto enabled = veltra({"telemetry", "enable"});
    EXPECT_EQ(enabled.exitCode, 0);
    EXPECT_TRUE(enabled.output.starts_with("Telemetry is on (install ID ")) << enabled.output;
    auto status = nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output);
    EXPECT_EQ(status["active"], true);
    EXPECT_EQ(status["overriddenBy"], nullptr);
    EXPECT_EQ(status["queued"], 1) << "the enable command itself, once telemetry was on";
    const auto id = status["installID"].get<std::string>();
    EXPECT_EQ(veltra({"telemetry", "reset-id"}).exitCode, 0);
    EXPECT_NE(nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output)["installID"],
              id);

    environment["DO_NOT_TRACK"] = "1";
    EXPECT_EQ(veltra({"telemetry", "status"}).output,
              "Telemetry is off: DO_NOT_TRACK=1 turns it off whatever the setting (on) says.\n");
    status = nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output);
    EXPECT_EQ(status["enabled"], true);
    EXPECT_EQ(status["active"], false);
    EXPECT_EQ(status["overriddenBy"], "DO_NOT_TRACK=1");

    environment["DO_NOT_TRACK"] = "";
    EXPECT_EQ(veltra({"telemetry", "disable"}).output,
              "Telemetry is off; queued events deleted.\n");
    EXPECT_EQ(nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output)["enabled"],
              false);
}

// Every string a value could leak: the string values of `json`, all the way down.
void stringsOf(const nlohmann::json& json, std::vector<std::string>& found) {
    if (json.is_string()) {
        found.push_back(json.get<std::string>());
    } else if (json.is_structured()) {
        for (const auto& value : json) {
            stringsOf(value, found);
        }
    }
}

// A whole demo release with telemetry on: the events say what happened, and nothing of the app,
// its profile or the sandbox.
TEST(TelemetryCommand, ADemoReleaseQueuesEventsThatCarryNothingOfTheApp) {
    testing::TempDir dir;
    const std::map<std::string, std::string> environment{
        {"HOME", dir.path().string()}, {"DO_NOT_TRACK", ""}, {"VELTRA_TELEMETRY", ""}, {"CI", ""}};
    ASSERT_EQ(testing::runVeltra({"telemetry", "enable"}, environment).exitCode, 0);
    const auto sandbox = dir / "sandbox";
    const auto demo = testing::runVeltra({"demo", "--keep", sandbox.string()}, environment);
    ASSERT_EQ(demo.exitCode, 0) << demo.output << demo.errorOutput;

    std::vector<nlohmann::json> events;
    std::istringstream queue(readFile(dir / ".veltra" / "telemetry" / "queue.jsonl"));
    for (std::string line; std::getline(queue, line);) {
        events.push_back(nlohmann::json::parse(line));
    }
    std::vector<std::string> names;
    for (const auto& event : events) {
        names.push_back(event["event"].get<std::string>());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"command_run", "release_started", "release_finished",
                                               "command_run"}));
    const auto& finished = events[2]["properties"];
    EXPECT_EQ(finished["outcome"], "succeeded");
    EXPECT_EQ(finished["surface"], "cli");
    EXPECT_TRUE(finished["stepSeconds"].contains("dmg"));
    EXPECT_EQ(events[3]["properties"]["command"], "demo");
    EXPECT_EQ(events[3]["properties"]["options"], nlohmann::json::array({"--keep"}));
    // The system's version as major.minor, never the whole kernel release.
    const auto osVersion = finished["osVersion"].get<std::string>();
    EXPECT_EQ(osVersion.find_first_not_of("0123456789."), std::string::npos) << osVersion;
    EXPECT_EQ(std::ranges::count(osVersion, '.'), 1) << osVersion;

    // Nothing of the profile or the sandbox, whole or in part.
    std::vector<std::string> secret{sandbox.string(), dir.path().string()};
    stringsOf(nlohmann::json::parse(readFile(sandbox / "profiles.json")), secret);
    std::vector<std::string> sent;
    for (const auto& event : events) {
        stringsOf(event, sent);
    }
    for (const auto& value : secret) {
        // The hosting provider's enumeration value is reported by design.
        if (value.empty() || finished["hostingProvider"] == value) {
            continue;
        }
        for (const auto& text : sent) {
            EXPECT_NE(text, value);
            if (value.size() >= 6) {
                EXPECT_EQ(text.find(value), std::string::npos) << value << " in " << text;
            }
        }
    }
}

// Sending: batches arrive gzip-compressed in the batch-capture format; only what the server
// acknowledged leaves the queue; a failure backs off; a hanging server changes nothing the
// command says.
TEST(TelemetryCommand, SendsAcknowledgedBatchesAndBacksOff) {
    testing::TempDir dir;
    std::atomic<int> status = 200;
    std::atomic<int> delayMs = 0;
    testing::TestHttpServer server([&](const testing::TestHttpServer::Request&) {
        testing::TestHttpServer::Response response;
        response.status = status.load();
        response.delay = std::chrono::milliseconds(delayMs.load());
        return response;
    });
    std::map<std::string, std::string> environment{
        {"HOME", dir.path().string()}, {"DO_NOT_TRACK", ""},
        {"VELTRA_TELEMETRY", ""},      {"CI", ""},
        {"VELTRA_TELEMETRY_URL", ""},  {"VELTRA_TELEMETRY_KEY", ""}};
    const auto veltra = [&](std::vector<std::string> arguments) {
        return testing::runVeltra(std::move(arguments), environment);
    };
    const auto queued = [&] {
        return nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output)["queued"]
            .get<int>();
    };
    // Off, or on without an endpoint: nothing goes anywhere.
    veltra({"profile", "list"});
    EXPECT_TRUE(server.requests().empty());
    ASSERT_EQ(veltra({"telemetry", "enable"}).exitCode, 0);
    EXPECT_EQ(veltra({"telemetry", "endpoint", "http://example.com/batch"}).exitCode, 1)
        << "only https, or http to this machine";
    ASSERT_EQ(veltra({"telemetry", "endpoint", server.url("/batch"), "--key", "phc_test"}).exitCode,
              0);

    // Each command sends what is queued when it ends: here its own event.
    const auto before = server.requests().size();
    const auto listed = veltra({"profile", "list"});
    ASSERT_EQ(server.requests().size(), before + 1);
    const auto request = server.requests().back();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.headers.at("content-encoding"), "gzip");
    const auto batch = nlohmann::json::parse(testing::gunzip(request.body));
    EXPECT_EQ(batch["api_key"], "phc_test");
    ASSERT_EQ(batch["batch"].size(), 1u) << batch.dump();
    const auto& event = batch["batch"][0];
    EXPECT_EQ(event["event"], "command_run");
    EXPECT_EQ(event["properties"]["command"], "profile list");
    EXPECT_EQ(event["distinct_id"],
              nlohmann::json::parse(veltra({"telemetry", "status", "--json"}).output)["installID"]);
    EXPECT_EQ(event["timestamp"].get<std::string>().size(), 20u);
    EXPECT_EQ(queued(), 0) << "acknowledged events leave the queue";

    // A failure keeps the queue and backs off: the next command does not try again.
    status = 503;
    veltra({"profile", "list"});
    const auto tried = server.requests().size();
    EXPECT_EQ(queued(), 1);
    EXPECT_TRUE(std::filesystem::exists(dir / ".veltra" / "telemetry" / "backoff.json"));
    veltra({"profile", "list"});
    EXPECT_EQ(server.requests().size(), tried) << "backing off";

    // flush sends now; the server back, everything leaves.
    status = 200;
    const auto flushed = veltra({"telemetry", "flush"});
    EXPECT_EQ(flushed.exitCode, 0) << flushed.output;
    EXPECT_TRUE(flushed.output.starts_with("Sent 3 events to ")) << flushed.output;
    EXPECT_EQ(queued(), 0);

    // A batch the server refuses for good is dropped.
    status = 400;
    const auto sentBefore = server.requests().size();
    veltra({"profile", "list"});
    EXPECT_EQ(server.requests().size(), sentBefore + 1);
    EXPECT_FALSE(std::filesystem::exists(dir / ".veltra" / "telemetry" / "backoff.json"))
        << "a refusal is no reason to wait";
    EXPECT_EQ(queued(), 0);

    // A hanging server changes nothing the command says or how it ends.
    status = 200;
    delayMs = 30000;
    const auto hanging = veltra({"profile", "list"});
    environment["VELTRA_TELEMETRY"] = "0";
    const auto off = veltra({"profile", "list"});
    EXPECT_EQ(hanging.exitCode, off.exitCode);
    EXPECT_EQ(hanging.output, off.output);
    EXPECT_EQ(hanging.errorOutput, off.errorOutput);
    EXPECT_EQ(listed.output, off.output);
}

} // namespace
} // namespace veltra
