#pragma once

// A dry run's own object, private to the pipeline.

#include "core/profile/ProjectProfile.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// Everything but what leaves the machine. A dry run's stages ask this object where its files
// go and say through it what a release would do instead of writing the project, notarizing,
// pushing or publishing; a real run has none. It owns its temporary folders.
class DryRun {
public:
    using Log = std::function<void(const std::string&)>;
    // Makes the folder for the image and notes in `temporaryBase` (the system's when empty),
    // never the output folder, where published files are kept.
    DryRun(const std::filesystem::path& temporaryBase, Log log);
    // Removes the website clone; the image and notes stay for the user to look at.
    ~DryRun();
    DryRun(const DryRun&) = delete;
    DryRun& operator=(const DryRun&) = delete;

    const std::filesystem::path& filesDirectory() const { return files_; }
    // The clone the feed and the deploy write to; none until useWebsiteClone.
    const std::optional<std::filesystem::path>& websiteClone() const { return clone_; }

    // Clones the publishing branch and points the delivery plan's repository and feed at the
    // same places in the clone, which is never pushed.
    void useWebsiteClone(ResolvedDeliveryConfig& delivery, const WebDeployConfig& deploy,
                         StopToken stop);
    // What the stages would have done.
    void versionNotWritten(const std::string& version, std::int64_t build) const;
    void sparkleNotSetUp(const std::vector<std::string>& changes) const;
    void notarizationNotSubmitted(const std::filesystem::path& dmg,
                                  const std::string& keychainProfile) const;
    void gitHubNotPublished(const GitHubReleaseConfig& config, const std::filesystem::path& dmg,
                            const std::string& appName, const std::string& version,
                            const std::filesystem::path& notes) const;

private:
    std::filesystem::path base_;
    std::filesystem::path files_;
    std::optional<std::filesystem::path> clone_;
    Log log_;
};

} // namespace veltra
