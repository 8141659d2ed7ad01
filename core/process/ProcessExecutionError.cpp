#include "ProcessExecutionError.h"

#include <cmath>
#include <utility>

#include <fmt/format.h>

namespace veltra {

ProcessExecutionError::ProcessExecutionError(Kind kind, double timeout, std::string description)
    : kind_(kind), timeout_(timeout), description_(std::move(description)) {}

ProcessExecutionError ProcessExecutionError::timedOut(double seconds) {
    // Truncated toward zero: 2.9 s reads "2 seconds".
    const auto whole = static_cast<long long>(std::trunc(seconds));
    return {Kind::timedOut, seconds,
            fmt::format("The command did not finish within {} seconds. Check your connection and "
                        "try again.",
                        whole)};
}

ProcessExecutionError ProcessExecutionError::inputTooLarge() {
    return {Kind::inputTooLarge, 0, "Protected command input must be at most 4096 bytes."};
}

} // namespace veltra

#include "ProcessResult.h"
#include "core/support/Text.h"

namespace veltra {

std::string combinedOutput(const ProcessResult& result) {
    const auto out = trimWhitespace(result.output);
    const auto err = trimWhitespace(result.errorOutput);
    if (out.empty() || err.empty()) {
        return std::string(out.empty() ? err : out);
    }
    return std::string(out) + "\n" + std::string(err);
}

} // namespace veltra
