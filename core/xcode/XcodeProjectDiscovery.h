#pragma once

#include "XcodeProjectInfo.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace veltra {

// Fills XcodeProjectInfo from the files Xcode keeps on disk, without running Xcode.
class XcodeProjectDiscovery {
public:
    // `path` is a .xcodeproj, a .xcworkspace, or a folder holding one (a workspace wins, then
    // the first project by name; one level of sub-folders is searched when the folder has
    // neither). Throws VeltraError 404 when there is no project, 400 when its file is unreadable.
    static XcodeProjectInfo discover(const std::filesystem::path& path);

    // The project or workspace that `path` names or holds; nullopt when there is none.
    static std::optional<std::filesystem::path> locate(const std::filesystem::path& path);

    // A .xcscheme document (character references decoded by the XML parser). Throws VeltraError
    // 400 when it is not well-formed XML.
    static XcodeScheme parseScheme(std::string_view xml, std::string name);

    // The projects a contents.xcworkspacedata lists, resolved against `folder` (the one holding
    // the workspace). "self:" entries are left out: they name the enclosing project.
    static std::vector<std::filesystem::path>
    workspaceProjects(std::string_view xml, const std::filesystem::path& folder);

    // The settings of project.pbxproj (parsed) that discovery reads, for the app target `target`
    // (an object ID; the first application target when empty) in `configuration`.
    struct ProjectSettings {
        std::vector<std::string> configurations{};
        std::optional<std::string> appTarget{};
        std::optional<std::string> bundleIdentifier{};
        std::optional<std::string> developmentTeam{};
    };
    static ProjectSettings projectSettings(const nlohmann::json& project,
                                           const std::string& targetID,
                                           const std::string& configuration);
};

} // namespace veltra
