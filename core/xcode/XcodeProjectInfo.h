#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// One shared scheme: what an archive of it builds.
struct XcodeScheme {
    std::string name{};
    std::filesystem::path file{};
    // The ArchiveAction's configuration; "Release" when the scheme names none.
    std::string archiveConfiguration = "Release";
    // The .app the scheme archives (its BuildableName), the target that builds it and that
    // target's object ID; absent for schemes that build no application.
    std::optional<std::string> appName{};
    std::optional<std::string> appTarget{};
    std::optional<std::string> appTargetID{};
    // The .xcodeproj the app target lives in, as the scheme names it ("container:App.xcodeproj").
    std::optional<std::string> container{};

    // The .xcodeproj that `container` names, resolved as Xcode resolves it.
    std::optional<std::filesystem::path> containerProject() const;
};

// What the rest of Veltra knows about the user's project.
struct XcodeProjectInfo {
    std::filesystem::path projectPath{};
    bool isWorkspace = false;
    std::string name{};
    std::vector<std::string> schemes{};
    std::vector<std::string> configurations{};
    std::optional<std::string> defaultScheme{};
    std::optional<std::string> bundleIdentifier{};
    std::optional<std::string> developmentTeam{};

    // The member projects a workspace lists (the project itself otherwise), and those of them
    // that are not on disk (CocoaPods' Pods project before `pod install`).
    std::vector<std::filesystem::path> projects{};
    std::vector<std::filesystem::path> missingProjects{};
    std::vector<XcodeScheme> schemeDetails{};
    // The application target whose settings gave the bundle identifier and team.
    std::optional<std::string> appTarget{};

    // The configuration to archive with instead of the scheme's own (the profile's choice).
    std::optional<std::string> configurationOverride{};

    const XcodeScheme* scheme(const std::string& schemeName) const;
    // The configuration `xcodebuild archive` builds for `schemeName`: the override, else the
    // scheme's ArchiveAction's, else "Release".
    std::string archiveConfiguration(const std::string& schemeName) const;
};

} // namespace veltra
