#include "XcodeBuildSettings.h"

#include "XcodeEnvironment.h"
#include "core/support/PropertyList.h"
#include "core/support/Text.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <nlohmann/json.hpp>

namespace veltra {

namespace fs = std::filesystem;

BuildSettingsError::BuildSettingsError(Kind kind, std::string output)
    : VeltraError("Veltra", kind == Kind::toolFailed ? 500 : 502,
                  kind == Kind::toolFailed ? "xcodebuild could not read the build settings."
                                           : "xcodebuild returned an invalid response."),
      kind_(kind), output_(std::move(output)) {}

std::vector<std::string> XcodeBuildSettingsReader::arguments(const XcodeProjectInfo& project,
                                                             const std::string& scheme) {
    return {project.isWorkspace ? "-workspace" : "-project",
            project.projectPath.string(),
            "-scheme",
            scheme,
            "-configuration",
            project.archiveConfiguration(scheme),
            "-destination",
            "generic/platform=macOS",
            "-showBuildSettings",
            "-json"};
}

namespace {

// The span of the JSON array: from the first line that is only "[" (or, for compact output,
// the first line starting with "[") to its matching "]".
std::optional<std::string_view> arrayText(std::string_view output) {
    std::size_t start = std::string_view::npos;
    std::size_t compact = std::string_view::npos;
    for (std::size_t line = 0; line < output.size();) {
        auto end = output.find('\n', line);
        if (end == std::string_view::npos) {
            end = output.size();
        }
        const auto text = trimWhitespace(output.substr(line, end - line));
        if (text == "[") {
            start = static_cast<std::size_t>(text.data() - output.data());
            break;
        }
        if (compact == std::string_view::npos && text.starts_with("[")) {
            compact = static_cast<std::size_t>(text.data() - output.data());
        }
        line = end + 1;
    }
    if (start == std::string_view::npos) {
        start = compact;
    }
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    int depth = 0;
    bool inString = false;
    for (std::size_t index = start; index < output.size(); ++index) {
        const char c = output[index];
        if (inString) {
            if (c == '\\') {
                ++index;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (c == ']' || c == '}') {
            if (--depth == 0) {
                return output.substr(start, index + 1 - start);
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<std::vector<TargetSettings>>
XcodeBuildSettingsReader::decode(std::string_view output) {
    const auto text = arrayText(output);
    if (!text) {
        return std::nullopt;
    }
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_array()) {
        return std::nullopt;
    }
    std::vector<TargetSettings> targets;
    for (const auto& entry : json) {
        if (!entry.is_object()) {
            return std::nullopt;
        }
        const auto target = entry.find("target");
        const auto settings = entry.find("buildSettings");
        if (target == entry.end() || !target->is_string() || settings == entry.end() ||
            !settings->is_object()) {
            return std::nullopt;
        }
        TargetSettings decoded;
        decoded.target = target->get<std::string>();
        for (const auto& [key, value] : settings->items()) {
            if (!value.is_string()) {
                return std::nullopt;
            }
            decoded.buildSettings.emplace(key, value.get<std::string>());
        }
        targets.push_back(std::move(decoded));
    }
    return targets;
}

std::vector<TargetSettings>
XcodeBuildSettingsReader::releaseBuildSettings(const XcodeProjectInfo& project,
                                               const std::string& scheme, StopToken stop) const {
    ProcessResult result;
    try {
        result = ProcessRunner::run("xcodebuild", arguments(project, scheme), stop);
    } catch (const VeltraError& error) {
        throw BuildSettingsError(BuildSettingsError::Kind::toolFailed, error.what());
    }
    if (result.exitCode != 0) {
        throw BuildSettingsError(BuildSettingsError::Kind::toolFailed, combinedOutput(result));
    }
    auto targets = decode(result.output);
    if (!targets) {
        throw BuildSettingsError(BuildSettingsError::Kind::invalidResponse, combinedOutput(result));
    }
    return std::move(*targets);
}

namespace {

std::string setting(const TargetSettings& target, const std::string& key) {
    const auto found = target.buildSettings.find(key);
    return found == target.buildSettings.end() ? std::string() : found->second;
}

} // namespace

std::optional<std::string> XcodePlistValidator::check(const std::vector<TargetSettings>& targets,
                                                      const std::string& scheme) {
    bool anyApp = false;
    for (const auto& target : targets) {
        if (setting(target, "WRAPPER_EXTENSION") != "app") {
            continue;
        }
        anyApp = true;
        const auto& name = target.target;
        const std::string file(trimWhitespace(setting(target, "INFOPLIST_FILE")));
        if (file.empty()) {
            if (asciiLowercase(setting(target, "GENERATE_INFOPLIST_FILE")) == "yes") {
                continue;
            }
            return "Release target '" + name +
                   "' has no Info.plist. Set INFOPLIST_FILE or enable GENERATE_INFOPLIST_FILE in "
                   "Xcode, then retry.";
        }
        if (file.find("$(") != std::string::npos || file.find("${") != std::string::npos) {
            return "Release target '" + name + "' has an unresolved INFOPLIST_FILE: '" + file +
                   "'. Fix its build-setting variables, then retry.";
        }
        fs::path path(file);
        if (path.is_relative()) {
            auto root = setting(target, "SRCROOT");
            if (root.empty()) {
                root = setting(target, "PROJECT_DIR");
            }
            if (root.empty()) {
                return "Release target '" + name +
                       "' has no source directory for INFOPLIST_FILE '" + file +
                       "'. Check its Xcode build settings, then retry.";
            }
            path = fs::path(root) / path;
        }
        std::error_code error;
        if (!fs::is_regular_file(path, error)) {
            return "Release target '" + name + "' references a missing Info.plist: '" +
                   path.string() + "'. Fix INFOPLIST_FILE or restore the file, then retry.";
        }
        try {
            readPropertyListDictionary(path);
        } catch (const std::exception& problem) {
            return "Release target '" + name + "' cannot read Info.plist at '" + path.string() +
                   "'. Fix the plist contents or permissions, then retry.\n" + problem.what();
        }
    }
    if (!anyApp) {
        return "Xcode returned no Release targets for '" + scheme +
               "'. Check the selected scheme, then retry.";
    }
    return std::nullopt;
}

std::optional<std::string> XcodePlistValidator::validate(const XcodeProjectInfo& project,
                                                         const std::string& scheme,
                                                         StopToken stop) const {
    std::vector<TargetSettings> targets;
    try {
        targets = reader->releaseBuildSettings(project, scheme, stop);
    } catch (const BuildSettingsError& error) {
        if (error.kind() == BuildSettingsError::Kind::invalidResponse) {
            return "Could not read Release build settings for '" + scheme +
                   "': Xcode returned an invalid response.";
        }
        if (error.output().find("requires Xcode") != std::string::npos ||
            error.output().find("CommandLineTools") != std::string::npos) {
            return XcodeEnvironmentValidator::commandLineToolsMessage;
        }
        return "Could not read Release build settings for '" + scheme +
               "'. Fix the Xcode configuration, then retry.\n" + error.output();
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        return "Could not read Release build settings for '" + scheme +
               "'. Fix the Xcode configuration, then retry.\n" + error.what();
    }
    return check(targets, scheme);
}

} // namespace veltra
