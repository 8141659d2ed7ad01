#include "TransientRetry.h"

#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <fmt/format.h>

namespace veltra {

bool waitUnlessStopped(std::chrono::milliseconds duration, StopToken stop) {
    std::mutex lock;
    std::condition_variable_any woken;
    std::unique_lock guard(lock);
    waitFor(woken, guard, stop, duration, [] { return false; });
    return !stop.stop_requested();
}

ProcessResult runRetrying(const std::function<ProcessResult()>& attempt,
                          const std::function<bool(const ProcessResult&)>& isTransient,
                          const RetryPolicy& policy, const std::string& what,
                          const std::function<void(const std::string&)>& log, StopToken stop) {
    const auto deadline = std::chrono::steady_clock::now() + policy.total;
    auto delay = policy.firstDelay;
    for (int tries = 1;; ++tries) {
        auto result = attempt();
        if (result.exitCode == 0 || !isTransient(result)) {
            return result;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left <= std::chrono::milliseconds(0)) {
            return result;
        }
        const auto wait = std::min(delay, left);
        if (log) {
            auto words = std::string(trimWhitespace(combinedOutput(result)));
            if (const auto end = words.find('\n'); end != std::string::npos) {
                words.resize(end);
            }
            log(fmt::format("   Info: {} failed ({}); trying again in {:.1f} s (try {})", what,
                            words, std::chrono::duration<double>(wait).count(), tries + 1));
        }
        if (!waitUnlessStopped(wait, stop)) {
            throw CancellationError();
        }
        delay = std::min(delay * 2, policy.longestDelay);
    }
}

} // namespace veltra
