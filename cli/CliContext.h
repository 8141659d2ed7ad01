#pragma once

#include <ostream>
#include <stop_token>
#include <string>

namespace veltra::cli {

// What every command gets: where to write and whether the user asked it to stop (Ctrl-C).
struct CliContext {
    std::ostream& out;
    std::ostream& err;
    std::stop_token stop;
    // The profile file (--profiles, VELTRA_PROFILES); empty means the default.
    std::string profilesPath;
};

} // namespace veltra::cli
