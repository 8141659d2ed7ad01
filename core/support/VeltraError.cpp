#include "VeltraError.h"

#include <utility>

namespace veltra {

VeltraError::VeltraError(std::string domain, int code, const std::string& message)
    : std::runtime_error(message), domain_(std::move(domain)), code_(code) {}

const char* CancellationError::what() const noexcept {
    return "The operation was cancelled.";
}

} // namespace veltra
