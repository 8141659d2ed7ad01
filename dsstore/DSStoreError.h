#pragma once

#include <stdexcept>
#include <string>

namespace dsstore {

// A file that cannot be read or a store that cannot be written. The message is the fault alone
// ("Root block offset mismatch"); whoever reports the whole file adds "Corrupted file: ".
class DSStoreError : public std::runtime_error {
public:
    explicit DSStoreError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace dsstore
