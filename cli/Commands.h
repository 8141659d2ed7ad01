#pragma once

#include "CliContext.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace veltra::cli {

// A build number given on the command line; throws "Invalid release build number." otherwise.
std::int64_t releaseBuildArgument(const std::string& text);
// How long a command follows the live site: --wait's "10m", "90s", "1h" or plain seconds (at
// most a day; CLI::ValidationError otherwise), else ten minutes for a person at a terminal when
// `byDefault`, else not at all.
std::optional<std::chrono::seconds> followDuration(const std::string& wait, bool byDefault);

// Each command group adds its sub-commands to the app. A callback reports failure by throwing;
// the command line turns that into "Error: " + message and a non-zero exit status.
void addDSStoreCommands(CLI::App& app, CliContext& context);
void addSignCommand(CLI::App& app, CliContext& context);
void addSparkleCommands(CLI::App& app, CliContext& context);
void addAppcastCommands(CLI::App& app, CliContext& context);
void addVersionCommands(CLI::App& app, CliContext& context);
void addProfileCommands(CLI::App& app, CliContext& context);
void addXcodeCommands(CLI::App& app, CliContext& context);
void addSigningCommands(CLI::App& app, CliContext& context);
void addDMGCommands(CLI::App& app, CliContext& context);
void addPublishingCommands(CLI::App& app, CliContext& context);
void addWebsiteCommands(CLI::App& app, CliContext& context);
void addReleaseCommand(CLI::App& app, CliContext& context);
void addDemoCommand(CLI::App& app, CliContext& context);
void addDoctorCommand(CLI::App& app, CliContext& context);
void addTelemetryCommands(CLI::App& app, CliContext& context);
// Added last: it describes the commands added before it.
void addCompletionCommand(CLI::App& app, CliContext& context);
void addManualCommand(CLI::App& app, CliContext& context, const std::string& version);

} // namespace veltra::cli
