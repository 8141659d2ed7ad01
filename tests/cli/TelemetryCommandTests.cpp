// veltra telemetry: off by default, on when asked, and off again whatever the setting when the
// environment says so.

#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/support/FileUtilities.h"

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

    // Nothing of the profile or the sandbox, whole or in part.
    std::vector<std::string> secret{sandbox.string(), dir.path().string()};
    stringsOf(nlohmann::json::parse(readFile(sandbox / "profiles.json")), secret);
    std::vector<std::string> sent;
    for (const auto& event : events) {
        stringsOf(event, sent);
    }
    for (const auto& value : secret) {
        // The hosting provider's enumeration value is reported by design.
        if (value.empty() || value == finished["hostingProvider"]) {
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

} // namespace
} // namespace veltra
