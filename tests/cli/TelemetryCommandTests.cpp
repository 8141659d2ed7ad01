// veltra telemetry: off by default, on when asked, and off again whatever the setting when the
// environment says so.

#include "TestSupport.h"
#include "VeltraRun.h"

#include <map>
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
    EXPECT_EQ(status["queued"], 0);
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

} // namespace
} // namespace veltra
