#pragma once

#include "core/process/ProcessRunner.h"
#include "core/profile/ProjectProfile.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>

namespace veltra {

// Creates a website repository a static hosting service can publish: Veltra's download page,
// a feed without releases in the downloads folder, one commit on the publishing branch, and
// origin when an address is given.
class WebsiteCreator {
public:
    // `folder` must not exist or be empty. Throws VeltraError ("Veltra", 409) otherwise, and
    // git's failures with the shared git failure text.
    void create(const std::filesystem::path& folder, const ProjectProfile& profile,
                const std::optional<std::string>& remote, const LogHandler& log = {},
                StopToken stop = {}) const;
};

} // namespace veltra
