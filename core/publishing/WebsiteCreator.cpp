#include "WebsiteCreator.h"

#include "DownloadPageTemplate.h"
#include "GitCommand.h"
#include "ReleasePublishingPlan.h"
#include "WebDeployer.h"
#include "core/feed/AppcastDocument.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

namespace veltra {

void WebsiteCreator::create(const std::filesystem::path& folder, const ProjectProfile& profile,
                            const std::optional<std::string>& remote, const LogHandler& log,
                            StopToken stop) const {
    const auto say = [&log](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    const auto appName = profile.appName.empty() ? profile.name : profile.appName;
    WebDeployer::checkFileName(appName);
    std::error_code error;
    if (std::filesystem::exists(folder, error) && !std::filesystem::is_empty(folder, error)) {
        throw VeltraError("Veltra", errorCode::conflict,
                          "The folder " + folder.string() +
                              " is not empty. Choose a new folder for the website repository.");
    }
    std::filesystem::create_directories(folder);
    const auto& web = profile.webDeploy;
    const auto downloads = ReleasePublishingPlan::downloadsFolder(web);
    const auto branch = WebDeployer::branch(web);
    const auto page =
        web.indexHtmlRelativePath.empty() ? std::string("index.html") : web.indexHtmlRelativePath;
    const auto site = std::string(trimWhitespace(web.siteURL));

    const auto git = [&](std::vector<std::string> arguments, const std::string& what) {
        const auto result = GitCommand::run(folder, std::move(arguments), stop);
        if (result.exitCode != 0) {
            throw GitCommand::failure(what, result);
        }
        return result;
    };
    git({"init", "--quiet", "--initial-branch=" + branch}, "Could not create the repository");
    std::filesystem::create_directories((folder / page).parent_path());
    writeFileAtomically(folder / page, DownloadPageTemplate::render(appName, downloads, "0"));
    std::filesystem::create_directories(folder / downloads);
    writeFileAtomically(
        folder / downloads / "appcast.xml",
        appcast::stubFeed(appName,
                          ReleasePublishingPlan::publicAddresses(profile).downloadBaseURL.empty()
                              ? std::string_view()
                              : std::string_view(site)));
    say("Success: Wrote the download page " + page + " and the feed " + downloads + "/appcast.xml");
    git({"add", "--", page, downloads + "/appcast.xml"}, "Could not stage the website");
    std::vector<std::string> commit{"commit", "--quiet", "-m",
                                    "Create the download website for " + appName};
    const auto identity = GitCommand::identityFallback(folder, stop);
    commit.insert(commit.begin(), identity.begin(), identity.end());
    git(commit, "Could not commit the website");
    say("Success: Committed the website on branch " + branch);
    if (remote && !remote->empty()) {
        git({"remote", "add", "--end-of-options", "origin", *remote},
            "Could not add the origin remote");
        say("Success: Added origin " + *remote);
    }
}

} // namespace veltra
