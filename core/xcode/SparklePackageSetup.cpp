#include "SparklePackageSetup.h"

#include "ProjectFileParser.h"
#include "ProjectText.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>

namespace veltra {
namespace {

using Json = nlohmann::json;

constexpr std::string_view applicationType = "com.apple.product-type.application";

VeltraError setupError(const std::string& message) {
    return VeltraError("Veltra", errorCode::invalidSetup, message);
}

std::string lower(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

const Json* object(const Json& objects, const Json& id) {
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

const Json& listOf(const Json& json, const char* key) {
    static const Json empty = Json::array();
    const auto found = json.find(key);
    return found != json.end() && found->is_array() ? *found : empty;
}

bool isSparkleRepository(const std::string& url) {
    auto address = lower(url);
    while (address.ends_with('/')) {
        address.pop_back();
    }
    if (address.ends_with(".git")) {
        address.resize(address.size() - 4);
    }
    return address.ends_with("github.com/sparkle-project/sparkle");
}

// Any string inside `json` naming Sparkle's framework (a file reference, or a CocoaPods or
// Carthage script's input and output paths).
bool mentionsFramework(const Json& json) {
    if (json.is_string()) {
        return json.get<std::string>().find("Sparkle.framework") != std::string::npos;
    }
    if (json.is_structured()) {
        return std::ranges::any_of(json, [](const Json& item) { return mentionsFramework(item); });
    }
    return false;
}

// How `target` gets Sparkle already, if it does.
std::optional<std::string> existingSparkle(const Json& objects, const Json& target) {
    for (const auto& id : listOf(target, "packageProductDependencies")) {
        if (const auto* product = object(objects, id);
            product != nullptr && stringOf(*product, "productName") == "Sparkle") {
            return "the Sparkle package";
        }
    }
    for (const auto& id : listOf(target, "buildPhases")) {
        const auto* phase = object(objects, id);
        if (phase == nullptr) {
            continue;
        }
        if (mentionsFramework(*phase)) {
            return "a Sparkle framework from CocoaPods or Carthage";
        }
        for (const auto& fileID : listOf(*phase, "files")) {
            const auto* buildFile = object(objects, fileID);
            if (buildFile == nullptr) {
                continue;
            }
            if (const auto* file = object(objects, buildFile->value("fileRef", Json()));
                file != nullptr && mentionsFramework(*file)) {
                return "a Sparkle framework from CocoaPods or Carthage";
            }
        }
    }
    return std::nullopt;
}

// The edits are made to the text: where the text's comments or strings hide structure from
// them (a comment running over several lines), the edited file would not read back as planned.
void checkEdit(const std::string& edited, const std::string& targetID,
               const std::string& productID) {
    Json project;
    try {
        project = parseProjectFile(edited);
    } catch (const VeltraError& error) {
        throw setupError("The project file is not written the way Xcode writes it, so Sparkle "
                         "cannot be added to it safely: with the change, " +
                         error.message() +
                         " Open the project in Xcode once so it saves the file, then set up "
                         "again.");
    }
    const auto& objects = project.value("objects", Json::object());
    const auto* target = object(objects, Json(targetID));
    const auto& products = target == nullptr ? listOf(Json::object(), "")
                                             : listOf(*target, "packageProductDependencies");
    if (object(objects, Json(productID)) == nullptr ||
        std::ranges::find(products, Json(productID)) == products.end()) {
        throw setupError("The project file is not written the way Xcode writes it, so Sparkle "
                         "cannot be added to it safely (the change would not read back). Open "
                         "the project in Xcode once so it saves the file, then set up again.");
    }
}

} // namespace

std::string SparklePackageSetup::newObjectID(std::string_view text) {
    return ProjectText::newObjectID(text);
}

SparklePackageSetup::Plan SparklePackageSetup::plan(std::string_view projectText,
                                                    const std::optional<std::string>& target) {
    if (!projectText.starts_with("// !$*UTF8*$!")) {
        throw setupError("The project file is not in the text form Xcode writes; open the "
                         "project in Xcode once so it saves the file, then set up again.");
    }
    const auto project = parseProjectFile(projectText);
    // The edits below go by the text; what the parser reads past would not read back.
    if (const auto runOn = projectFileRunOn(projectText)) {
        throw setupError("The project file is not written the way Xcode writes it (" + *runOn +
                         "), so Sparkle cannot be added to it safely. Open the project in Xcode "
                         "once so it saves the file, then set up again.");
    }
    if (!project.is_object() || !project.contains("objects") || !project["objects"].is_object()) {
        throw setupError("The project file holds no objects.");
    }
    const auto& objects = project["objects"];
    const auto rootID = stringOf(project, "rootObject");
    const auto* root = object(objects, project.value("rootObject", Json()));
    if (root == nullptr) {
        throw setupError("The project file names no project object.");
    }

    // The application targets, in the project's order.
    std::vector<std::pair<std::string, const Json*>> apps;
    for (const auto& id : listOf(*root, "targets")) {
        if (const auto* candidate = object(objects, id);
            candidate != nullptr && stringOf(*candidate, "isa") == "PBXNativeTarget" &&
            stringOf(*candidate, "productType") == applicationType) {
            apps.emplace_back(id.get<std::string>(), candidate);
        }
    }
    std::string names;
    for (const auto& [id, app] : apps) {
        names += (names.empty() ? "" : ", ") + stringOf(*app, "name");
    }
    if (apps.empty()) {
        throw setupError("The project has no application target to set up for updates.");
    }
    auto chosen = apps.begin();
    if (target) {
        chosen = std::ranges::find_if(
            apps, [&](const auto& app) { return stringOf(*app.second, "name") == *target; });
        if (chosen == apps.end()) {
            throw setupError("The project has no application target named " + *target +
                             " (its application targets: " + names + ").");
        }
    } else if (apps.size() > 1) {
        throw setupError("The project has several application targets (" + names +
                         "); name the one to set up for updates.");
    }
    const auto& [targetID, targetObject] = *chosen;

    Plan plan;
    plan.targetName = stringOf(*targetObject, "name");
    plan.existing = existingSparkle(objects, *targetObject);
    if (plan.existing) {
        plan.text = std::string(projectText);
        return plan;
    }

    ProjectText text{std::string(projectText)};
    // A package reference the project has already (another target uses it) is reused.
    std::optional<std::string> packageID;
    for (const auto& id : listOf(*root, "packageReferences")) {
        if (const auto* package = object(objects, id);
            package != nullptr && stringOf(*package, "isa") == "XCRemoteSwiftPackageReference" &&
            isSparkleRepository(stringOf(*package, "repositoryURL"))) {
            packageID = id.get<std::string>();
        }
    }
    const auto packageComment = std::string(" /* XCRemoteSwiftPackageReference \"Sparkle\" */");
    if (!packageID) {
        packageID = newObjectID(text.text());
        text.addToSection("XCRemoteSwiftPackageReference", *packageID,
                          "\t\t" + *packageID + packageComment +
                              " = {\n"
                              "\t\t\tisa = XCRemoteSwiftPackageReference;\n"
                              "\t\t\trepositoryURL = \"" +
                              std::string(repositoryURL) +
                              "\";\n"
                              "\t\t\trequirement = {\n"
                              "\t\t\t\tkind = upToNextMajorVersion;\n"
                              "\t\t\t\tminimumVersion = 2.0.0;\n"
                              "\t\t\t};\n"
                              "\t\t};\n");
        text.addToList(rootID, "packageReferences", *packageID + packageComment);
        plan.changes.push_back("Add the Sparkle package (" + std::string(repositoryURL) +
                               ", up to the next major version from 2.0.0) to the project");
    }

    const auto productID = newObjectID(text.text());
    text.addToSection("XCSwiftPackageProductDependency", productID,
                      "\t\t" + productID +
                          " /* Sparkle */ = {\n"
                          "\t\t\tisa = XCSwiftPackageProductDependency;\n"
                          "\t\t\tpackage = " +
                          *packageID + packageComment +
                          ";\n"
                          "\t\t\tproductName = Sparkle;\n"
                          "\t\t};\n");
    text.addToList(targetID, "packageProductDependencies", productID + " /* Sparkle */");
    plan.changes.push_back("Add the Sparkle product to target " + plan.targetName);

    const auto buildFileID = newObjectID(text.text());
    text.addToSection("PBXBuildFile", buildFileID,
                      "\t\t" + buildFileID +
                          " /* Sparkle in Frameworks */ = {isa = PBXBuildFile; " +
                          "productRef = " + productID + " /* Sparkle */; };\n");
    const auto buildFileEntry = buildFileID + " /* Sparkle in Frameworks */";
    std::optional<std::string> frameworksPhase;
    for (const auto& id : listOf(*targetObject, "buildPhases")) {
        if (const auto* phase = object(objects, id);
            phase != nullptr && stringOf(*phase, "isa") == "PBXFrameworksBuildPhase") {
            frameworksPhase = id.get<std::string>();
            break;
        }
    }
    if (frameworksPhase) {
        text.addToList(*frameworksPhase, "files", buildFileEntry);
        plan.changes.push_back("Link Sparkle in target " + plan.targetName + "'s Frameworks phase");
    } else {
        const auto phaseID = newObjectID(text.text());
        text.addToSection("PBXFrameworksBuildPhase", phaseID,
                          "\t\t" + phaseID +
                              " /* Frameworks */ = {\n"
                              "\t\t\tisa = PBXFrameworksBuildPhase;\n"
                              "\t\t\tbuildActionMask = 2147483647;\n"
                              "\t\t\tfiles = (\n"
                              "\t\t\t\t" +
                              buildFileEntry +
                              ",\n"
                              "\t\t\t);\n"
                              "\t\t\trunOnlyForDeploymentPostprocessing = 0;\n"
                              "\t\t};\n");
        text.addToList(targetID, "buildPhases", phaseID + " /* Frameworks */");
        plan.changes.push_back("Link Sparkle in a new Frameworks phase of target " +
                               plan.targetName);
    }
    plan.text = text.release();
    checkEdit(plan.text, targetID, productID);
    return plan;
}

} // namespace veltra
