#pragma once

#include "core/support/StopToken.h"
#include "core/support/Telemetry.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace veltra {

struct TelemetrySendResult {
    std::size_t sent = 0;
    // Refused by the server for good (a 4xx other than 429): dropped, never sent again.
    std::size_t refused = 0;
    // Why sending stopped early, if it did ("backing off until …", a status, the network's words).
    std::optional<std::string> problem;
};

// Sends the queue to the endpoint in batches of at most 100 events, gzip-compressed, oldest
// first, while telemetry is on. Only what the server acknowledged (2xx) leaves the queue; a
// failure stops the round and backs off exponentially (1 minute, doubling, at most a day; kept
// beside the queue); a 4xx other than 429 drops that batch. Never throws.
class TelemetrySender {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    explicit TelemetrySender(const TelemetrySettings& settings, Clock clock = {});
    // Sends within `budget` (each request gets what is left of it). `now` ignores the back-off.
    TelemetrySendResult send(std::chrono::milliseconds budget, bool now = false,
                             StopToken stop = {}) const;

private:
    const TelemetrySettings& settings_;
    Clock clock_;
};

} // namespace veltra
