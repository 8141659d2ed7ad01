#pragma once

#include "ProcessResult.h"
#include "core/support/StopToken.h"

#include <chrono>
#include <functional>
#include <string>

namespace veltra {

// How a tool's known passing failure is tried again: waits that double from `firstDelay` up to
// `longestDelay`, for at most `total` in all.
struct RetryPolicy {
    std::chrono::milliseconds firstDelay{1000};
    std::chrono::milliseconds longestDelay{30000};
    std::chrono::milliseconds total{120000};
};

// Runs `attempt` until it succeeds (exit 0), fails in a way `isTransient` does not name, or the
// policy's time is spent, logging each retry with `what` and the tool's words. Returns the last
// result. Throws CancellationError when stopped while waiting.
ProcessResult runRetrying(const std::function<ProcessResult()>& attempt,
                          const std::function<bool(const ProcessResult&)>& isTransient,
                          const RetryPolicy& policy, const std::string& what,
                          const std::function<void(const std::string&)>& log, StopToken stop);

// Waits `duration` unless `stop` is requested first; false when it was.
bool waitUnlessStopped(std::chrono::milliseconds duration, StopToken stop);

} // namespace veltra
