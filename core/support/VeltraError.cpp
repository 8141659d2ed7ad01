#include "VeltraError.h"

#include "Secrets.h"

#include <utility>

namespace veltra {

VeltraError::VeltraError(std::string domain, int code, const std::string& message)
    : std::runtime_error(redactURLCredentials(message)), domain_(std::move(domain)), code_(code) {}

const char* CancellationError::what() const noexcept {
    return "The operation was cancelled.";
}

} // namespace veltra
