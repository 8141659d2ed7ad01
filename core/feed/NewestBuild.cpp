#include "NewestBuild.h"

#include "BuildNumber.h"

namespace veltra {

std::optional<NewestBuild> newestBuild(const std::vector<SparkleFeedItem>& items) {
    std::optional<NewestBuild> newest;
    for (const auto& item : items) {
        const auto build = BuildNumber::parse(item.version);
        if (build.isValid() && (!newest || build.value > newest->build)) {
            newest = NewestBuild{build.value, &item};
        }
    }
    return newest;
}

} // namespace veltra
