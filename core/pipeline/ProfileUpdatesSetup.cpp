#include "ProfileUpdatesSetup.h"

#include "SparkleKeys.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

namespace veltra {

bool ProfileUpdatesSetup::wanted(const ProjectProfile& profile,
                                 const SparkleAppSettings& embedded) {
    return embedded.feedURL.has_value() || !profile.sparkle.appcastPath.empty();
}

SparkleSetupRequest
ProfileUpdatesSetup::request(const ProjectProfile& profile, StopToken stop,
                             const std::optional<std::filesystem::path>& project,
                             const std::optional<std::string>& publicKey) {
    SparkleSetupRequest request;
    if (project) {
        request.project = *project;
    } else if (profile.sourceProjectPath && !profile.sourceProjectPath->empty()) {
        request.project = expandTilde(standardizePath(*profile.sourceProjectPath));
    } else {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The profile names no Xcode project to set up for updates.");
    }
    request.scheme = profile.selectedScheme;
    request.feedURL = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
    if (request.feedURL.empty()) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The profile has no website address for the app's feed; set its "
                          "website (webDeploy.siteURL) first.");
    }
    request.publicKey =
        publicKey ? *publicKey
                  : SparkleKeys::load(SparkleKeys::ofProfile(profile.sparkle), std::move(stop))
                        .publicKeyBase64();
    return request;
}

} // namespace veltra
