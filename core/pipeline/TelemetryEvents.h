#pragma once

// The usage events Veltra records, and only these: what they carry is listed in
// docs/TELEMETRY.md. Never a name, path, address, bundle ID, version of the user's app, team,
// identity, log line or error message.

#include "PipelineManager.h"
#include "core/support/JsonReader.h"
#include "core/support/Telemetry.h"

#include <string>
#include <vector>

namespace veltra {

struct TelemetrySource {
    std::string veltraVersion;
    // "cli" or "studio"; "ci" wherever the CI variable is set.
    std::string surface;
};

class TelemetryEvents {
public:
    static TelemetrySource source(std::string veltraVersion, bool studio,
                                  const TelemetrySettings& settings);
    // Veltra's version, the OS's name and version, the CPU architecture, where it ran.
    static Json common(const TelemetrySource& source);
    // The command's words ("sparkle keys generate") and the names of the options given.
    static Json commandRun(const std::string& command, const std::vector<std::string>& options);
    static Json releaseStarted(const ReleaseRequest& request);
    // Outcome, the failed step, each step's time, the image's size rounded up to a power of two
    // in MiB, and the profile's choices (notarization, GitHub, hosting provider, dry run, resume).
    static Json releaseFinished(const PipelineManager& pipeline, const ReleaseRequest& request);
    // Queues {"event", "properties"} when telemetry is on. Never throws: a full disk or a broken
    // queue must not fail what the user asked for.
    static void record(const TelemetrySource& source, const std::string& event, Json properties,
                       const TelemetrySettings& settings);
    // The batches the queue would send next (at most 100 events each), in the batch-capture
    // format: {"api_key", "batch": [{"event", "distinct_id", "properties", "timestamp"}]}; the
    // first carries how many events were dropped to keep the queue's caps.
    static std::vector<Json> batches(const std::vector<Json>& events, const std::string& installID,
                                     const std::string& apiKey, std::size_t dropped);
};

} // namespace veltra
