#pragma once

#include <stdexcept>
#include <string>

namespace veltra {

// The one error engines throw: a domain ("Veltra", "Veltra.DMG", ...), an integer code and the
// message the user reads. what() is that message, so "Error: " + what() is what the user sees.
class VeltraError : public std::runtime_error {
public:
    VeltraError(std::string domain, int code, const std::string& message);

    const std::string& domain() const noexcept { return domain_; }
    int code() const noexcept { return code_; }
    std::string message() const { return what(); }

private:
    std::string domain_;
    int code_;
};

// The codes of VeltraError, by what went wrong (numbered as HTTP statuses, as earlier versions
// reported them; callers may branch on them).
namespace errorCode {
inline constexpr int invalidSetup = 400;       // a setting or input cannot work as it is
inline constexpr int notAuthorized = 401;      // credentials are missing or refused
inline constexpr int notFound = 404;           // a file, tool, branch or item is not there
inline constexpr int conflict = 409;           // something already there or in the way
inline constexpr int wrongTools = 412;         // the developer tools selected cannot do it
inline constexpr int toolFailed = 500;         // a tool or step failed
inline constexpr int badAnswer = 502;          // a service answered something unusable
inline constexpr int serviceUnavailable = 503; // a service could not be reached or refused
} // namespace errorCode

// Thrown when the caller's stop token asked an operation to stop. Callers that show errors to
// the user usually treat it apart from failures.
class CancellationError : public std::exception {
public:
    const char* what() const noexcept override;
};

} // namespace veltra
