#pragma once

#include "FeedControls.h"
#include "WebsitePublication.h"
#include "core/support/Date.h"
#include "core/support/JsonReader.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What a finished release produced; kept, newest first, in its profile's recentReleases.
struct ReleaseManifest {
    std::string appName;
    std::string version;
    std::string buildNumber;
    Date releaseDate;
    std::optional<std::string> dmgURL;
    std::int64_t dmgFileSize = 0;
    std::string sha256Checksum; // lower-case hexadecimal
    std::optional<std::string> sparkleSignature;
    std::string releaseNotes; // Markdown
    std::optional<std::string> notesURL;
    std::optional<WebsitePublication> websitePublication;
    std::optional<std::string> monitoringReleaseID;
    std::optional<bool> wasNotarized; // absent in manifests written before it was recorded
    // What stapler and Gatekeeper said of the notarized image and app ("spctl (app): accepted
    // (Notarized Developer ID)"); absent where they did not run.
    std::optional<std::vector<std::string>> finalChecks;
    std::optional<bool> githubPublicationSucceeded;
    // What the feed item says beyond the download (channel, critical, rollout); changed by a
    // promote.
    FeedControls feedControls;
    // Set once a withdraw took the item out of the feed.
    std::optional<Date> withdrawnAt;

    bool operator==(const ReleaseManifest&) const = default;

    Json toJson() const;
    // Throws JsonDecodingError naming the path of the first missing or wrong key.
    static ReleaseManifest fromJson(const Json& json, const std::string& path);
};

} // namespace veltra
