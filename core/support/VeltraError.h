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

// Thrown when the caller's stop token asked an operation to stop. Callers that show errors to
// the user usually treat it apart from failures.
class CancellationError : public std::exception {
public:
    const char* what() const noexcept override;
};

} // namespace veltra
