#pragma once

#include "core/process/ProcessRunner.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace veltra::testing {

// Runs the built veltra as a user would, with extra environment variables.
inline ProcessResult runVeltra(std::vector<std::string> arguments,
                               std::map<std::string, std::string> environment = {},
                               std::optional<std::string> standardInput = {}) {
    ProcessRequest request;
    request.command = VELTRA_BINARY;
    request.arguments = std::move(arguments);
    request.environment = std::move(environment);
    request.standardInput = std::move(standardInput);
    return ProcessRunner::run(request);
}

} // namespace veltra::testing
