#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

struct SparkleSetupRequest {
    // The .xcodeproj, or a .xcworkspace (or a folder holding one), whose scheme names the project.
    std::filesystem::path project{};
    // The app target; else the one `scheme` archives, else the only one.
    std::optional<std::string> target{};
    std::optional<std::string> scheme{};
    std::string feedURL{};
    std::string publicKey{};
    // Replace a different SUFeedURL or SUPublicEDKey the app has already.
    bool force = false;
};

// What setting a project up for updates changes, and the files as they become.
struct SparkleSetupPlan {
    std::string targetName{};
    // The target gets Sparkle from nowhere yet: the setup adds the package.
    bool addsPackage = false;
    // One line each, as the user reads them before they are made ...
    std::vector<std::string> changes{};
    // ... and once they are ("Added the Sparkle package to Sample").
    std::vector<std::string> done{};
    // Different values the app has already, kept without `force`, said as the doctor says them.
    std::vector<std::string> conflicts{};
    std::filesystem::path projectFile{};
    // The project file's new text, when it changes.
    std::optional<std::string> projectText{};
    std::filesystem::path infoPlist{};
    std::map<std::string, std::string> plistValues{};
    std::map<std::string, bool> plistBooleans{};
    // A sandboxed target's entitlements file and its new text, when Sparkle's installer needs
    // an exception there.
    std::filesystem::path entitlementsFile{};
    std::optional<std::string> entitlementsText{};

    bool alreadySetUp() const { return changes.empty() && conflicts.empty(); }
};

// Sets an Xcode project up for Sparkle's updates: the Swift package on the app target
// (SparklePackageSetup), and SUFeedURL and SUPublicEDKey in the Info.plist the target's Release
// configuration names; a target that generates its Info.plist gets <target folder>/Info.plist
// with the two keys (Xcode merges it with the generated ones) and INFOPLIST_FILE in each of its
// configurations. A sandboxed target (com.apple.security.app-sandbox in its CODE_SIGN_ENTITLEMENTS)
// also gets what Sparkle's sandboxed installer needs: SUEnableInstallerLauncherService, the
// "-spks"/"-spki" mach-lookup exceptions, and SUEnableDownloaderService without network.client.
// It writes no source code.
class SparkleProjectSetup {
public:
    // Reads the project and plans; changes nothing. Throws VeltraError naming what it cannot
    // set up.
    static SparkleSetupPlan plan(const SparkleSetupRequest& request);
    // Writes the plan's files: the Info.plist, then the project file, each atomically.
    static void apply(const SparkleSetupPlan& plan);
    // The few lines of Swift (SwiftUI and AppKit) that start Sparkle's standard updater and add
    // "Check for Updates…".
    static std::string swiftSnippet();
};

} // namespace veltra
