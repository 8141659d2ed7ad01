#pragma once

#include "core/support/StopToken.h"

#include <ostream>
#include <string>

namespace veltra::cli {

// What every command gets: where to write and whether the user asked it to stop (Ctrl-C).
struct CliContext {
    std::ostream& out;
    std::ostream& err;
    StopToken stop;
    // The profile file (--profiles, VELTRA_PROFILES); empty means the default.
    std::string profilesPath;
    // --no-color: plain text even on a terminal.
    bool noColour = false;
    // A command that reports its own failure (a check that found a fault) sets this instead of
    // throwing, so that no "Error: " line is added.
    int exitStatus = 0;
};

} // namespace veltra::cli
