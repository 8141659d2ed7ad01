#pragma once

#include "CliContext.h"

#include <string>
#include <vector>

namespace veltra::cli {

// Exit statuses of the veltra tool.
enum ExitStatus : int {
    exitSuccess = 0,
    exitFailure = 1,     // the command ran and failed; "Error: " + message on standard error
    exitUsage = 2,       // the command line itself is wrong
    exitCheckFailed = 3, // a check said no: a version check's blocker, the doctor's problems
    exitCancelled = 130,
};

// Parses and runs one veltra command line (arguments without the program name).
int runCommandLine(const std::vector<std::string>& arguments, CliContext& context);

} // namespace veltra::cli
