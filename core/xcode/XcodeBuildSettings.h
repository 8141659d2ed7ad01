#pragma once

#include "XcodeProjectInfo.h"
#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// One target of `xcodebuild -showBuildSettings -json`.
struct TargetSettings {
    std::string target{};
    std::map<std::string, std::string> buildSettings{};
};

// Why the Release build settings could not be read.
class BuildSettingsError : public VeltraError {
public:
    enum class Kind { toolFailed, invalidResponse };
    BuildSettingsError(Kind kind, std::string output);
    Kind kind() const noexcept { return kind_; }
    // What xcodebuild printed (both streams).
    const std::string& output() const noexcept { return output_; }

private:
    Kind kind_;
    std::string output_;
};

class XcodeBuildSettingsReading {
public:
    virtual ~XcodeBuildSettingsReading() = default;
    // Throws BuildSettingsError.
    virtual std::vector<TargetSettings> releaseBuildSettings(const XcodeProjectInfo& project,
                                                             const std::string& scheme,
                                                             StopToken stop) const = 0;
};

class XcodeBuildSettingsReader : public XcodeBuildSettingsReading {
public:
    std::vector<TargetSettings> releaseBuildSettings(const XcodeProjectInfo& project,
                                                     const std::string& scheme,
                                                     StopToken stop) const override;

    static std::vector<std::string> arguments(const XcodeProjectInfo& project,
                                              const std::string& scheme);
    // The targets in xcodebuild's standard output, which may carry notes before the JSON array
    // and waiting messages after it; nullopt when no array of the expected shape is there.
    static std::optional<std::vector<TargetSettings>> decode(std::string_view output);
};

// Checks that every app target of a scheme has a usable Info.plist in Release.
class XcodePlistValidator {
public:
    std::shared_ptr<const XcodeBuildSettingsReading> reader =
        std::make_shared<XcodeBuildSettingsReader>();

    // nullopt when all is well, else the message for the user. Never throws, except
    // CancellationError.
    std::optional<std::string> validate(const XcodeProjectInfo& project, const std::string& scheme,
                                        StopToken stop = {}) const;

    // The checks on settings already read, in xcodebuild's target order.
    static std::optional<std::string> check(const std::vector<TargetSettings>& targets,
                                            const std::string& scheme);
};

} // namespace veltra
