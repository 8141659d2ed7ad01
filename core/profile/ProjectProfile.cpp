#include "ProjectProfile.h"

#include "core/support/EnumNames.h"

#include <array>
#include <utility>

namespace veltra {
namespace {

Json pointJson(const Point& point) {
    return Json::array({point.x, point.y});
}

Point pointFrom(const JsonReader& reader, std::string_view key) {
    const Json& value = reader.require(key);
    const auto path = reader.pathOf(key);
    if (!value.is_array() || value.size() != 2) {
        throw JsonDecodingError(path, "expected a point [x, y]");
    }
    return {JsonReader::asNumber(value[0], path + "[0]"),
            JsonReader::asNumber(value[1], path + "[1]")};
}

template <typename Enum, typename Parse>
Enum enumFrom(const JsonReader& reader, std::string_view key, Parse parse) {
    const auto raw = reader.string(key);
    const auto value = parse(raw);
    if (!value) {
        throw JsonDecodingError(reader.pathOf(key), "unknown value \"" + raw + "\"");
    }
    return *value;
}

Json toJson(const DMGDesignConfig& design) {
    Json json = Json::object();
    json["windowWidth"] = design.windowWidth;
    json["windowHeight"] = design.windowHeight;
    json["iconSize"] = design.iconSize;
    json["appIconPosition"] = pointJson(design.appIconPosition);
    json["dropLinkPosition"] = pointJson(design.dropLinkPosition);
    putOptional(json, "backgroundPath", design.backgroundPath);
    putOptional(json, "retinaBackgroundPath", design.retinaBackgroundPath);
    json["volumeName"] = design.volumeName;
    json["compressionFormat"] = design.compressionFormat;
    if (design.compressionLevel) {
        json["compressionLevel"] = *design.compressionLevel;
    }
    putOptional(json, "volumeIconPath", design.volumeIconPath);
    json["hideExtension"] = design.hideExtension;
    putOptional(json, "backgroundColorHex", design.backgroundColorHex);
    if (design.backgroundType) {
        json["backgroundType"] = rawValue(*design.backgroundType);
    }
    return json;
}

DMGDesignConfig dmgDesignFrom(const JsonReader& reader) {
    DMGDesignConfig design;
    design.windowWidth = reader.number("windowWidth");
    design.windowHeight = reader.number("windowHeight");
    design.iconSize = reader.number("iconSize");
    design.appIconPosition = pointFrom(reader, "appIconPosition");
    design.dropLinkPosition = pointFrom(reader, "dropLinkPosition");
    design.backgroundPath = reader.optionalString("backgroundPath");
    design.retinaBackgroundPath = reader.optionalString("retinaBackgroundPath");
    design.volumeName = reader.string("volumeName");
    design.compressionFormat = reader.string("compressionFormat");
    if (reader.find("compressionLevel")) {
        design.compressionLevel = static_cast<int>(reader.integer("compressionLevel"));
    }
    design.volumeIconPath = reader.optionalString("volumeIconPath");
    design.hideExtension = reader.boolean("hideExtension");
    design.backgroundColorHex = reader.optionalString("backgroundColorHex");
    if (reader.find("backgroundType")) {
        design.backgroundType =
            enumFrom<DMGBackgroundType>(reader, "backgroundType", dmgBackgroundType);
    }
    return design;
}

Json toJson(const NotarizationConfig& notarization) {
    return Json{{"enabled", notarization.enabled},
                {"developerTeamID", notarization.developerTeamID},
                {"keychainProfileName", notarization.keychainProfileName},
                {"signingIdentity", notarization.signingIdentity}};
}

NotarizationConfig notarizationFrom(const JsonReader& reader) {
    return {reader.boolean("enabled"), reader.string("developerTeamID"),
            reader.string("keychainProfileName"), reader.string("signingIdentity")};
}

Json toJson(const SparkleConfig& sparkle) {
    Json json{{"appcastPath", sparkle.appcastPath},
              {"privateKeyPath", sparkle.privateKeyPath},
              {"releaseNotesURLPattern", sparkle.releaseNotesURLPattern},
              {"downloadURLPattern", sparkle.downloadURLPattern}};
    putOptional(json, "minimumSystemVersion", sparkle.minimumSystemVersion);
    if (sparkle.signUpdatePath) {
        json["signUpdatePath"] = *sparkle.signUpdatePath;
    }
    if (sparkle.keepReleases) {
        json["keepReleases"] = *sparkle.keepReleases;
    }
    return json;
}

SparkleConfig sparkleFrom(const JsonReader& reader) {
    SparkleConfig sparkle{reader.string("appcastPath"),
                          reader.string("privateKeyPath"),
                          reader.string("releaseNotesURLPattern"),
                          reader.string("downloadURLPattern"),
                          reader.optionalString("minimumSystemVersion"),
                          reader.optionalString("signUpdatePath"),
                          std::nullopt};
    if (const Json* keep = reader.find("keepReleases"); keep != nullptr && !keep->is_null()) {
        const auto count = reader.integer("keepReleases");
        if (count < 1 || count > 100000) {
            throw JsonDecodingError(reader.pathOf("keepReleases"), "expected a count from 1");
        }
        sparkle.keepReleases = static_cast<int>(count);
    }
    return sparkle;
}

Json toJson(const GitHubReleaseConfig& github) {
    return Json{{"enabled", github.enabled},
                {"repoOwnerAndName", github.repoOwnerAndName},
                {"createDraft", github.createDraft},
                {"generateNotesFromGit", github.generateNotesFromGit}};
}

GitHubReleaseConfig githubFrom(const JsonReader& reader) {
    return {reader.boolean("enabled"), reader.string("repoOwnerAndName"),
            reader.boolean("createDraft"), reader.boolean("generateNotesFromGit")};
}

Json toJson(const WebDeployConfig& web) {
    Json json = Json::object();
    json["websiteRepoPath"] = web.websiteRepoPath;
    json["downloadsRelativePath"] = web.downloadsRelativePath;
    json["indexHtmlRelativePath"] = web.indexHtmlRelativePath;
    json["gitCommitAndPush"] = web.gitCommitAndPush;
    json["gitBranch"] = web.gitBranch;
    putOptional(json, "websiteRepoRemoteURL", web.websiteRepoRemoteURL);
    json["enableShortcuts"] = web.enableShortcuts;
    json["provider"] = rawValue(web.provider);
    json["siteURL"] = web.siteURL;
    putOptional(json, "deployHookURL", web.deployHookURL);
    return json;
}

WebDeployConfig webDeployFrom(const JsonReader& reader) {
    WebDeployConfig web;
    const auto orDefault = [&](std::string_view key, std::string fallback) {
        return reader.optionalString(key).value_or(std::move(fallback));
    };
    web.websiteRepoPath = orDefault("websiteRepoPath", web.websiteRepoPath);
    web.downloadsRelativePath = orDefault("downloadsRelativePath", web.downloadsRelativePath);
    web.indexHtmlRelativePath = orDefault("indexHtmlRelativePath", web.indexHtmlRelativePath);
    web.gitCommitAndPush =
        reader.optionalBoolean("gitCommitAndPush").value_or(web.gitCommitAndPush);
    web.gitBranch = orDefault("gitBranch", web.gitBranch);
    web.websiteRepoRemoteURL = reader.optionalString("websiteRepoRemoteURL");
    web.enableShortcuts = reader.optionalBoolean("enableShortcuts").value_or(web.enableShortcuts);
    if (reader.find("provider")) {
        web.provider = enumFrom<WebHostingProvider>(reader, "provider", webHostingProvider);
    }
    web.siteURL = orDefault("siteURL", web.siteURL);
    web.deployHookURL = reader.optionalString("deployHookURL");
    return web;
}

} // namespace

ProjectProfile ProjectProfile::create(const std::string& appName,
                                      const std::string& bundleIdentifier,
                                      const std::optional<std::string>& outputDirectory) {
    ProjectProfile profile;
    profile.id = Uuid::random();
    profile.name = appName;
    profile.appName = appName;
    profile.bundleIdentifier = bundleIdentifier;
    profile.outputDirectory = outputDirectory.value_or("~/Desktop/Veltra/" + appName);
    profile.dmgDesign.volumeName = appName;
    return profile;
}

Json ProjectProfile::toJson() const {
    Json json = Json::object();
    json["id"] = id.string();
    json["name"] = name;
    json["appName"] = appName;
    json["bundleIdentifier"] = bundleIdentifier;
    json["outputDirectory"] = outputDirectory;
    putOptional(json, "sourceProjectPath", sourceProjectPath);
    putOptional(json, "selectedScheme", selectedScheme);
    putOptional(json, "archiveConfiguration", archiveConfiguration);
    if (recentReleases) {
        Json releases = Json::array();
        for (const auto& manifest : *recentReleases) {
            releases.push_back(manifest.toJson());
        }
        json["recentReleases"] = std::move(releases);
    }
    json["dmgDesign"] = veltra::toJson(dmgDesign);
    json["notarization"] = veltra::toJson(notarization);
    json["sparkle"] = veltra::toJson(sparkle);
    json["githubRelease"] = veltra::toJson(githubRelease);
    json["webDeploy"] = veltra::toJson(webDeploy);
    putOptional(json, "customPostScript", customPostScript);
    json["hasCompletedInitialSetup"] = hasCompletedInitialSetup;
    return json;
}

ProjectProfile ProjectProfile::fromJson(const Json& json, const std::string& path) {
    const JsonReader reader(json, path);
    ProjectProfile profile;
    profile.id = reader.uuid("id");
    profile.name = reader.string("name");
    profile.appName = reader.string("appName");
    profile.bundleIdentifier = reader.string("bundleIdentifier");
    profile.outputDirectory = reader.string("outputDirectory");
    profile.sourceProjectPath = reader.optionalString("sourceProjectPath");
    profile.selectedScheme = reader.optionalString("selectedScheme");
    profile.archiveConfiguration = reader.optionalString("archiveConfiguration");
    if (const Json* releases = reader.find("recentReleases")) {
        const auto releasesPath = reader.pathOf("recentReleases");
        if (!releases->is_array()) {
            throw JsonDecodingError(releasesPath, "expected an array");
        }
        profile.recentReleases.emplace();
        for (std::size_t i = 0; i < releases->size(); ++i) {
            profile.recentReleases->push_back(ReleaseManifest::fromJson(
                (*releases)[i], releasesPath + "[" + std::to_string(i) + "]"));
        }
    }
    profile.dmgDesign =
        dmgDesignFrom(JsonReader(reader.require("dmgDesign"), reader.pathOf("dmgDesign")));
    profile.notarization =
        notarizationFrom(JsonReader(reader.require("notarization"), reader.pathOf("notarization")));
    profile.sparkle = sparkleFrom(JsonReader(reader.require("sparkle"), reader.pathOf("sparkle")));
    profile.githubRelease =
        githubFrom(JsonReader(reader.require("githubRelease"), reader.pathOf("githubRelease")));
    profile.webDeploy =
        webDeployFrom(JsonReader(reader.require("webDeploy"), reader.pathOf("webDeploy")));
    profile.customPostScript = reader.optionalString("customPostScript");
    // A profile from before the flag existed counts as set up once it has shipped.
    profile.hasCompletedInitialSetup =
        reader.optionalBoolean("hasCompletedInitialSetup")
            .value_or(profile.recentReleases && !profile.recentReleases->empty());
    return profile;
}

Json profilesToJson(const std::vector<ProjectProfile>& profiles) {
    Json json = Json::array();
    for (const auto& profile : profiles) {
        json.push_back(profile.toJson());
    }
    return json;
}

std::vector<ProjectProfile> profilesFromJson(const Json& json, const std::string& path) {
    if (!json.is_array()) {
        throw JsonDecodingError(path, "expected an array of profiles");
    }
    std::vector<ProjectProfile> profiles;
    profiles.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
        profiles.push_back(ProjectProfile::fromJson(json[i], path + "[" + std::to_string(i) + "]"));
    }
    return profiles;
}

} // namespace veltra
