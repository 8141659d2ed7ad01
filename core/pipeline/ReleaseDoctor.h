#pragma once

#include "core/feed/SparkleFeedItem.h"
#include "core/process/ProcessRunner.h"
#include "core/profile/ProjectProfile.h"
#include "core/support/JsonReader.h"
#include "core/support/StopToken.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

enum class DoctorVerdict { ok, warning, problem };
std::string_view rawValue(DoctorVerdict verdict);

// One prerequisite of a release: what was found and, unless it is fine, what to do.
struct DoctorFinding {
    std::string check;
    DoctorVerdict verdict = DoctorVerdict::ok;
    std::string found;
    std::string advice;

    Json toJson() const;
};

// Looks at everything a release needs before one is started, through the same engines a release
// uses. Each check has a time limit; one that does not answer in time is a problem of its own
// and the others still run.
class ReleaseDoctor {
public:
    std::chrono::milliseconds timeLimit{std::chrono::seconds(20)};
    // Where releases are built (the disk check); the system's temporary folder when empty.
    std::filesystem::path temporaryDirectory{};
    // Certificates that expire within this many days are a warning.
    std::int64_t expiryWarningDays = 30;

    // Without a profile, only what needs none: Xcode, the signing identities and `gh`.
    std::vector<DoctorFinding> examine(const ProjectProfile* profile, StopToken stop = {}) const;

    DoctorFinding xcode(StopToken stop = {}) const;
    std::vector<DoctorFinding> signing(const ProjectProfile* profile, StopToken stop = {}) const;
    DoctorFinding notarization(const ProjectProfile& profile, StopToken stop = {}) const;
    // What Gatekeeper says of the newest release's image, where spctl exists and the image is
    // still in the output folder; a rejection explained. None where it cannot be asked.
    std::vector<DoctorFinding> gatekeeper(const ProjectProfile& profile, StopToken stop = {}) const;
    // The profile's project is there and is a project (a folder where it should be is not).
    std::vector<DoctorFinding> project(const ProjectProfile& profile) const;
    std::vector<DoctorFinding> sparkle(const ProjectProfile& profile) const;
    std::vector<DoctorFinding> website(const ProjectProfile& profile, StopToken stop = {}) const;
    DoctorFinding github(const ProjectProfile* profile, StopToken stop = {}) const;
    DoctorFinding disk(const ProjectProfile* profile) const;

private:
    DoctorFinding liveDownloads(const ProjectProfile& profile,
                                const std::vector<SparkleFeedItem>& items, StopToken stop) const;
    std::vector<DoctorFinding>
    limited(const std::string& name,
            const std::function<std::vector<DoctorFinding>(StopToken)>& check,
            StopToken stop) const;
};

} // namespace veltra
