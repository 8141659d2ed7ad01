#pragma once

#include "core/records/DMGDesignConfig.h"

#include <filesystem>
#include <optional>
#include <string>

namespace veltra {

// How the image is made: hdiutil where there is one (macOS), else Veltra's own HFS+ volume and
// UDIF writer; or either on request.
enum class DMGEngine { automatic, hdiutil, native };

// What one disk image is built from and where it goes.
struct DMGBuildOptions {
    // The exported .app bundle to pack.
    std::filesystem::path appPath;
    // Where the finished compressed image is written (an existing file is replaced).
    std::filesystem::path outputDMGPath;
    DMGDesignConfig config;
    // A code-signing identity; absent or empty leaves the image unsigned.
    std::optional<std::string> signingIdentity;
    DMGEngine engine = DMGEngine::automatic;
};

} // namespace veltra
