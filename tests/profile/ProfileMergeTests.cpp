#include "core/profile/ProfileMerge.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

// What another process saved since this one read the file (disk), what this one had read
// (base) and what it has now (mine): the file must end up with both sets of changes.
struct MergeRow {
    const char* name;
    const char* base;
    const char* mine;
    const char* disk;
    const char* expected;
};

const MergeRow mergeRows[] = {
    {"different fields of one profile",
     R"([{"id":"A","name":"A","sparkle":{"appcastPath":"a","minimumSystemVersion":"13.0"}}])",
     R"([{"id":"A","name":"A","sparkle":{"appcastPath":"a","minimumSystemVersion":"14.0"}}])",
     R"([{"id":"A","name":"Renamed","sparkle":{"appcastPath":"b","minimumSystemVersion":"13.0"}}])",
     R"([{"id":"A","name":"Renamed","sparkle":{"appcastPath":"b","minimumSystemVersion":"14.0"}}])"},
    {"one field changed by both: this process's value", R"([{"id":"A","name":"A"}])",
     R"([{"id":"A","name":"Mine"}])", R"([{"id":"A","name":"Theirs"}])",
     R"([{"id":"A","name":"Mine"}])"},
    {"profiles added by both, in the order they were added", R"([{"id":"A"}])",
     R"([{"id":"A"},{"id":"M"}])", R"([{"id":"A"},{"id":"T"}])",
     R"([{"id":"A"},{"id":"T"},{"id":"M"}])"},
    {"removed here while edited elsewhere", R"([{"id":"A","name":"A"},{"id":"B"}])",
     R"([{"id":"B"}])", R"([{"id":"A","name":"Theirs"},{"id":"B"}])", R"([{"id":"B"}])"},
    {"edited here while removed elsewhere stays removed", R"([{"id":"A","name":"A"},{"id":"B"}])",
     R"([{"id":"A","name":"Mine"},{"id":"B"}])", R"([{"id":"B"}])", R"([{"id":"B"}])"},
    {"fields this version does not know are kept",
     R"([{"id":"A","name":"A","webDeploy":{"gitBranch":"main"}}])",
     R"([{"id":"A","name":"B","webDeploy":{"gitBranch":"live"}}])",
     R"([{"id":"A","name":"A","future":[1,2],"webDeploy":{"gitBranch":"main","cdn":"x"}}])",
     R"([{"id":"A","name":"B","future":[1,2],"webDeploy":{"gitBranch":"live","cdn":"x"}}])"},
    {"an optional field cleared here", R"([{"id":"A","customPostScript":"s","x":1}])",
     R"([{"id":"A","x":1}])", R"([{"id":"A","customPostScript":"s","x":2}])",
     R"([{"id":"A","x":2}])"},
    {"a release recorded here, a live check recorded elsewhere",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"1.0","buildNumber":"1","state":"pending"}]}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"1.1","buildNumber":"2"},{"appName":"A","version":"1.0","buildNumber":"1","state":"pending"}]}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"1.0","buildNumber":"1","state":"live"}]}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"1.1","buildNumber":"2"},{"appName":"A","version":"1.0","buildNumber":"1","state":"live"}]}])"},
    {"releases recorded by both keep both, newest first", R"([{"id":"A"}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"2","buildNumber":"2"}]}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"1","buildNumber":"1"}]}])",
     R"([{"id":"A","recentReleases":[{"appName":"A","version":"2","buildNumber":"2"},{"appName":"A","version":"1","buildNumber":"1"}]}])"},
    {"nothing changed here leaves the file as it is", R"([{"id":"A","name":"A"}])",
     R"([{"id":"A","name":"A"}])", R"([{"id":"A","name":"Theirs"},{"id":"T"}])",
     R"([{"id":"A","name":"Theirs"},{"id":"T"}])"},
    {"items without ids are one value", R"([{"name":"A"}])", R"([{"name":"B"}])",
     R"([{"name":"C"},{"name":"D"}])", R"([{"name":"B"}])"},
};

TEST(ProfileMerge, KeepsChangesFromBothSides) {
    for (const auto& row : mergeRows) {
        SCOPED_TRACE(row.name);
        const auto merged =
            mergeProfileChanges(parseJson(row.base), parseJson(row.mine), parseJson(row.disk));
        EXPECT_EQ(dumpJson(merged), dumpJson(parseJson(row.expected)));
    }
}

} // namespace
} // namespace veltra
