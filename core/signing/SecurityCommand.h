#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <string>
#include <vector>

namespace veltra {

// Runs one `security` command that carries a password. `security -i` reads its commands from
// standard input, so the password is on no command line; one command per run keeps the exit
// status that command's own. security's "<command>: returned N" trailer is taken off the
// errors. Throws VeltraError ("Veltra", 22) when an argument holds a line break or NUL, which
// one input line cannot carry.
ProcessResult runSecurityCommand(const std::vector<std::string>& arguments, StopToken stop = {});

// The input line for `security -i`: each argument in double quotes with `"` and `\` escaped,
// the way security splits its lines.
std::string securityInputLine(const std::vector<std::string>& arguments);

} // namespace veltra
