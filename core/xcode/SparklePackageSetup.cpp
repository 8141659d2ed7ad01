#include "SparklePackageSetup.h"

#include "ProjectFileParser.h"
#include "core/support/Uuid.h"
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

bool isObjectID(std::string_view text) {
    return text.size() >= 24 && std::all_of(text.begin(), text.begin() + 24, [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

// The lines of object `id` in the text: from its "\t\t<ID> ... = {" line to its closing line.
struct Span {
    std::size_t begin;
    std::size_t end;
};

std::optional<Span> objectSpan(const std::string& text, const std::string& id) {
    const auto needle = "\n\t\t" + id;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        const auto begin = at + 1;
        const auto lineEnd = text.find('\n', begin);
        if (lineEnd == std::string::npos) {
            return std::nullopt;
        }
        const std::string_view line(text.data() + begin, lineEnd - begin);
        if (line.size() <= 2 + id.size() || line[2 + id.size()] != ' ' ||
            line.find(" = {") == std::string_view::npos) {
            continue;
        }
        if (line.ends_with("};")) {
            return Span{begin, lineEnd + 1};
        }
        const auto close = text.find("\n\t\t};\n", begin);
        if (close == std::string::npos) {
            return std::nullopt;
        }
        return Span{begin, close + 6};
    }
    return std::nullopt;
}

class ProjectText {
public:
    explicit ProjectText(std::string text) : text_(std::move(text)) {}

    const std::string& text() const { return text_; }
    std::string release() { return std::move(text_); }

    Span span(const std::string& id) const {
        const auto found = objectSpan(text_, id);
        if (!found) {
            throw setupError("The project file's object " + id +
                             " is not written the way Xcode writes it; open the project in "
                             "Xcode once so it saves the file, then set up again.");
        }
        return *found;
    }

    // Appends `entry` to the list `key` of object `id`, making the list (in its key's sorted
    // place, as Xcode orders an object's keys) when the object has none.
    void addToList(const std::string& id, const std::string& key, const std::string& entry) {
        const auto object = span(id);
        const std::string_view body(text_.data() + object.begin, object.end - object.begin);
        const auto opener = "\n\t\t\t" + key + " = (\n";
        if (const auto at = body.find(opener); at != std::string_view::npos) {
            const auto close = text_.find("\n\t\t\t);\n", object.begin + at + opener.size() - 1);
            if (close == std::string::npos || close >= object.end) {
                throw setupError("The project file's list " + key + " of " + id +
                                 " is not closed the way Xcode writes it.");
            }
            text_.insert(close + 1, "\t\t\t\t" + entry + ",\n");
            return;
        }
        if (body.find("\n\t\t\t" + key + " = ") != std::string_view::npos) {
            throw setupError("The project file's " + key + " of " + id +
                             " is not written the way Xcode writes it; open the project in "
                             "Xcode once so it saves the file, then set up again.");
        }
        // Before the first top-level key that sorts after it (isa stays first), else before the
        // object's closing line.
        auto insertAt = object.end - std::string_view("\t\t};\n").size();
        for (auto line = body.find('\n'); line != std::string_view::npos && line + 1 < body.size();
             line = body.find('\n', line + 1)) {
            const auto start = line + 1;
            if (body.substr(start, 3) != "\t\t\t" || body.substr(start + 3, 1) == "\t") {
                continue;
            }
            // A key line, not the close of a nested list or dictionary.
            const auto lineEnd = body.find('\n', start);
            const auto equals = body.find(" = ", start);
            if (equals == std::string_view::npos || equals > lineEnd ||
                std::isalnum(static_cast<unsigned char>(body[start + 3])) == 0) {
                continue;
            }
            const auto name = body.substr(start + 3, equals - start - 3);
            if (name != "isa" && name > key) {
                insertAt = object.begin + start;
                break;
            }
        }
        text_.insert(insertAt, "\t\t\t" + key + " = (\n\t\t\t\t" + entry + ",\n\t\t\t);\n");
    }

    // Puts an object into the section of its isa in ID order; makes the section, in the isa
    // order Xcode keeps, when the file has none.
    void addToSection(const std::string& isa, const std::string& id, const std::string& object) {
        const auto beginMarker = "/* Begin " + isa + " section */\n";
        const auto endMarker = "/* End " + isa + " section */\n";
        if (const auto begin = text_.find(beginMarker); begin != std::string::npos) {
            const auto end = text_.find(endMarker, begin);
            if (end == std::string::npos) {
                throw setupError("The project file's " + isa + " section has no end.");
            }
            auto insertAt = end;
            for (auto line = text_.find("\n\t\t", begin); line != std::string::npos && line < end;
                 line = text_.find("\n\t\t", line + 1)) {
                const std::string_view rest(text_.data() + line + 3, end - line - 3);
                if (!rest.empty() && rest.front() != '\t' && isObjectID(rest) &&
                    rest.substr(0, 24) > id) {
                    insertAt = line + 1;
                    break;
                }
            }
            text_.insert(insertAt, object);
            return;
        }
        const auto block = beginMarker + object + endMarker;
        // After the last section whose isa sorts before this one, else before the first.
        std::optional<std::size_t> after;
        std::optional<std::size_t> first;
        for (auto at = text_.find("/* Begin "); at != std::string::npos;
             at = text_.find("/* Begin ", at + 1)) {
            const auto nameEnd = text_.find(" section */", at);
            if (nameEnd == std::string::npos) {
                break;
            }
            const auto name = text_.substr(at + 9, nameEnd - at - 9);
            first = first.value_or(at);
            if (name < isa) {
                const auto closing = "/* End " + name + " section */\n";
                const auto close = text_.find(closing, at);
                if (close == std::string::npos) {
                    throw setupError("The project file's " + name + " section has no end.");
                }
                after = close + closing.size();
            }
        }
        if (after) {
            text_.insert(*after, "\n" + block);
        } else if (first) {
            text_.insert(*first, block + "\n");
        } else {
            throw setupError("The project file has no object sections.");
        }
    }

private:
    std::string text_;
};

} // namespace

std::string SparklePackageSetup::newObjectID(std::string_view text) {
    while (true) {
        auto candidate = Uuid::random().string();
        std::erase(candidate, '-');
        candidate.resize(24);
        std::ranges::transform(candidate, candidate.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        if (text.find(candidate) == std::string_view::npos) {
            return candidate;
        }
    }
}

SparklePackageSetup::Plan SparklePackageSetup::plan(std::string_view projectText,
                                                    const std::optional<std::string>& target) {
    if (!projectText.starts_with("// !$*UTF8*$!")) {
        throw setupError("The project file is not in the text form Xcode writes; open the "
                         "project in Xcode once so it saves the file, then set up again.");
    }
    const auto project = parseProjectFile(projectText);
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
    return plan;
}

} // namespace veltra
