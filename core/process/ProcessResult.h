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

} // namespace veltra
