#pragma once

#include "core/process/ProcessRunner.h"
#include "core/profile/ProjectProfile.h"
#include "core/publishing/StaticSiteServer.h"
#include "core/support/LogHandler.h"

#include <filesystem>
#include <memory>
#include <optional>

namespace veltra {

// A self-contained place to release the sample app from: the sample project in its own git
// repository, a Sparkle key made for it, a website repository with a bare origin whose
// post-receive hook publishes the pushed branch into a served folder, a local web server for
// that folder, and a profile that ties them together. Nothing outside `root` is touched.
class DemoSandbox {
public:
    // Builds the sandbox in `root` (missing or empty) from the sample project folder `sample`
    // (holding Sample.xcodeproj). Throws VeltraError when `root` holds files or a step fails.
    DemoSandbox(const std::filesystem::path& root, const std::filesystem::path& sample,
                const LogHandler& log = {});

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path project() const { return root_ / "Sample" / "Sample.xcodeproj"; }
    std::filesystem::path website() const { return root_ / "website"; }
    std::filesystem::path origin() const { return root_ / "origin.git"; }
    // What the hosting service serves: origin's main branch as last pushed.
    std::filesystem::path served() const { return root_ / "live-site"; }
    std::filesystem::path releases() const { return root_ / "releases"; }
    std::filesystem::path privateKey() const { return root_ / "keys" / "ed25519_priv"; }
    std::filesystem::path profilesFile() const { return root_ / "profiles.json"; }
    const std::string& publicKey() const { return publicKey_; }
    // "http://127.0.0.1:<port>/"
    std::string siteURL() const { return server_->url(); }
    const ProjectProfile& profile() const { return profile_; }

    // Which tools release the sample: a Mac's own Xcode when it answers, else the stand-ins
    // installed beside Veltra (share/veltra/tools), which then go first on every tool's PATH.
    // Returns the stand-ins' folder, or none for Xcode; throws VeltraError when there is
    // neither.
    static std::optional<std::filesystem::path> useStandInsUnlessXcode();

    // Leaves `root` releasable as it stands: "<root>/veltra" runs `veltra` (the program at
    // `program`) with the sandbox's profile file and, when `tools` is given, the stand-ins the
    // sandbox was made with. Returns the script's path.
    static std::filesystem::path writeLauncher(const std::filesystem::path& root,
                                               const std::filesystem::path& program,
                                               const std::optional<std::filesystem::path>& tools);
    // Serves a kept sandbox's published site again, on the address its profile names (the feed
    // address the app reads). Throws VeltraError when `root` is no sandbox or the port is taken.
    static std::unique_ptr<StaticSiteServer> serveAgain(const std::filesystem::path& root);

private:
    std::filesystem::path root_;
    std::unique_ptr<StaticSiteServer> server_;
    std::string publicKey_;
    ProjectProfile profile_;
};

} // namespace veltra
