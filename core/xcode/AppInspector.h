#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// The facts of a built application that a release shows and checks.
struct AppInfo {
    std::filesystem::path appPath{};
    std::string bundleIdentifier{};
    std::string displayName{};
    std::string version{};
    std::string build{};
    std::string minimumOSVersion{};
    bool isCodesigned = false;
    // The signature's team; absent for unsigned and ad-hoc signed apps.
    std::optional<std::string> signingTeam{};
    std::vector<std::string> architectures{};
    std::optional<std::filesystem::path> executableURL{};
    std::optional<std::filesystem::path> iconURL{};
    std::optional<std::string> sparkleFeedURL{};
};

class AppInspector {
public:
    ProcessRunner processRunner{};

    // Throws VeltraError 404 (no bundle) or 400 (no readable Info.plist dictionary).
    AppInfo inspect(const std::filesystem::path& app, StopToken stop = {}) const;

    // `codesign --verify --deep --strict`: nothing when the signature holds, else what
    // codesign said (its error output, trimmed).
    std::optional<std::string> signatureProblem(const std::filesystem::path& app,
                                                StopToken stop = {}) const;

    // The team in a `codesign -dvvv` report; "not set" (ad-hoc) counts as none.
    static std::optional<std::string> teamIdentifier(std::string_view report);
    // The names `lipo -archs` printed.
    static std::vector<std::string> architectureNames(std::string_view output);
};

} // namespace veltra
