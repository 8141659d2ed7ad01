#include "SparkleProjectSetup.h"

#include "ProjectFileParser.h"
#include "ProjectText.h"
#include "SparklePackageSetup.h"
#include "XcodeProjectDiscovery.h"
#include "core/support/FileUtilities.h"
#include "core/support/PathRules.h"
#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>

namespace veltra {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

VeltraError setupError(const std::string& message) {
    return VeltraError("Veltra", errorCode::invalidSetup, message);
}

const Json* objectOf(const Json& objects, const Json& id) {
    if (!id.is_string()) {
        return nullptr;
    }
    const auto found = objects.find(id.get<std::string>());
    return found != objects.end() && found->is_object() ? &*found : nullptr;
}

std::string stringOf(const Json& json, const char* key) {
    const auto found = json.find(key);
    return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
}

struct Configuration {
    std::string id;
    std::string name;
    Json settings;
};

// The configurations of the object (a target or the project) whose list is `listID`.
std::vector<Configuration> configurationsOf(const Json& objects, const Json& listID,
                                            std::string* defaultName) {
    std::vector<Configuration> found;
    const auto* list = objectOf(objects, listID);
    if (list == nullptr) {
        return found;
    }
    if (defaultName != nullptr) {
        *defaultName = stringOf(*list, "defaultConfigurationName");
    }
    for (const auto& id : list->value("buildConfigurations", Json::array())) {
        if (const auto* configuration = objectOf(objects, id)) {
            const auto settings = configuration->find("buildSettings");
            found.push_back({id.get<std::string>(), stringOf(*configuration, "name"),
                             settings != configuration->end() && settings->is_object()
                                 ? *settings
                                 : Json::object()});
        }
    }
    return found;
}

const Configuration* releaseOf(const std::vector<Configuration>& all,
                               const std::string& defaultName) {
    for (const auto* name : {"Release", defaultName.c_str()}) {
        const auto found = std::ranges::find_if(
            all, [&](const Configuration& configuration) { return configuration.name == name; });
        if (found != all.end()) {
            return &*found;
        }
    }
    return all.empty() ? nullptr : &all.front();
}

// A path as a project file writes it: bare when Xcode would leave it bare.
std::string projectString(const std::string& value) {
    const bool bare = !value.empty() && std::ranges::all_of(value, [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '$' || c == '.' || c == '/';
    });
    if (bare) {
        return value;
    }
    std::string quoted = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "\"";
}

// INFOPLIST_FILE relative to the project's folder.
std::string withoutSourceRoot(std::string value) {
    for (const std::string prefix :
         {"$(SRCROOT)/", "${SRCROOT}/", "$(PROJECT_DIR)/", "${PROJECT_DIR}/"}) {
        if (value.starts_with(prefix)) {
            return value.substr(prefix.size());
        }
    }
    return value;
}

// The target's Release setting, else the project's.
std::string settingOf(const Configuration* target, const Configuration* project, const char* key) {
    for (const auto* configuration : {target, project}) {
        if (configuration != nullptr) {
            if (const auto value = stringOf(configuration->settings, key); !value.empty()) {
                return value;
            }
        }
    }
    return {};
}

} // namespace

namespace {

// The .xcodeproj and app target a request means: a workspace (or a folder holding one) gives
// the project and target of the scheme that archives the app.
struct SetupSubject {
    fs::path project;
    std::optional<std::string> target;
    // A scheme Xcode made for a target is named after it: the target to take among several.
    std::optional<std::string> targetByName;
};

SetupSubject projectAndTarget(const SparkleSetupRequest& request) {
    auto project = request.project;
    if (project.extension() == ".xcodeproj" && !fs::is_regular_file(project / "project.pbxproj")) {
        throw setupError("No Xcode project at " + project.string() + ".");
    }
    if (project.extension() != ".xcodeproj") {
        const auto located = XcodeProjectDiscovery::locate(project);
        if (!located) {
            throw setupError("No Xcode project or workspace at " + project.string() + ".");
        }
        project = *located;
    }
    const auto info = XcodeProjectDiscovery::discover(project);
    const XcodeScheme* scheme = nullptr;
    if (request.scheme) {
        scheme = info.scheme(*request.scheme);
        if (scheme == nullptr && info.isWorkspace) {
            throw setupError("The workspace " + info.name + " has no shared scheme named " +
                             *request.scheme + ".");
        }
    } else if (info.isWorkspace && info.defaultScheme) {
        scheme = info.scheme(*info.defaultScheme);
    }
    auto target = request.target;
    if (!target && scheme != nullptr && scheme->appTarget) {
        target = scheme->appTarget;
    }
    const auto byName = target ? std::nullopt : request.scheme;
    if (!info.isWorkspace) {
        return {project, target, byName};
    }
    if (const auto member = scheme != nullptr ? scheme->containerProject() : std::nullopt;
        member && member->extension() == ".xcodeproj") {
        return {*member, target, byName};
    }
    std::vector<fs::path> members;
    for (const auto& member : info.projects) {
        if (member.filename() != "Pods.xcodeproj" && fs::is_directory(member)) {
            members.push_back(member);
        }
    }
    if (members.size() != 1) {
        throw setupError("The workspace " + info.name +
                         " has no scheme that archives an application" +
                         (members.empty() ? std::string(" and no project")
                                          : std::string(" in one of its projects")) +
                         "; name the scheme (--scheme) or the project.");
    }
    return {members.front(), target, byName};
}

// A file made inside a folder that Xcode keeps in sync with the target would also be copied into
// the app ("Multiple commands produce Info.plist"); Xcode excepts it from the target, so do we.
void exceptFromSynchronizedFolder(ProjectText& text, const Json& objects,
                                  const std::string& targetID, const Json& target,
                                  const std::string& file, SparkleSetupPlan& plan) {
    for (const auto& groupID : target.value("fileSystemSynchronizedGroups", Json::array())) {
        const auto* group = objectOf(objects, groupID);
        if (group == nullptr || stringOf(*group, "isa") != "PBXFileSystemSynchronizedRootGroup") {
            continue;
        }
        const auto folder = stringOf(*group, "path");
        if (folder.empty() || !file.starts_with(folder + "/")) {
            continue;
        }
        const auto inside = file.substr(folder.size() + 1);
        const auto what = inside + " out of the files target " + plan.targetName +
                          " takes from its synchronized folder " + folder;
        for (const auto& setID : group->value("exceptions", Json::array())) {
            const auto* set = objectOf(objects, setID);
            if (set == nullptr ||
                stringOf(*set, "isa") != "PBXFileSystemSynchronizedBuildFileExceptionSet" ||
                stringOf(*set, "target") != targetID) {
                continue;
            }
            const auto excepted = set->value("membershipExceptions", Json::array());
            if (std::ranges::find(excepted, Json(inside)) == excepted.end()) {
                text.addToList(setID.get<std::string>(), "membershipExceptions",
                               projectString(inside));
                plan.changes.push_back("Leave " + what);
                plan.done.push_back("Left " + what);
            }
            return;
        }
        const auto setID = ProjectText::newObjectID(text.text());
        const auto comment =
            " /* Exceptions for \"" + folder + "\" folder in \"" + plan.targetName + "\" target */";
        text.addToSection("PBXFileSystemSynchronizedBuildFileExceptionSet", setID,
                          "\t\t" + setID + comment +
                              " = {\n"
                              "\t\t\tisa = PBXFileSystemSynchronizedBuildFileExceptionSet;\n"
                              "\t\t\tmembershipExceptions = (\n"
                              "\t\t\t\t" +
                              projectString(inside) +
                              ",\n"
                              "\t\t\t);\n"
                              "\t\t\ttarget = " +
                              targetID + " /* " + plan.targetName + " */;\n\t\t};\n");
        text.addToList(groupID.get<std::string>(), "exceptions", setID + comment);
        plan.changes.push_back("Leave " + what);
        plan.done.push_back("Left " + what);
        return;
    }
}

bool isTrue(const Json& dictionary, const char* key) {
    const auto found = dictionary.find(key);
    return found != dictionary.end() && found->is_boolean() && found->get<bool>();
}

// Sparkle's installer runs outside a sandboxed app through an XPC service the app must turn
// on and be allowed to look up; without a network entitlement it downloads through another.
void planSandbox(SparkleSetupPlan& plan, const fs::path& folder, std::string entitlementsSetting,
                 const Json& infoPlist, const std::string& infoPlistSetting) {
    entitlementsSetting = withoutSourceRoot(entitlementsSetting);
    if (entitlementsSetting.empty() || relativePathProblem(entitlementsSetting)) {
        return;
    }
    const auto file = folder / entitlementsSetting;
    std::error_code error;
    if (!fs::is_regular_file(file, error) || !resolvesInside(file, folder)) {
        return;
    }
    const auto text = readFile(file);
    const auto entitlements = parsePropertyList(text);
    if (!entitlements.is_object() || !isTrue(entitlements, "com.apple.security.app-sandbox")) {
        return;
    }
    const auto turnOn = [&](const char* key) {
        if (!isTrue(infoPlist, key)) {
            plan.plistBooleans[key] = true;
            plan.changes.push_back(std::string("Set ") + key + " in " + infoPlistSetting +
                                   " (the app is sandboxed)");
            plan.done.push_back(std::string("Set ") + key + " in " + infoPlistSetting);
        }
    };
    turnOn("SUEnableInstallerLauncherService");
    if (!isTrue(entitlements, "com.apple.security.network.client")) {
        turnOn("SUEnableDownloaderService");
    }
    constexpr const char* lookup = "com.apple.security.temporary-exception.mach-lookup.global-name";
    const std::vector<std::string> names{"$(PRODUCT_BUNDLE_IDENTIFIER)-spks",
                                         "$(PRODUCT_BUNDLE_IDENTIFIER)-spki"};
    const auto present = entitlements.value(lookup, Json::array());
    if (std::ranges::all_of(names, [&](const std::string& name) {
            return present.is_array() && std::ranges::find(present, Json(name)) != present.end();
        })) {
        return;
    }
    plan.entitlementsFile = file;
    plan.entitlementsText = editPropertyList(text, {.arrayAdditions = {{lookup, names}}});
    plan.changes.push_back("Let the sandboxed app reach Sparkle's installer (" +
                           entitlementsSetting + ": mach-lookup " + names[0] + ", " + names[1] +
                           ")");
    plan.done.push_back("Added Sparkle's installer mach-lookup exceptions to " +
                        entitlementsSetting);
}

} // namespace

SparkleSetupPlan SparkleProjectSetup::plan(const SparkleSetupRequest& request) {
    const auto subject = projectAndTarget(request);
    SparkleSetupPlan plan;
    plan.projectFile = subject.project / "project.pbxproj";
    if (!fs::is_regular_file(plan.projectFile)) {
        throw setupError("No Xcode project at " + subject.project.string() + ".");
    }
    const auto original = readFile(plan.projectFile);
    auto package = [&] {
        try {
            try {
                return SparklePackageSetup::plan(original, subject.target);
            } catch (const VeltraError& error) {
                if (!subject.targetByName ||
                    !error.message().starts_with("The project has several application targets")) {
                    throw;
                }
                return SparklePackageSetup::plan(original, subject.targetByName);
            }
        } catch (const VeltraError& error) {
            // Said of this project by name: a workspace has several.
            throw VeltraError(error.domain(), error.code(),
                              subject.project.filename().string() + ": " + error.message());
        }
    }();
    plan.targetName = package.targetName;
    plan.changes = package.changes;
    plan.addsPackage = !package.changes.empty();
    if (plan.addsPackage) {
        plan.done.push_back("Added the Sparkle package to " + plan.targetName);
    }
    ProjectText text{std::move(package.text)};

    const auto project = parseProjectFile(text.text());
    const auto& objects = project["objects"];
    const auto* root = objectOf(objects, project["rootObject"]);
    const Json* target = nullptr;
    std::string targetID;
    for (const auto& id : root == nullptr ? Json::array() : root->value("targets", Json::array())) {
        if (const auto* candidate = objectOf(objects, id);
            candidate != nullptr && stringOf(*candidate, "name") == plan.targetName) {
            target = candidate;
            targetID = id.get<std::string>();
        }
    }
    if (target == nullptr) {
        throw setupError("The project file lost target " + plan.targetName + " on the way.");
    }
    std::string targetDefault;
    std::string projectDefault;
    const auto targetConfigurations =
        configurationsOf(objects, target->value("buildConfigurationList", Json()), &targetDefault);
    const auto projectConfigurations =
        configurationsOf(objects, root->value("buildConfigurationList", Json()), &projectDefault);
    const auto* release = releaseOf(targetConfigurations, targetDefault);
    const auto* projectRelease = releaseOf(projectConfigurations, projectDefault);

    const auto folder = subject.project.parent_path();
    auto infoPlistSetting = withoutSourceRoot(settingOf(release, projectRelease, "INFOPLIST_FILE"));
    if (infoPlistSetting.empty()) {
        if (settingOf(release, projectRelease, "GENERATE_INFOPLIST_FILE") != "YES") {
            throw setupError("Target " + plan.targetName +
                             " names no Info.plist (INFOPLIST_FILE) and generates none.");
        }
        infoPlistSetting = plan.targetName + "/Info.plist";
        for (const auto& configuration : targetConfigurations) {
            text.setBuildSetting(configuration.id, "INFOPLIST_FILE",
                                 projectString(infoPlistSetting));
        }
        plan.changes.push_back("Set INFOPLIST_FILE = " + infoPlistSetting + " in target " +
                               plan.targetName +
                               "'s configurations (Xcode merges it with the generated keys)");
        plan.done.push_back("Set INFOPLIST_FILE = " + infoPlistSetting + " in target " +
                            plan.targetName);
        exceptFromSynchronizedFolder(text, objects, targetID, *target, infoPlistSetting, plan);
    }
    // The project names the file it changes; it must not lead out of the project's folder.
    if (relativePathProblem(infoPlistSetting)) {
        throw setupError("Target " + plan.targetName + "'s Info.plist (" + infoPlistSetting +
                         ") is outside the project's folder.");
    }
    plan.infoPlist = folder / infoPlistSetting;
    if (!resolvesInside(plan.infoPlist, folder)) {
        throw setupError("Target " + plan.targetName + "'s Info.plist (" + infoPlistSetting +
                         ") leads out of the project's folder through a symbolic link.");
    }

    Json current = Json::object();
    if (fs::exists(plan.infoPlist)) {
        current = readPropertyListDictionary(plan.infoPlist);
    }
    for (const auto& [key, wanted] :
         {std::pair<std::string, std::string>{"SUFeedURL", request.feedURL},
          {"SUPublicEDKey", request.publicKey}}) {
        const auto has = stringOf(current, key.c_str());
        if (has == wanted) {
            continue;
        }
        if (has.empty()) {
            plan.plistValues[key] = wanted;
            plan.changes.push_back("Set " + key + " in " + infoPlistSetting);
            plan.done.push_back("Set " + key + " in " + infoPlistSetting);
        } else if (request.force) {
            plan.plistValues[key] = wanted;
            plan.changes.push_back("Replace " + key + " in " + infoPlistSetting + " (was " + has +
                                   ")");
            plan.done.push_back("Replaced " + key + " in " + infoPlistSetting);
        } else {
            plan.conflicts.push_back(key + " in " + infoPlistSetting + " is " + has + ", not " +
                                     wanted);
        }
    }
    planSandbox(plan, folder, settingOf(release, projectRelease, "CODE_SIGN_ENTITLEMENTS"), current,
                infoPlistSetting);
    if (text.text() != original) {
        plan.projectText = text.release();
    }
    return plan;
}

void SparkleProjectSetup::apply(const SparkleSetupPlan& plan) {
    if (!plan.plistValues.empty() || !plan.plistBooleans.empty()) {
        std::error_code ignored;
        fs::create_directories(plan.infoPlist.parent_path(), ignored);
        const auto existing = fs::exists(plan.infoPlist) ? readFile(plan.infoPlist) : std::string();
        writeFileAtomically(plan.infoPlist,
                            editPropertyList(existing, {.booleans = plan.plistBooleans,
                                                        .strings = plan.plistValues}));
    }
    if (plan.entitlementsText) {
        writeFileAtomically(plan.entitlementsFile, *plan.entitlementsText);
    }
    if (plan.projectText) {
        writeFileAtomically(plan.projectFile, *plan.projectText);
    }
}

std::string SparkleProjectSetup::swiftSnippet() {
    return R"(SwiftUI: start the updater with the app and add the menu item.

    import Sparkle

    @main
    struct MyApp: App {
        private let updaterController = SPUStandardUpdaterController(
            startingUpdater: true, updaterDelegate: nil, userDriverDelegate: nil)

        var body: some Scene {
            WindowGroup { ContentView() }
                .commands {
                    CommandGroup(after: .appInfo) {
                        Button("Check for Updates…") {
                            updaterController.updater.checkForUpdates()
                        }
                    }
                }
        }
    }

AppKit: keep the controller in the app delegate and point a menu item at it.

    import Sparkle

    let updaterController = SPUStandardUpdaterController(
        startingUpdater: true, updaterDelegate: nil, userDriverDelegate: nil)
    // "Check for Updates…": target updaterController,
    // action #selector(SPUStandardUpdaterController.checkForUpdates(_:))
)";
}

} // namespace veltra
