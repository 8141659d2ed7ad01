#include "ReleasePublishingPlan.h"

#include "core/feed/SparkleFeedParser.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

namespace veltra {
namespace {

void say(const LogHandler& log, const std::string& line) {
    if (log) {
        log(line);
    }
}

bool isWebsiteFolder(const std::filesystem::path& folder) {
    std::error_code error;
    return std::filesystem::is_directory(folder, error) &&
           (std::filesystem::exists(folder / ".git", error) ||
            std::filesystem::is_regular_file(folder / "index.html", error));
}

std::string appNameOf(const ProjectProfile& profile) {
    return profile.appName.empty() ? profile.name : profile.appName;
}

// Whether a website folder is this app's: its feed offers the app's download file, or its
// download page links it (a site made for the app does from the start). Another app's site
// sharing the folder beside the releases must never receive this app's release.
bool isSiteOf(const std::filesystem::path& folder, const ProjectProfile& profile) {
    const auto download = appNameOf(profile) + ".dmg";
    const auto downloads = folder / ReleasePublishingPlan::downloadsFolder(profile.webDeploy);
    try {
        if (const auto items = SparkleFeedParser::parse(readFile(downloads / "appcast.xml"))) {
            for (const auto& item : *items) {
                auto url = std::string_view(item.enclosureURL);
                url = url.substr(0, url.find_first_of("?#"));
                if (url.ends_with("/" + download) || url == download) {
                    return true;
                }
            }
        }
    } catch (const std::exception&) {
        // no feed to go by
    }
    try {
        const auto pagePath = profile.webDeploy.indexHtmlRelativePath.empty()
                                  ? std::string("index.html")
                                  : profile.webDeploy.indexHtmlRelativePath;
        const auto page = readFile(folder / pagePath);
        return contains(page, "/" + download + "\"") || contains(page, "/" + download + "?") ||
               contains(page, "\"" + download + "\"");
    } catch (const std::exception&) {
        return false;
    }
}

// "website", then "<app>-website", beside the profile's release output folder: the first that
// holds a website, and whether it is this app's.
std::optional<std::pair<std::filesystem::path, bool>> candidate(const ProjectProfile& profile) {
    const auto releases = expandTilde(standardizePath(profile.outputDirectory)).parent_path();
    std::optional<std::pair<std::filesystem::path, bool>> foreign;
    for (const auto& name : {std::string("website"), appNameOf(profile) + "-website"}) {
        if (isWebsiteFolder(releases / name)) {
            if (isSiteOf(releases / name, profile)) {
                return std::pair{releases / name, true};
            }
            if (!foreign) {
                foreign = std::pair{releases / name, false};
            }
        }
    }
    return foreign;
}

bool configured(std::string_view address) {
    return !address.empty() && !contains(address, ReleasePublishingPlan::exampleHost);
}

} // namespace

std::string ResolvedDeliveryConfig::downloadURL(std::string_view dmgFileName) const {
    return ReleasePublishingPlan::expand(downloadURLPattern, dmgFileName, "");
}

std::string ResolvedDeliveryConfig::releaseNotesURL(std::string_view releaseBaseName) const {
    return ReleasePublishingPlan::expand(releaseNotesURLPattern, "", releaseBaseName);
}

std::string ReleasePublishingPlan::join(std::string_view base, std::string_view part) {
    while (base.ends_with('/')) {
        base.remove_suffix(1);
    }
    while (part.starts_with('/')) {
        part.remove_prefix(1);
    }
    return std::string(base) + "/" + std::string(part);
}

std::string ReleasePublishingPlan::downloadsFolder(const WebDeployConfig& config) {
    std::string_view folder = trimWhitespace(config.downloadsRelativePath);
    while (folder.starts_with('/')) {
        folder.remove_prefix(1);
    }
    while (folder.ends_with('/')) {
        folder.remove_suffix(1);
    }
    return folder.empty() ? "downloads" : std::string(folder);
}

std::string ReleasePublishingPlan::expand(std::string_view pattern, std::string_view dmgFileName,
                                          std::string_view appBaseName) {
    std::string text(pattern);
    for (const auto& [placeholder, value] : {std::pair{std::string_view("{dmg}"), dmgFileName},
                                             std::pair{std::string_view("{app}"), appBaseName}}) {
        for (auto at = text.find(placeholder); at != std::string::npos;
             at = text.find(placeholder, at + value.size())) {
            text.replace(at, placeholder.size(), value);
        }
    }
    return text;
}

ResolvedDeliveryConfig ReleasePublishingPlan::publicAddresses(const ProjectProfile& profile) {
    ResolvedDeliveryConfig delivery;
    const std::string site(trimWhitespace(profile.webDeploy.siteURL));
    if (configured(site)) {
        delivery.downloadBaseURL = join(site, downloadsFolder(profile.webDeploy)) + "/";
        delivery.publicAppcastURL = delivery.downloadBaseURL + "appcast.xml";
    }
    const auto& sparkle = profile.sparkle;
    delivery.downloadURLPattern =
        configured(sparkle.downloadURLPattern)
            ? sparkle.downloadURLPattern
            : (delivery.downloadBaseURL.empty() ? std::string()
                                                : delivery.downloadBaseURL + "{dmg}");
    delivery.releaseNotesURLPattern =
        configured(sparkle.releaseNotesURLPattern)
            ? sparkle.releaseNotesURLPattern
            : (delivery.downloadBaseURL.empty() ? std::string()
                                                : delivery.downloadBaseURL + "{app}.md");
    return delivery;
}

std::optional<std::filesystem::path>
ReleasePublishingPlan::resolveRepository(const ProjectProfile& profile, const LogHandler& log) {
    const std::string configuredPath(trimWhitespace(profile.webDeploy.websiteRepoPath));
    if (!configuredPath.empty()) {
        const auto path = expandTilde(configuredPath);
        std::error_code error;
        if (std::filesystem::exists(path, error)) {
            say(log, "Success: Using configured website repo: " + path.string());
            return path;
        }
        if (const auto healed = candidate(profile)) {
            if (!healed->second) {
                throw VeltraError(
                    "Veltra", errorCode::notFound,
                    "The website repository configured for " + appNameOf(profile) + " (" +
                        path.string() + ") does not exist, and " + healed->first.string() +
                        " is not " + appNameOf(profile) +
                        "'s site: neither its feed nor its "
                        "download page offers " +
                        appNameOf(profile) +
                        ".dmg. Set webDeploy.websiteRepoPath to this app's website repository.");
            }
            say(log, "Success: Auto-healed website repo location inside Veltra directory: " +
                         healed->first.string());
            return healed->first;
        }
        say(log, "Warning: Configured website repo path does not exist: " + path.string() +
                     ". Skipping Sparkle & web deploy steps.");
        return std::nullopt;
    }
    if (const auto found = candidate(profile)) {
        if (found->second) {
            say(log,
                "Success: Detected website repo in Veltra directory: " + found->first.string());
            return found->first;
        }
        say(log, "Info: " + found->first.string() + " is another app's website, not used for " +
                     appNameOf(profile) + ".");
    }
    say(log, "Info: No website repository configured. Skipping Sparkle signing & web deploy "
             "steps.");
    return std::nullopt;
}

std::optional<ResolvedDeliveryConfig> ReleasePublishingPlan::resolve(const ProjectProfile& profile,
                                                                     const LogHandler& log) {
    const auto repository = resolveRepository(profile, log);
    if (!repository) {
        return std::nullopt;
    }
    auto delivery = publicAddresses(profile);
    delivery.websiteRepoPath = *repository;
    delivery.appcastPath = *repository / downloadsFolder(profile.webDeploy) / "appcast.xml";
    return delivery;
}

} // namespace veltra
