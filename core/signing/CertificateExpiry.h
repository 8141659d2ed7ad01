#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace veltra {

// Whole days until each PEM certificate in `pem` expires (as `security find-certificate -p`
// prints them), cut toward zero; negative once expired, -1 within the day after. Text that is
// not a certificate is passed over.
std::vector<std::int64_t> certificateDaysUntilExpiry(std::string_view pem);

} // namespace veltra
