#include "ProfileFieldEditor.h"

#include "core/support/FileUtilities.h"
#include "core/support/GitRefName.h"
#include "core/support/HttpClient.h"
#include "core/support/PathRules.h"
#include "core/support/VeltraError.h"
#include "dsstore/DecimalText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace veltra {
namespace {

using Kind = ProfileFieldEditor::Kind;
using Field = ProfileFieldEditor::Field;

VeltraError invalid(const std::string& message) {
    return VeltraError("Veltra.Profile", 1, message);
}

std::vector<std::string> providerValues() {
    std::vector<std::string> values;
    for (const auto provider : allWebHostingProviders) {
        values.emplace_back(rawValue(provider));
    }
    return values;
}

std::vector<Field> makeFields() {
    const std::vector<std::string> backgrounds{"default", "custom", "plain"};
    return {
        {"name", Kind::string, {}},
        {"appName", Kind::string, {}},
        {"bundleIdentifier", Kind::string, {}},
        {"outputDirectory", Kind::string, {}},
        {"sourceProjectPath", Kind::optionalString, {}},
        {"selectedScheme", Kind::optionalString, {}},
        {"archiveConfiguration", Kind::optionalString, {}},
        {"dmgDesign.windowWidth", Kind::number, {}},
        {"dmgDesign.windowHeight", Kind::number, {}},
        {"dmgDesign.iconSize", Kind::number, {}},
        {"dmgDesign.appIconPosition", Kind::point, {}},
        {"dmgDesign.dropLinkPosition", Kind::point, {}},
        {"dmgDesign.backgroundPath", Kind::optionalString, {}},
        {"dmgDesign.retinaBackgroundPath", Kind::optionalString, {}},
        {"dmgDesign.volumeName", Kind::string, {}},
        {"dmgDesign.compressionFormat",
         Kind::enumeration,
         {"UDZO", "ULFO", "ULMO", "UDBZ", "UDRO"}},
        {"dmgDesign.compressionLevel", Kind::optionalNumber, {}},
        {"dmgDesign.volumeIconPath", Kind::optionalString, {}},
        {"dmgDesign.hideExtension", Kind::boolean, {}},
        {"dmgDesign.backgroundColorHex", Kind::optionalString, {}},
        {"dmgDesign.backgroundType", Kind::optionalEnumeration, backgrounds},
        {"notarization.enabled", Kind::boolean, {}},
        {"notarization.developerTeamID", Kind::string, {}},
        {"notarization.keychainProfileName", Kind::string, {}},
        {"notarization.signingIdentity", Kind::string, {}},
        {"sparkle.appcastPath", Kind::string, {}},
        {"sparkle.privateKeyPath", Kind::string, {}},
        {"sparkle.releaseNotesURLPattern", Kind::string, {}},
        {"sparkle.downloadURLPattern", Kind::string, {}},
        {"sparkle.minimumSystemVersion", Kind::optionalString, {}},
        {"sparkle.signUpdatePath", Kind::optionalString, {}},
        {"sparkle.keepReleases", Kind::optionalNumber, {}},
        {"githubRelease.enabled", Kind::boolean, {}},
        {"githubRelease.repoOwnerAndName", Kind::string, {}},
        {"githubRelease.createDraft", Kind::boolean, {}},
        {"githubRelease.generateNotesFromGit", Kind::boolean, {}},
        {"webDeploy.websiteRepoPath", Kind::string, {}},
        {"webDeploy.downloadsRelativePath", Kind::string, {}},
        {"webDeploy.indexHtmlRelativePath", Kind::string, {}},
        {"webDeploy.gitCommitAndPush", Kind::boolean, {}},
        {"webDeploy.gitBranch", Kind::string, {}},
        {"webDeploy.websiteRepoRemoteURL", Kind::optionalString, {}},
        {"webDeploy.enableShortcuts", Kind::boolean, {}},
        {"webDeploy.provider", Kind::enumeration, providerValues()},
        {"webDeploy.siteURL", Kind::string, {}},
        {"webDeploy.deployHookURL", Kind::optionalString, {}},
        {"customPostScript", Kind::optionalString, {}},
        {"hasCompletedInitialSetup", Kind::boolean, {}},
    };
}

const Field& fieldFor(std::string_view path) {
    const auto& all = ProfileFieldEditor::fields();
    const auto found = std::ranges::find(all, path, &Field::path);
    if (found == all.end()) {
        std::vector<std::string> names;
        for (const auto& field : all) {
            names.push_back(field.path);
        }
        throw invalid(
            fmt::format("Unknown key '{}'. Valid keys: {}.", path, fmt::join(names, ", ")));
    }
    return *found;
}

std::optional<double> parseNumber(std::string_view text) {
    const auto read = dsstore::readDecimal(text);
    if (!read || read->length != text.size() || !std::isfinite(read->value)) {
        return std::nullopt;
    }
    return read->value;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

Json valueFor(const Field& field, std::string_view text) {
    const auto wrong = [&](std::string_view expected) {
        return invalid(
            fmt::format("Invalid value '{}' for {}. Expected {}.", text, field.path, expected));
    };
    switch (field.kind) {
    case Kind::string:
        return std::string(text);
    case Kind::optionalString:
        return text.empty() ? Json() : Json(std::string(text));
    case Kind::boolean:
        if (text == "true" || text == "false") {
            return text == "true";
        }
        throw wrong("true or false");
    case Kind::number:
    case Kind::optionalNumber:
        if (text.empty() && field.kind == Kind::optionalNumber) {
            return Json();
        }
        if (const auto number = parseNumber(text)) {
            return *number;
        }
        throw wrong(field.kind == Kind::optionalNumber ? "a number, or empty to clear"
                                                       : "a number");
    case Kind::point: {
        const auto comma = text.find(',');
        const auto x = comma == std::string_view::npos
                           ? std::nullopt
                           : parseNumber(trimmed(text.substr(0, comma)));
        const auto y = comma == std::string_view::npos
                           ? std::nullopt
                           : parseNumber(trimmed(text.substr(comma + 1)));
        if (x && y) {
            return Json::array({*x, *y});
        }
        throw wrong("a point written x,y (for example 150,260)");
    }
    case Kind::enumeration:
    case Kind::optionalEnumeration:
        if (text.empty() && field.kind == Kind::optionalEnumeration) {
            return Json();
        }
        if (std::ranges::find(field.values, text) != field.values.end()) {
            return std::string(text);
        }
        throw invalid(
            fmt::format("Invalid value '{}' for {}. Valid values: {}{}.", text, field.path,
                        fmt::join(field.values, ", "),
                        field.kind == Kind::optionalEnumeration ? ", or empty to clear" : ""));
    }
    throw wrong("a value");
}

// "13", "13.0", "14.2.1".
bool isDottedVersion(std::string_view text) {
    if (text.empty() || text.size() > 32) {
        return false;
    }
    int parts = 0;
    bool digit = false;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digit = true;
        } else if (c == '.' && digit) {
            digit = false;
            ++parts;
        } else {
            return false;
        }
    }
    return digit && parts <= 2;
}

// An absolute http(s) address with a host; patterns keep their {placeholders}.
bool isWebAddress(std::string_view text) {
    for (const std::string_view scheme : {"https://", "http://"}) {
        if (text.starts_with(scheme)) {
            const auto rest = text.substr(scheme.size());
            const auto host = rest.substr(0, rest.find_first_of("/?#"));
            return !host.empty() && host.find_first_of(" \t\n\\\"<>") == std::string_view::npos &&
                   text.find_first_of(" \t\n") == std::string_view::npos;
        }
    }
    return false;
}

std::string number(double value) {
    return value == std::trunc(value) && std::abs(value) < 1e15
               ? fmt::format("{}", static_cast<long long>(value))
               : fmt::format("{}", value);
}

// The project a source path names: a .xcodeproj or .xcworkspace, or a folder holding one (a
// workspace before a project, as Xcode opens it).
std::string projectPath(std::string_view text) {
    namespace fs = std::filesystem;
    const fs::path path = expandTilde(std::string(text));
    std::error_code error;
    const auto refuse = [&](const std::string& why) {
        return invalid(fmt::format("Invalid value '{}' for sourceProjectPath: {}.", text, why));
    };
    if (!fs::is_directory(path, error)) {
        throw refuse("there is no such project or folder");
    }
    if (path.extension() == ".xcodeproj" || path.extension() == ".xcworkspace") {
        return std::string(text);
    }
    std::vector<fs::path> workspaces;
    std::vector<fs::path> projects;
    for (const auto& entry : fs::directory_iterator(path, error)) {
        if (entry.path().extension() == ".xcworkspace") {
            workspaces.push_back(entry.path());
        } else if (entry.path().extension() == ".xcodeproj") {
            projects.push_back(entry.path());
        }
    }
    const auto& found = workspaces.empty() ? projects : workspaces;
    if (found.size() != 1) {
        throw refuse(found.empty() ? "the folder holds no .xcodeproj or .xcworkspace"
                                   : "the folder holds several; name the one to build");
    }
    return (path / found.front().filename()).string();
}

} // namespace

std::optional<std::string> ProfileFieldEditor::valueProblem(std::string_view path,
                                                            std::string_view text) {
    std::optional<std::string> problem;
    const auto numberIn = [&](double low, double high) -> std::optional<std::string> {
        const auto value = parseNumber(text);
        if (value && *value >= low && *value <= high) {
            return std::nullopt;
        }
        return fmt::format("it must be a number from {} to {}", low, high);
    };
    if (path == "name") {
        if (trimmed(text).empty()) {
            problem = "a profile needs a name";
        }
    } else if (path == "appName" && !text.empty()) {
        // It names files Veltra writes: they must stay in the folders they belong to.
        problem = fileNameProblem(text);
    } else if (path == "webDeploy.downloadsRelativePath" ||
               path == "webDeploy.indexHtmlRelativePath") {
        problem = relativePathProblem(text);
    } else if (path == "bundleIdentifier") {
        problem = bundleIdentifierProblem(text);
    } else if (path == "dmgDesign.windowWidth" || path == "dmgDesign.windowHeight") {
        problem = numberIn(100, 4000);
    } else if (path == "dmgDesign.iconSize") {
        problem = numberIn(16, 512);
    } else if (path == "dmgDesign.compressionLevel" && !text.empty()) {
        const auto value = parseNumber(text);
        if (!value || *value != std::trunc(*value) || *value < 1 || *value > 9) {
            problem = "it must be a whole number from 1 (fastest) to 9 (smallest)";
        }
    } else if (path == "dmgDesign.volumeIconPath" && !text.empty()) {
        std::error_code error;
        if (!text.ends_with(".icns") ||
            !std::filesystem::is_regular_file(expandTilde(std::string(text)), error)) {
            problem = "it must name an existing .icns file";
        }
    } else if (path == "sparkle.keepReleases" && !text.empty()) {
        const auto value = parseNumber(text);
        if (!value || *value != std::trunc(*value) || *value < 1 || *value > 100000) {
            problem = "it must be a whole number of releases, 1 or more (empty keeps all)";
        }
    } else if (path == "sparkle.minimumSystemVersion" && !text.empty()) {
        if (!isDottedVersion(text)) {
            problem = "it must be a macOS version such as 13.0 or 14.2.1";
        }
    } else if (path == "sparkle.downloadURLPattern" || path == "webDeploy.siteURL" ||
               (path == "sparkle.releaseNotesURLPattern" && !text.empty())) {
        // The site's address may stay empty until there is one.
        if (!(path == "webDeploy.siteURL" && text.empty()) && !isWebAddress(text)) {
            problem = "it must be an absolute http:// or https:// address";
        }
    }
    if (!problem) {
        return std::nullopt;
    }
    return fmt::format("Invalid value '{}' for {}: {}.", text, path, *problem);
}

std::optional<std::string> ProfileFieldEditor::bundleIdentifierProblem(std::string_view text) {
    // As Apple defines CFBundleIdentifier: letters, digits, '-' and '.', in dot-separated parts.
    if (text.empty()) {
        return "a bundle identifier is needed (for example com.example.app)";
    }
    if (text.find_first_not_of(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-.") !=
        std::string_view::npos) {
        return "only letters, digits, '-' and '.' (for example com.example.app)";
    }
    if (text.front() == '.' || text.back() == '.' || text.find("..") != std::string_view::npos) {
        return "its parts are separated by single dots, none empty";
    }
    return std::nullopt;
}

const std::vector<ProfileFieldEditor::Field>& ProfileFieldEditor::fields() {
    static const std::vector<Field> all = makeFields();
    return all;
}

void ProfileFieldEditor::set(ProjectProfile& profile, std::string_view path,
                             std::string_view text) {
    const Field& field = fieldFor(path);
    const Json value = valueFor(field, text);
    if (field.path == "webDeploy.deployHookURL" && !text.empty() &&
        !HttpClient::isSecureOrLocalAddress(std::string(text))) {
        throw invalid("Invalid value '" + std::string(text) +
                      "' for webDeploy.deployHookURL. The deploy hook must be an https:// "
                      "address (http:// only for this machine).");
    }
    if (const auto problem = valueProblem(field.path, text)) {
        throw invalid(*problem);
    }
    // Empty means the default branch; anything else reaches git, so it must be a branch name.
    if (field.path == "webDeploy.gitBranch" && !text.empty()) {
        if (const auto problem = gitBranchNameError(text)) {
            throw invalid("Invalid value for webDeploy.gitBranch: " + *problem);
        }
    }
    Json stored = value;
    if (field.path == "sourceProjectPath" && !text.empty()) {
        stored = projectPath(text);
    }
    Json json = profile.toJson();
    Json* parent = &json;
    std::string_view key = field.path;
    if (const auto dot = key.find('.'); dot != std::string_view::npos) {
        parent = &json[std::string(key.substr(0, dot))];
        key = key.substr(dot + 1);
    }
    if (stored.is_null()) {
        parent->erase(std::string(key));
    } else {
        (*parent)[std::string(key)] = stored;
    }
    auto changed = ProjectProfile::fromJson(json, "profile");
    if (field.path.starts_with("dmgDesign.")) {
        const auto& design = changed.dmgDesign;
        for (const auto& [name, point] :
             {std::pair{"dmgDesign.appIconPosition", design.appIconPosition},
              std::pair{"dmgDesign.dropLinkPosition", design.dropLinkPosition}}) {
            if (point.x < 0 || point.y < 0 || point.x > design.windowWidth ||
                point.y > design.windowHeight) {
                throw invalid(fmt::format(
                    "Invalid value '{}' for {}: {} ({},{}) would be outside the {}x{} window.",
                    text, field.path, name, number(point.x), number(point.y),
                    number(design.windowWidth), number(design.windowHeight)));
            }
        }
    }
    profile = std::move(changed);
}

std::string ProfileFieldEditor::get(const ProjectProfile& profile, std::string_view path) {
    const Field& field = fieldFor(path);
    const Json json = profile.toJson();
    const Json* value = &json;
    std::string_view rest = field.path;
    while (!rest.empty()) {
        const auto dot = rest.find('.');
        const auto key = std::string(rest.substr(0, dot));
        const auto found = value->find(key);
        if (found == value->end()) {
            return "";
        }
        value = &*found;
        rest = dot == std::string_view::npos ? std::string_view() : rest.substr(dot + 1);
    }
    if (value->is_string()) {
        return value->get<std::string>();
    }
    if (value->is_boolean()) {
        return value->get<bool>() ? "true" : "false";
    }
    if (value->is_number()) {
        return number(value->get<double>());
    }
    if (value->is_array() && value->size() == 2) {
        return number((*value)[0].get<double>()) + "," + number((*value)[1].get<double>());
    }
    return dumpJson(*value);
}

} // namespace veltra
