#include "VersionManager.h"

#include "core/feed/BuildNumber.h"
#include "core/feed/NewestBuild.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <set>
#include <span>

#include <fmt/format.h>

// project.pbxproj files reach megabytes, so the patterns are matched by hand in one forward scan
// each: they are simple enough that no match ever needs to back up.
namespace veltra {

namespace {

constexpr std::string_view versionKeys[] = {"MARKETING_VERSION",
                                            "INFOPLIST_KEY_CFBundleShortVersionString"};
constexpr std::string_view buildKeys[] = {"CURRENT_PROJECT_VERSION",
                                          "INFOPLIST_KEY_CFBundleVersion"};

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isVersionCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
}
bool isWordCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

std::size_t skipSpaces(std::string_view text, std::size_t at) {
    while (at < text.size() && isSpace(text[at])) {
        ++at;
    }
    return at;
}

// KEY\s*=\s*"?([allowed]+)"?; at `at` (just after KEY): the capture, or nothing.
template <typename Allowed>
std::optional<std::string_view> readAssignment(std::string_view text, std::size_t at,
                                               Allowed allowed) {
    at = skipSpaces(text, at);
    if (at >= text.size() || text[at] != '=') {
        return std::nullopt;
    }
    at = skipSpaces(text, at + 1);
    if (at < text.size() && text[at] == '"') {
        ++at;
    }
    const auto start = at;
    while (at < text.size() && allowed(text[at])) {
        ++at;
    }
    if (at == start) {
        return std::nullopt;
    }
    const auto capture = text.substr(start, at - start);
    if (at < text.size() && text[at] == '"') {
        ++at;
    }
    if (at >= text.size() || text[at] != ';') {
        return std::nullopt;
    }
    return capture;
}

// The first match in the text of KEY\s*=\s*"?([allowed]+)"?;
template <typename Allowed>
std::optional<std::string_view> firstAssignment(std::string_view text, std::string_view key,
                                                Allowed allowed) {
    for (auto at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
        if (const auto value = readAssignment(text, at + key.size(), allowed)) {
            return value;
        }
    }
    return std::nullopt;
}

// Replaces every "KEY = [allowed]+;" with "KEY = <value>;". True when the text changed.
template <typename Allowed>
bool replaceAssignments(std::string& text, std::string_view key, std::string_view value,
                        Allowed allowed) {
    const std::string prefix = std::string(key) + " = ";
    std::string out;
    std::size_t copied = 0;
    bool changed = false;
    for (auto at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at + 1)) {
        auto end = at + prefix.size();
        while (end < text.size() && allowed(text[end])) {
            ++end;
        }
        if (end == at + prefix.size() || end >= text.size() || text[end] != ';') {
            continue;
        }
        const auto old =
            std::string_view(text).substr(at + prefix.size(), end - at - prefix.size());
        changed = changed || old != value;
        out.append(text, copied, at + prefix.size() - copied);
        out.append(value);
        copied = end;
        at = end;
    }
    if (copied > 0) {
        out.append(text, copied);
        text = std::move(out);
    }
    return changed;
}

// The raw values of every "KEY = ...;" assignment of the keys, as written.
std::vector<std::string> declaredValues(std::string_view text,
                                        std::span<const std::string_view> keys) {
    std::vector<std::string> values;
    for (const auto key : keys) {
        for (auto at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
            if (at > 0 && isWordCharacter(text[at - 1])) {
                continue;
            }
            auto position = skipSpaces(text, at + key.size());
            if (position >= text.size() || text[position] != '=') {
                continue;
            }
            position = skipSpaces(text, position + 1);
            const auto end = text.find_first_of(";\n", position);
            if (end == std::string_view::npos) {
                continue;
            }
            auto value = text.substr(position, end - position);
            while (!value.empty() && isSpace(value.back())) {
                value.remove_suffix(1);
            }
            values.emplace_back(value);
        }
    }
    return values;
}

template <typename Allowed>
std::optional<std::string> notice(std::string_view text, std::span<const std::string_view> keys,
                                  std::string_view what, std::string_view value, Allowed allowed) {
    std::set<std::string> unwritable;
    for (const auto& declared : declaredValues(text, keys)) {
        if (declared.empty() || !std::ranges::all_of(declared, allowed)) {
            unwritable.insert(declared);
        }
    }
    if (unwritable.empty()) {
        return std::nullopt;
    }
    std::string forms;
    for (const auto& form : unwritable) {
        forms += (forms.empty() ? "" : ", ") + form;
    }
    return fmt::format("the project declares its {} as {}, which is left as it is (only plain "
                       "numbers are rewritten); the archive is still built as {} {}",
                       what, forms, what, value);
}

std::string insertAfterOpeners(std::string_view text, std::string_view addition, int& count) {
    constexpr std::string_view opener = "buildSettings = {";
    std::string out;
    std::size_t copied = 0;
    for (auto at = text.find(opener); at != std::string_view::npos;
         at = text.find(opener, at + opener.size())) {
        out.append(text.substr(copied, at + opener.size() - copied));
        out.append(addition);
        copied = at + opener.size();
        ++count;
    }
    out.append(text.substr(copied));
    return out;
}

std::int64_t plusOne(std::int64_t value) {
    return value == std::numeric_limits<std::int64_t>::max() ? value : value + 1;
}

} // namespace

const char* displayName(BumpType type) {
    switch (type) {
    case BumpType::patch:
        return "Patch (+0.0.1)";
    case BumpType::minor:
        return "Minor (+0.1.0)";
    case BumpType::major:
        return "Major (+1.0.0)";
    }
    return "";
}

std::optional<std::filesystem::path>
VersionManager::projectFile(const std::filesystem::path& project) {
    namespace fs = std::filesystem;
    std::error_code error;
    const auto firstProjectIn = [&](const fs::path& folder) -> std::optional<fs::path> {
        std::vector<fs::path> projects;
        for (fs::directory_iterator it(folder, error), end; !error && it != end;
             it.increment(error)) {
            if (it->path().extension() == ".xcodeproj") {
                projects.push_back(it->path());
            }
        }
        if (projects.empty()) {
            return std::nullopt;
        }
        return *std::ranges::min_element(projects);
    };
    std::optional<fs::path> bundle;
    const auto extension = project.extension();
    if (extension == ".xcodeproj") {
        bundle = project;
    } else if (extension == ".xcworkspace") {
        bundle = firstProjectIn(project.parent_path().empty() ? "." : project.parent_path());
    } else {
        bundle = firstProjectIn(project);
    }
    if (!bundle || !fs::is_regular_file(*bundle / "project.pbxproj", error)) {
        return std::nullopt;
    }
    return *bundle / "project.pbxproj";
}

std::pair<std::string, std::int64_t> VersionManager::readProjectText(std::string_view text) {
    std::pair<std::string, std::int64_t> result{"1.0.0", 1};
    for (const auto key : versionKeys) {
        if (const auto value = firstAssignment(text, key, isVersionCharacter)) {
            result.first = *value;
            break;
        }
    }
    for (const auto key : buildKeys) {
        if (const auto value = firstAssignment(text, key, isDigit)) {
            if (const auto build = BuildNumber::parse(*value); build.isValid()) {
                result.second = build.value;
            }
            break;
        }
    }
    return result;
}

VersionInfo VersionManager::readVersionInfo(const std::filesystem::path& project,
                                            const std::optional<std::string>& appcastPath) const {
    VersionInfo info;
    if (const auto file = projectFile(project)) {
        try {
            std::tie(info.currentVersion, info.currentBuild) = readProjectText(readFile(*file));
        } catch (const VeltraError&) {
        }
    }
    std::int64_t highest = 0;
    if (appcastPath && !appcastPath->empty()) {
        std::optional<std::vector<SparkleFeedItem>> items;
        try {
            items = SparkleFeedParser::parse(readFile(expandTilde(*appcastPath)));
        } catch (const VeltraError&) {
        }
        if (const auto newest = items ? newestBuild(*items) : std::nullopt) {
            info.lastPublishedVersion = newest->item->shortVersion;
            if (newest->build >= 1) {
                info.lastPublishedBuild = newest->build;
                highest = newest->build;
            }
        }
    }
    info.nextSuggestedBuild = plusOne(std::max(info.currentBuild, highest));
    return info;
}

std::future<VersionInfo>
VersionManager::readVersionInfoAsync(const std::filesystem::path& project,
                                     const std::optional<std::string>& appcastPath) const {
    return std::async(std::launch::async, [manager = *this, project, appcastPath] {
        return manager.readVersionInfo(project, appcastPath);
    });
}

std::string VersionManager::bump(const std::string& current, BumpType type) const {
    auto components = versionNumbers(current);
    while (components.size() < 3) {
        components.push_back(0);
    }
    switch (type) {
    case BumpType::patch:
        components[2] = plusOne(components[2]);
        break;
    case BumpType::minor:
        components[1] = plusOne(components[1]);
        components[2] = 0;
        break;
    case BumpType::major:
        components[0] = plusOne(components[0]);
        components[1] = 0;
        components[2] = 0;
        break;
    }
    return fmt::format("{}", fmt::join(components, "."));
}

int VersionManager::compareVersions(const std::string& a, const std::string& b) {
    return veltra::compareVersions(a, b);
}

std::optional<std::string> VersionManager::versionError(std::string_view version) {
    const bool allowed = std::ranges::all_of(version, [](char c) {
        return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
               c == '-' || c == '+';
    });
    if (version.empty() || version.size() > 64 || !allowed) {
        return "'" + std::string(version) +
               "' is not a valid version: use digits, letters, '.', '-' and '+', at most 64 "
               "characters (for example 1.2.3).";
    }
    return std::nullopt;
}

VersionApplyResult VersionManager::applyToText(std::string& text,
                                               const std::optional<std::string>& version,
                                               const std::optional<std::int64_t>& build) {
    const auto isVersionDigit = [](char c) { return isDigit(c) || c == '.'; };
    if (version) {
        if (const auto error = versionError(*version)) {
            throw VeltraError("Veltra", errorCode::invalidSetup, *error);
        }
    }
    // '+' is no character an unquoted project value may hold.
    const auto written =
        version && version->find('+') != std::string::npos ? "\"" + *version + "\"" : version;
    VersionApplyResult result;
    const auto buildText = build ? std::to_string(*build) : std::string();
    if (version) {
        for (const auto key : versionKeys) {
            result.versionChanged |= replaceAssignments(text, key, *written, isVersionDigit);
        }
    }
    if (build) {
        for (const auto key : buildKeys) {
            result.buildChanged |= replaceAssignments(text, key, buildText, isDigit);
        }
    }
    // Settings are added only where the project never declares them: adding a second key to
    // blocks that already hold one (quoted, dotted, a variable) would leave duplicates.
    const bool declaresVersion = !declaredValues(text, versionKeys).empty();
    const bool declaresBuild = !declaredValues(text, buildKeys).empty();
    bool insertVersion = false;
    bool insertBuild = false;
    if (version && build && !result.versionChanged) {
        insertVersion = !declaresVersion;
        insertBuild = !declaresBuild;
    } else if (build && result.versionChanged && !result.buildChanged) {
        insertBuild = !declaresBuild;
    }
    std::string addition;
    if (insertVersion) {
        addition += "\n\t\t\t\tMARKETING_VERSION = " + *written + ";";
    }
    if (insertBuild) {
        addition += "\n\t\t\t\tCURRENT_PROJECT_VERSION = " + buildText + ";";
    }
    if (!addition.empty()) {
        text = insertAfterOpeners(text, addition, result.insertions);
        result.inserted = insertVersion && insertBuild ? "version+build"
                          : insertVersion              ? "version"
                                                       : "build";
    }
    if (version) {
        if (auto said = notice(text, versionKeys, "version", *version, isVersionDigit)) {
            result.notices.push_back(std::move(*said));
        }
    }
    if (build) {
        if (auto said = notice(text, buildKeys, "build", buildText, isDigit)) {
            result.notices.push_back(std::move(*said));
        }
    }
    return result;
}

VersionApplyResult VersionManager::apply(const std::optional<std::string>& version,
                                         const std::optional<std::int64_t>& build,
                                         const std::filesystem::path& project) const {
    const auto file = projectFile(project);
    if (!file) {
        return {};
    }
    auto text = readFile(*file);
    const auto original = text;
    auto result = applyToText(text, version, build);
    if (text != original) {
        writeFileAtomically(*file, text);
    }
    return result;
}

} // namespace veltra
