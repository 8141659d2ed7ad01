#pragma once

#include "SparkleFeedItem.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace veltra {

// The feed's newest release: the item with the highest build number. Items whose build is not a
// number cannot be ordered and are passed over; of equal builds the first listed counts.
struct NewestBuild {
    std::int64_t build = 0;
    const SparkleFeedItem* item = nullptr; // points into the list given
};

// Nothing when no item has a numeric build.
std::optional<NewestBuild> newestBuild(const std::vector<SparkleFeedItem>& items);

} // namespace veltra
