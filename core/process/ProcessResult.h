#pragma once

#include <cstdint>
#include <string>

namespace veltra {

// A finished run. A non-zero exit is a result, not an error: each caller decides what it means.
struct ProcessResult {
    // Exit status for a normal exit, the signal number for a child killed by a signal.
    std::int32_t exitCode = 0;
    // Captured standard output and error (the tail, under the capture limit), as UTF-8 with
    // invalid sequences replaced by U+FFFD.
    std::string output;
    std::string errorOutput;
};

// Standard output then standard error, each trimmed, joined by a line break when both have
// text: what a tool "said", for messages that quote it.
std::string combinedOutput(const ProcessResult& result);

} // namespace veltra
