#include "TelemetryEvents.h"

#include <cmath>
#include <sys/utsname.h>

#if defined(__APPLE__)
#include <sys/sysctl.h>
#endif

namespace veltra {

TelemetrySource TelemetryEvents::source(std::string veltraVersion, bool studio,
                                        const TelemetrySettings& settings) {
    return {std::move(veltraVersion), settings.onCI() ? "ci" : studio ? "studio" : "cli"};
}

Json TelemetryEvents::common(const TelemetrySource& source) {
    utsname system{};
    ::uname(&system);
    // major.minor only: a full kernel release ("6.1.0-26-amd64") says more than a count needs.
    std::string osVersion = system.release;
    if (const auto first = osVersion.find('.'); first != std::string::npos) {
        const auto second = osVersion.find_first_not_of("0123456789", first + 1);
        osVersion.resize(second == std::string::npos ? osVersion.size() : second);
    }
#if defined(__APPLE__)
    // The macOS version, not the kernel's.
    char product[32] = {};
    std::size_t size = sizeof product;
    if (::sysctlbyname("kern.osproductversion", product, &size, nullptr, 0) == 0) {
        osVersion = product;
    }
#endif
    return {{"veltraVersion", source.veltraVersion},
            {"os", system.sysname},
            {"osVersion", osVersion},
            {"architecture", system.machine},
            {"surface", source.surface}};
}

Json TelemetryEvents::commandRun(const std::string& command,
                                 const std::vector<std::string>& options) {
    return {{"command", command}, {"options", options}};
}

Json TelemetryEvents::releaseStarted(const ReleaseRequest& request) {
    return {{"fromProject", !request.appPath.has_value()},
            {"dryRun", request.dryRun},
            {"resume", request.resume}};
}

Json TelemetryEvents::releaseFinished(const PipelineManager& pipeline,
                                      const ReleaseRequest& request) {
    const auto& profile = request.profile;
    const auto& manifest = pipeline.completedManifest();
    Json durations = Json::object();
    for (const auto& step : pipeline.steps()) {
        if (step.duration) {
            durations[step.id] = std::round(*step.duration * 10) / 10;
        }
    }
    Json size = nullptr;
    if (manifest && manifest->dmgFileSize > 0) {
        // Rounded up to a power of two: enough to see the spread, too coarse to recognise an app.
        const double mib = static_cast<double>(manifest->dmgFileSize) / (1024.0 * 1024.0);
        size = std::exp2(std::max(0.0, std::ceil(std::log2(mib))));
    }
    return {{"outcome", manifest                 ? "succeeded"
                        : pipeline.isCancelled() ? "cancelled"
                                                 : "failed"},
            {"failedStep", manifest || pipeline.isCancelled()
                               ? Json(nullptr)
                               : Json(pipeline.failedStepID().value_or("preflight"))},
            {"errorDomain", pipeline.error() ? Json(pipeline.error()->domain()) : Json(nullptr)},
            {"errorCode", pipeline.error() ? Json(pipeline.error()->code()) : Json(nullptr)},
            {"stepSeconds", durations},
            {"imageSizeMiB", size},
            {"notarization", profile.notarization.enabled},
            {"github", profile.githubRelease.enabled},
            {"hostingProvider", rawValue(profile.webDeploy.provider)},
            {"dryRun", request.dryRun},
            {"resume", request.resume}};
}

void TelemetryEvents::record(const TelemetrySource& source, const std::string& event,
                             Json properties, const TelemetrySettings& settings) {
    if (!settings.active()) {
        return;
    }
    try {
        auto all = common(source);
        all.update(properties);
        TelemetryQueue(settings.queueFile()).append({{"event", event}, {"properties", all}});
    } catch (const std::exception&) {
    }
}

std::vector<Json> TelemetryEvents::batches(const std::vector<Json>& events,
                                           const std::string& installID, const std::string& apiKey,
                                           std::size_t dropped) {
    constexpr std::size_t perBatch = 100;
    std::vector<Json> all;
    for (std::size_t first = 0; first < events.size(); first += perBatch) {
        Json batch = Json::array();
        for (std::size_t i = first; i < std::min(events.size(), first + perBatch); ++i) {
            auto properties = events[i].value("properties", Json::object());
            if (first == 0 && i == 0 && dropped > 0) {
                properties["droppedBefore"] = dropped;
            }
            batch.push_back({{"event", events[i].value("event", std::string())},
                             {"distinct_id", installID},
                             {"properties", properties},
                             {"timestamp", events[i].value("timestamp", std::string())}});
        }
        all.push_back({{"api_key", apiKey}, {"batch", batch}});
    }
    return all;
}

} // namespace veltra
