#include "ProfileFieldEditor.h"

#include "core/support/GitRefName.h"
#include "core/support/HttpClient.h"
#include "core/support/PathRules.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <charconv>
#include <cmath>

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
        {"dmgDesign.windowWidth", Kind::number, {}},
        {"dmgDesign.windowHeight", Kind::number, {}},
        {"dmgDesign.iconSize", Kind::number, {}},
        {"dmgDesign.appIconPosition", Kind::point, {}},
        {"dmgDesign.dropLinkPosition", Kind::point, {}},
        {"dmgDesign.backgroundPath", Kind::optionalString, {}},
        {"dmgDesign.retinaBackgroundPath", Kind::optionalString, {}},
        {"dmgDesign.volumeName", Kind::string, {}},
        {"dmgDesign.compressionFormat", Kind::string, {}},
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
        {"sparkle.minimumSystemVersion", Kind::string, {}},
        {"sparkle.signUpdatePath", Kind::optionalString, {}},
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
    double value = 0;
    const auto* end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || ptr != end || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
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
        if (const auto number = parseNumber(text)) {
            return *number;
        }
        throw wrong("a number");
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

std::string number(double value) {
    return value == std::trunc(value) && std::abs(value) < 1e15
               ? fmt::format("{}", static_cast<long long>(value))
               : fmt::format("{}", value);
}

} // namespace

std::optional<std::string> ProfileFieldEditor::valueProblem(std::string_view path,
                                                            std::string_view text) {
    // These name files Veltra writes: they must stay in the folders they belong to.
    std::optional<std::string> problem;
    if (path == "appName" && !text.empty()) {
        problem = fileNameProblem(text);
    } else if (path == "webDeploy.downloadsRelativePath" ||
               path == "webDeploy.indexHtmlRelativePath") {
        problem = relativePathProblem(text);
    }
    if (!problem) {
        return std::nullopt;
    }
    return fmt::format("Invalid value '{}' for {}: {}.", text, path, *problem);
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
    Json json = profile.toJson();
    Json* parent = &json;
    std::string_view key = field.path;
    if (const auto dot = key.find('.'); dot != std::string_view::npos) {
        parent = &json[std::string(key.substr(0, dot))];
        key = key.substr(dot + 1);
    }
    if (value.is_null()) {
        parent->erase(std::string(key));
    } else {
        (*parent)[std::string(key)] = value;
    }
    profile = ProjectProfile::fromJson(json, "profile");
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
