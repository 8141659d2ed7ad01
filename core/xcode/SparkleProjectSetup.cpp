#include "SparkleProjectSetup.h"

#include "ProjectFileParser.h"
#include "ProjectText.h"
#include "SparklePackageSetup.h"
#include "core/support/FileUtilities.h"
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

SparkleSetupPlan SparkleProjectSetup::plan(const SparkleSetupRequest& request) {
    if (request.project.extension() != ".xcodeproj") {
        throw setupError("Set up an Xcode project (.xcodeproj), not " + request.project.string() +
                         ".");
    }
    SparkleSetupPlan plan;
    plan.projectFile = request.project / "project.pbxproj";
    if (!fs::is_regular_file(plan.projectFile)) {
        throw setupError("No Xcode project at " + request.project.string() + ".");
    }
    const auto original = readFile(plan.projectFile);
    auto package = [&] {
        try {
            return SparklePackageSetup::plan(original, request.target);
        } catch (const VeltraError& error) {
            // Several app targets: the scheme's, which Xcode names after its target.
            if (request.target || !request.scheme ||
                !error.message().starts_with("The project has several application targets")) {
                throw;
            }
            return SparklePackageSetup::plan(original, request.scheme);
        }
    }();
    plan.targetName = package.targetName;
    plan.changes = package.changes;
    ProjectText text{std::move(package.text)};

    const auto project = parseProjectFile(text.text());
    const auto& objects = project["objects"];
    const auto* root = objectOf(objects, project["rootObject"]);
    const Json* target = nullptr;
    for (const auto& id : root == nullptr ? Json::array() : root->value("targets", Json::array())) {
        if (const auto* candidate = objectOf(objects, id);
            candidate != nullptr && stringOf(*candidate, "name") == plan.targetName) {
            target = candidate;
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

    const auto folder = request.project.parent_path();
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
    }
    plan.infoPlist = folder / infoPlistSetting;

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
        } else if (request.force) {
            plan.plistValues[key] = wanted;
            plan.changes.push_back("Replace " + key + " in " + infoPlistSetting + " (was " + has +
                                   ")");
        } else {
            plan.conflicts.push_back(key + " in " + infoPlistSetting + " is " + has + ", not " +
                                     wanted + "; --force replaces it");
        }
    }
    if (text.text() != original) {
        plan.projectText = text.release();
    }
    return plan;
}

void SparkleProjectSetup::apply(const SparkleSetupPlan& plan) {
    if (!plan.plistValues.empty()) {
        std::error_code ignored;
        fs::create_directories(plan.infoPlist.parent_path(), ignored);
        setPropertyListStrings(plan.infoPlist, plan.plistValues);
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
