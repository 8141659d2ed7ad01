#pragma once

#include "core/process/ProcessRunner.h"

#include <map>
#include <string>
#include <vector>

namespace veltra::testing {

// Runs the built veltra as a user would, with extra environment variables.
inline ProcessResult runVeltra(std::vector<std::string> arguments,
                               std::map<std::string, std::string> environment = {}) {
    ProcessRequest request;
    request.command = VELTRA_BINARY;
    request.arguments = std::move(arguments);
    request.environment = std::move(environment);
    return ProcessRunner().run(request);
}

} // namespace veltra::testing
