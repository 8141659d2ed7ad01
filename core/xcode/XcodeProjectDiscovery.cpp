#include "XcodeProjectDiscovery.h"

#include "ProjectFileParser.h"
#include "core/support/ExpatDocument.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

namespace veltra {

namespace fs = std::filesystem;

const XcodeScheme* XcodeProjectInfo::scheme(const std::string& schemeName) const {
    const auto found = std::find_if(schemeDetails.begin(), schemeDetails.end(),
                                    [&](const XcodeScheme& s) { return s.name == schemeName; });
    return found == schemeDetails.end() ? nullptr : &*found;
}

std::string XcodeProjectInfo::archiveConfiguration(const std::string& schemeName) const {
    if (configurationOverride && !configurationOverride->empty()) {
        return *configurationOverride;
    }
    const auto* found = scheme(schemeName);
    return found != nullptr ? found->archiveConfiguration : "Release";
}

std::optional<fs::path> XcodeScheme::containerProject() const {
    constexpr std::string_view prefix = "container:";
    if (!container || !container->starts_with(prefix)) {
        return std::nullopt;
    }
    // Relative to the folder of the project or workspace whose xcshareddata holds the scheme.
    for (auto folder = file.parent_path(); !folder.empty() && folder != folder.parent_path();
         folder = folder.parent_path()) {
        if (folder.extension() == ".xcodeproj" || folder.extension() == ".xcworkspace") {
            return (folder.parent_path() / container->substr(prefix.size())).lexically_normal();
        }
    }
    return std::nullopt;
}

namespace {

const char* attribute(const XML_Char** attributes, const char* name) {
    for (auto** entry = attributes; entry != nullptr && entry[0] != nullptr; entry += 2) {
        if (std::strcmp(entry[0], name) == 0) {
            return entry[1];
        }
    }
    return nullptr;
}

struct SchemeContext : ExpatContext {
    XcodeScheme scheme{};
    std::vector<std::string> path{};
    bool entryArchives = true;
};

extern "C" void schemeStart(void* user, const XML_Char* name, const XML_Char** attributes) {
    auto& context = expatContext<SchemeContext>(user);
    const std::string element(name);
    if (element == "BuildActionEntry") {
        const char* archiving = attribute(attributes, "buildForArchiving");
        context.entryArchives = archiving == nullptr || std::strcmp(archiving, "NO") != 0;
    } else if (element == "BuildableReference" && !context.scheme.appName &&
               context.entryArchives && context.path.size() >= 2 &&
               context.path.back() == "BuildActionEntry" &&
               std::find(context.path.begin(), context.path.end(), "BuildAction") !=
                   context.path.end()) {
        const char* buildable = attribute(attributes, "BuildableName");
        if (buildable != nullptr && std::string_view(buildable).ends_with(".app")) {
            context.scheme.appName = buildable;
            if (const char* target = attribute(attributes, "BlueprintName")) {
                context.scheme.appTarget = target;
            }
            if (const char* id = attribute(attributes, "BlueprintIdentifier")) {
                context.scheme.appTargetID = id;
            }
            if (const char* container = attribute(attributes, "ReferencedContainer")) {
                context.scheme.container = container;
            }
        }
    } else if (element == "ArchiveAction") {
        if (const char* configuration = attribute(attributes, "buildConfiguration");
            configuration != nullptr && *configuration != '\0') {
            context.scheme.archiveConfiguration = configuration;
        }
    }
    context.path.push_back(element);
}

extern "C" void schemeEnd(void* user, const XML_Char* /*name*/) {
    auto& context = expatContext<SchemeContext>(user);
    if (!context.path.empty()) {
        context.path.pop_back();
    }
}

struct WorkspaceContext : ExpatContext {
    fs::path folder{};
    // The folders that enclosing <Group> elements add.
    std::vector<fs::path> groups{};
    std::vector<fs::path> projects{};
};

// A workspace location ("group:", "container:", "absolute:") resolved against `base`.
std::optional<fs::path> resolveLocation(std::string_view location, const fs::path& base,
                                        const fs::path& container) {
    const auto colon = location.find(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    const auto kind = location.substr(0, colon);
    const auto rest = location.substr(colon + 1);
    if (kind == "group") {
        return rest.empty() ? base : base / rest;
    }
    if (kind == "container") {
        return rest.empty() ? container : container / rest;
    }
    if (kind == "absolute") {
        return fs::path(rest);
    }
    return std::nullopt;
}

extern "C" void workspaceStart(void* user, const XML_Char* name, const XML_Char** attributes) {
    auto& context = expatContext<WorkspaceContext>(user);
    const std::string_view element(name);
    const char* location = attribute(attributes, "location");
    const auto& base = context.groups.empty() ? context.folder : context.groups.back();
    if (element == "Group") {
        context.groups.push_back(
            location != nullptr ? resolveLocation(location, base, context.folder).value_or(base)
                                : base);
    } else if (element == "FileRef" && location != nullptr) {
        if (auto resolved = resolveLocation(location, base, context.folder);
            resolved && resolved->extension() == ".xcodeproj") {
            context.projects.push_back(resolved->lexically_normal());
        }
    }
}

extern "C" void workspaceEnd(void* user, const XML_Char* name) {
    auto& context = expatContext<WorkspaceContext>(user);
    if (std::string_view(name) == "Group" && !context.groups.empty()) {
        context.groups.pop_back();
    }
}

bool isDirectory(const fs::path& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

// Entries of `folder` with `extension`, by name; hidden ones are skipped.
std::vector<fs::path> entriesWithExtension(const fs::path& folder, std::string_view extension) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const auto& entry = it->path();
        if (entry.extension() == extension && !entry.filename().string().starts_with(".")) {
            found.push_back(entry);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::optional<fs::path> locateIn(const fs::path& folder) {
    // An implicit workspace lives inside a project; only stand-alone ones count here.
    if (auto workspaces = entriesWithExtension(folder, ".xcworkspace"); !workspaces.empty()) {
        return workspaces.front();
    }
    if (auto projects = entriesWithExtension(folder, ".xcodeproj"); !projects.empty()) {
        return projects.front();
    }
    return std::nullopt;
}

std::vector<XcodeScheme> schemesIn(const fs::path& bundle) {
    std::vector<XcodeScheme> schemes;
    for (const auto& file :
         entriesWithExtension(bundle / "xcshareddata" / "xcschemes", ".xcscheme")) {
        auto name = file.stem().string();
        try {
            auto scheme = XcodeProjectDiscovery::parseScheme(readFile(file), name);
            scheme.file = file;
            schemes.push_back(std::move(scheme));
        } catch (const VeltraError&) {
            // Xcode lists an unreadable scheme by name too; it just cannot say what it builds.
            XcodeScheme scheme;
            scheme.name = std::move(name);
            scheme.file = file;
            schemes.push_back(std::move(scheme));
        }
    }
    return schemes;
}

const nlohmann::json* member(const nlohmann::json& object, const std::string& key) {
    if (!object.is_object()) {
        return nullptr;
    }
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

std::optional<std::string> stringMember(const nlohmann::json& object, const std::string& key) {
    const auto* value = member(object, key);
    if (value == nullptr || !value->is_string()) {
        return std::nullopt;
    }
    return value->get<std::string>();
}

// The buildSettings of the configuration named `configuration` in a configuration list, or of
// the list's default, or of its first entry.
const nlohmann::json* configurationSettings(const nlohmann::json& objects,
                                            const nlohmann::json& owner,
                                            const std::string& configuration) {
    const auto listID = stringMember(owner, "buildConfigurationList");
    const auto* list = listID ? member(objects, *listID) : nullptr;
    const auto* entries = list != nullptr ? member(*list, "buildConfigurations") : nullptr;
    if (entries == nullptr || !entries->is_array()) {
        return nullptr;
    }
    const auto fallback = stringMember(*list, "defaultConfigurationName");
    const nlohmann::json* chosen = nullptr;
    for (const auto* wanted : {&configuration, fallback ? &*fallback : nullptr}) {
        if (wanted == nullptr) {
            continue;
        }
        for (const auto& id : *entries) {
            const auto* entry = id.is_string() ? member(objects, id.get<std::string>()) : nullptr;
            if (entry != nullptr && stringMember(*entry, "name") == *wanted) {
                chosen = entry;
                break;
            }
        }
        if (chosen != nullptr) {
            break;
        }
    }
    if (chosen == nullptr && !entries->empty() && entries->front().is_string()) {
        chosen = member(objects, entries->front().get<std::string>());
    }
    return chosen != nullptr ? member(*chosen, "buildSettings") : nullptr;
}

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    return value && !value->empty() ? value : std::nullopt;
}

std::optional<std::string> teamIn(const nlohmann::json* settings) {
    if (settings == nullptr) {
        return std::nullopt;
    }
    if (auto team = nonEmpty(stringMember(*settings, "DEVELOPMENT_TEAM"))) {
        return team;
    }
    return nonEmpty(stringMember(*settings, "DEVELOPMENT_TEAM[sdk=macosx*]"));
}

} // namespace

XcodeScheme XcodeProjectDiscovery::parseScheme(std::string_view xml, std::string name) {
    SchemeContext context;
    context.scheme.name = std::move(name);
    ExpatDocument document(context);
    XML_SetElementHandler(document.parser(), schemeStart, schemeEnd);
    if (!document.parse(xml)) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          fmt::format("The scheme '{}' is not readable XML.", context.scheme.name));
    }
    return std::move(context.scheme);
}

std::vector<fs::path> XcodeProjectDiscovery::workspaceProjects(std::string_view xml,
                                                               const fs::path& folder) {
    WorkspaceContext context;
    context.folder = folder;
    ExpatDocument document(context);
    XML_SetElementHandler(document.parser(), workspaceStart, workspaceEnd);
    if (!document.parse(xml)) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The workspace's contents.xcworkspacedata is not readable XML.");
    }
    return std::move(context.projects);
}

XcodeProjectDiscovery::ProjectSettings
XcodeProjectDiscovery::projectSettings(const nlohmann::json& project, const std::string& targetID,
                                       const std::string& configuration) {
    ProjectSettings result;
    const auto* objects = member(project, "objects");
    const auto rootID = stringMember(project, "rootObject");
    const auto* root = objects != nullptr && rootID ? member(*objects, *rootID) : nullptr;
    if (root == nullptr) {
        return result;
    }
    if (const auto listID = stringMember(*root, "buildConfigurationList")) {
        if (const auto* list = member(*objects, *listID)) {
            if (const auto* entries = member(*list, "buildConfigurations");
                entries != nullptr && entries->is_array()) {
                for (const auto& id : *entries) {
                    const auto* entry =
                        id.is_string() ? member(*objects, id.get<std::string>()) : nullptr;
                    if (auto name =
                            entry != nullptr ? stringMember(*entry, "name") : std::nullopt) {
                        result.configurations.push_back(std::move(*name));
                    }
                }
            }
        }
    }

    // The scheme's target when it names one of this project's targets, else the first app.
    std::string chosenID;
    const nlohmann::json* target = nullptr;
    if (!targetID.empty()) {
        target = member(*objects, targetID);
        chosenID = targetID;
    }
    if (target == nullptr) {
        if (const auto* targets = member(*root, "targets");
            targets != nullptr && targets->is_array()) {
            for (const auto& id : *targets) {
                const auto* candidate =
                    id.is_string() ? member(*objects, id.get<std::string>()) : nullptr;
                if (candidate != nullptr && stringMember(*candidate, "productType") ==
                                                "com.apple.product-type.application") {
                    target = candidate;
                    chosenID = id.get<std::string>();
                    break;
                }
            }
        }
    }
    const auto* projectSettings = configurationSettings(*objects, *root, configuration);
    const auto* targetSettings =
        target != nullptr ? configurationSettings(*objects, *target, configuration) : nullptr;
    if (target != nullptr) {
        result.appTarget = stringMember(*target, "name");
    }
    for (const auto* settings : {targetSettings, projectSettings}) {
        if (!result.bundleIdentifier && settings != nullptr) {
            result.bundleIdentifier =
                nonEmpty(stringMember(*settings, "PRODUCT_BUNDLE_IDENTIFIER"));
        }
        if (!result.developmentTeam) {
            result.developmentTeam = teamIn(settings);
        }
    }
    // Older projects keep the team in the project's TargetAttributes.
    if (!result.developmentTeam && !chosenID.empty()) {
        const auto* attributes = member(*root, "attributes");
        const auto* targetAttributes =
            attributes != nullptr ? member(*attributes, "TargetAttributes") : nullptr;
        const auto* entry =
            targetAttributes != nullptr ? member(*targetAttributes, chosenID) : nullptr;
        if (entry != nullptr) {
            result.developmentTeam = nonEmpty(stringMember(*entry, "DevelopmentTeam"));
        }
    }
    return result;
}

std::optional<fs::path> XcodeProjectDiscovery::locate(const fs::path& path) {
    const auto extension = path.extension();
    if ((extension == ".xcodeproj" || extension == ".xcworkspace") && isDirectory(path)) {
        return path;
    }
    if (!isDirectory(path)) {
        return std::nullopt;
    }
    if (auto found = locateIn(path)) {
        return found;
    }
    std::vector<fs::path> folders;
    std::error_code error;
    for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
        const auto name = it->path().filename().string();
        if (isDirectory(it->path()) && !name.starts_with(".") && name != "Pods" &&
            name != "node_modules") {
            folders.push_back(it->path());
        }
    }
    std::sort(folders.begin(), folders.end());
    for (const auto& folder : folders) {
        if (auto found = locateIn(folder)) {
            return found;
        }
    }
    return std::nullopt;
}

XcodeProjectInfo XcodeProjectDiscovery::discover(const fs::path& path) {
    const auto located = locate(path);
    if (!located) {
        throw VeltraError("Veltra", errorCode::notFound,
                          fmt::format("No Xcode project or workspace found at {}", path.string()));
    }
    XcodeProjectInfo info;
    info.projectPath = *located;
    info.isWorkspace = located->extension() == ".xcworkspace";
    info.name = located->stem().string();
    const auto folder = located->parent_path();

    if (info.isWorkspace) {
        const auto data = *located / "contents.xcworkspacedata";
        std::error_code error;
        if (fs::exists(data, error)) {
            info.projects = workspaceProjects(readFile(data), folder);
        }
    } else {
        info.projects.push_back(*located);
    }
    std::vector<XcodeScheme> schemes;
    for (const auto& project : info.projects) {
        if (!isDirectory(project)) {
            info.missingProjects.push_back(project);
            continue;
        }
        for (auto& scheme : schemesIn(project)) {
            schemes.push_back(std::move(scheme));
        }
    }
    if (info.isWorkspace) {
        for (auto& scheme : schemesIn(*located)) {
            schemes.push_back(std::move(scheme));
        }
    }
    std::stable_sort(schemes.begin(), schemes.end(),
                     [](const auto& a, const auto& b) { return a.name < b.name; });
    for (auto& scheme : schemes) {
        if (std::find(info.schemes.begin(), info.schemes.end(), scheme.name) ==
            info.schemes.end()) {
            info.schemes.push_back(scheme.name);
            info.schemeDetails.push_back(std::move(scheme));
        }
    }

    // Preselect a scheme that archives an app, preferring the one named after the project.
    const XcodeScheme* preferred = nullptr;
    for (const auto& scheme : info.schemeDetails) {
        if (scheme.appName && (preferred == nullptr || scheme.name == info.name)) {
            preferred = &scheme;
            if (scheme.name == info.name) {
                break;
            }
        }
    }
    if (preferred == nullptr && !info.schemeDetails.empty()) {
        preferred = info.scheme(info.name);
        if (preferred == nullptr) {
            preferred = &info.schemeDetails.front();
        }
    }

    // The project holding the preselected app: the scheme's container, else the first member
    // that is on disk and not generated by CocoaPods.
    std::optional<fs::path> mainProject;
    if (const auto candidate = preferred != nullptr ? preferred->containerProject() : std::nullopt;
        candidate && isDirectory(*candidate)) {
        mainProject = candidate;
    }
    for (const auto& project : info.projects) {
        if (!mainProject && isDirectory(project) && project.filename() != "Pods.xcodeproj") {
            mainProject = project;
        }
    }
    if (mainProject) {
        const auto file = *mainProject / "project.pbxproj";
        std::error_code error;
        if (fs::exists(file, error)) {
            const auto settings =
                projectSettings(parseProjectFile(readFile(file)),
                                preferred != nullptr ? preferred->appTargetID.value_or("") : "",
                                preferred != nullptr ? preferred->archiveConfiguration : "Release");
            info.configurations = settings.configurations;
            info.appTarget = settings.appTarget;
            info.bundleIdentifier = settings.bundleIdentifier;
            info.developmentTeam = settings.developmentTeam;
        }
    }
    if (preferred != nullptr) {
        info.defaultScheme = preferred->name;
    } else if (info.appTarget) {
        // With no shared scheme Xcode makes one per target, named after it.
        info.defaultScheme = info.appTarget;
    }
    return info;
}

} // namespace veltra
