#include "SecurityCommand.h"

#include "core/support/VeltraError.h"

namespace veltra {

std::string securityInputLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const auto& argument : arguments) {
        if (argument.find_first_of(std::string_view("\n\r\0", 3)) != std::string::npos) {
            throw VeltraError("Veltra", 22,
                              "A password or name for security cannot contain a line break.");
        }
        if (!line.empty()) {
            line += ' ';
        }
        line += '"';
        for (const char c : argument) {
            if (c == '"' || c == '\\') {
                line += '\\';
            }
            line += c;
        }
        line += '"';
    }
    return line + "\n";
}

ProcessResult runSecurityCommand(const std::vector<std::string>& arguments, StopToken stop) {
    ProcessRequest request;
    request.command = "security";
    request.arguments = {"-i"};
    request.standardInput = securityInputLine(arguments);
    auto result = ProcessRunner::run(request, std::move(stop));
    if (!arguments.empty()) {
        // The trailer names the command, not the cause; the line before it is security's own.
        const auto trailer = arguments.front() + ": returned ";
        if (const auto at = result.errorOutput.rfind(trailer);
            at != std::string::npos && (at == 0 || result.errorOutput[at - 1] == '\n')) {
            result.errorOutput.erase(at);
        }
    }
    return result;
}

} // namespace veltra
