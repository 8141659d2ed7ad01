#pragma once

#include "DMGBuildOptions.h"
#include "DSStoreWriter.h"
#include "core/process/ProcessRunner.h"
#include "core/process/TransientRetry.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <filesystem>

namespace veltra {

// Packs an exported app into the distributable disk image: a staging folder with the app, a
// link to /Applications and the background picture becomes a writable HFS+ image, which is
// mounted for the Finder layout, detached, compressed and optionally signed. Without hdiutil
// (or with VELTRA_DMG_ENGINE=native), the layout is written into the staging folder and Veltra
// makes the HFS+ volume and the UDIF image itself.
class DMGBuilder {
public:
    DSStoreWriter dsStoreWriter;
    // Where work files go; the system's temporary folder when empty.
    std::filesystem::path temporaryDirectory;
    // hdiutil's "Resource busy" while Spotlight or Finder still hold a fresh volume passes:
    // each hdiutil step is tried again for up to half a minute (detach then with -force).
    RetryPolicy busyRetry{std::chrono::milliseconds(1000), std::chrono::milliseconds(8000),
                          std::chrono::milliseconds(30000)};

    // On success the image exists at options.outputDMGPath. Throws VeltraError (code 500, the
    // domain and text of the failing step), the file system's VeltraError ("POSIX"), or
    // CancellationError; an attached image is always detached and work files removed first.
    void build(const DMGBuildOptions& options, const LogHandler& log = {},
               StopToken stop = {}) const;

    static constexpr double attachTimeout = 30;
    static constexpr double detachTimeout = 30;

private:
    void forceDetach(const std::filesystem::path& mountPoint) const;
};

} // namespace veltra
