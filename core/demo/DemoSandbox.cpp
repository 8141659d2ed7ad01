#include "DemoSandbox.h"

#include "core/feed/SparklePrivateKey.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/WebsiteCreator.h"
#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/ResourceLocator.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

namespace veltra {
namespace {

namespace fs = std::filesystem;

void git(const fs::path& directory, std::vector<std::string> arguments, const std::string& what) {
    const auto result = GitCommand::run(directory, std::move(arguments), {}, 120);
    if (result.exitCode != 0) {
        throw GitCommand::failure(what, result);
    }
}

} // namespace

DemoSandbox::DemoSandbox(const fs::path& root, const fs::path& sample, const LogHandler& log)
    : root_(fs::absolute(root)) {
    const auto say = [&](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    if (fs::exists(root_) && !fs::is_empty(root_)) {
        throw VeltraError("Veltra", errorCode::conflict,
                          "The demo folder " + root_.string() +
                              " is not empty. Choose a new or empty folder.");
    }
    if (!fs::is_directory(sample / "Sample.xcodeproj")) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "No sample project at " + sample.string() + ".");
    }
    fs::create_directories(served());
    fs::create_directories(releases());
    server_ = std::make_unique<StaticSiteServer>(served());
    say("Serving " + served().string() + " at " + siteURL());

    // The app: the sample in a repository of its own. It does not read updates yet: its first
    // release sets it up for this sandbox's feed and key.
    copyItem(sample, root_ / "Sample");
    publicKey_ = SparklePrivateKey::createFile(privateKey());
    say("Made a Sparkle key for the demo: " + privateKey().string());
    const auto appRepository = root_ / "Sample";
    git(appRepository, {"init", "--quiet", "--initial-branch=main"},
        "Could not create the sample's repository");
    git(appRepository, {"add", "--all"}, "Could not add the sample's files");
    auto commit = GitCommand::identityFallback(appRepository);
    commit.insert(commit.end(), {"commit", "--quiet", "-m", "Sample app"});
    git(appRepository, commit, "Could not commit the sample");

    // The hosting service: a bare origin that publishes main into the served folder.
    git(root_, {"init", "--quiet", "--bare", "--initial-branch=main", origin().string()},
        "Could not create the website's origin");
    // The served folder reaches the hook through the repository's configuration, never pasted
    // into the script: the sandbox may live under any path the user names.
    git(origin(), {"config", "--end-of-options", "veltra.servedFolder", served().string()},
        "Could not configure the website's origin");
    const auto hook = origin() / "hooks" / "post-receive";
    writeFileAtomically(
        hook, "#!/bin/sh\n"
              "# Publishes what is pushed to main, as a hosting service does: files\n"
              "# the push removed go from the site too.\n"
              "served=$(git config veltra.servedFolder) || exit 0\n"
              "while read old new ref; do\n"
              "  if [ \"$ref\" = refs/heads/main ]; then\n"
              "    git --work-tree=\"$served\" read-tree -u --reset main >/dev/null 2>&1\n"
              "  fi\n"
              "done\n"
              "exit 0\n");
    fs::permissions(hook, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);

    profile_ = ProjectProfile::create("Sample", "dev.veltra.sample");
    profile_.appName = "Sample";
    profile_.outputDirectory = releases().string();
    profile_.sourceProjectPath = project().string();
    profile_.selectedScheme = "Sample";
    profile_.notarization.enabled = false;
    profile_.sparkle.privateKeyPath = privateKey().string();
    profile_.sparkle.appcastPath = (website() / "downloads" / "appcast.xml").string();
    profile_.sparkle.downloadURLPattern = siteURL() + "downloads/{dmg}";
    profile_.sparkle.releaseNotesURLPattern = siteURL() + "downloads/{app}.md";
    profile_.webDeploy.websiteRepoPath = website().string();
    profile_.webDeploy.gitCommitAndPush = true;
    profile_.webDeploy.gitBranch = "main";
    profile_.webDeploy.siteURL = siteURL();
    profile_.webDeploy.websiteRepoRemoteURL = origin().string();
    profile_.hasCompletedInitialSetup = true;

    WebsiteCreator creator;
    creator.create(website(), profile_, origin().string(), log);
    git(website(), {"push", "--quiet", "-u", "origin", "main"},
        "Could not publish the new website");
    say("Website repository " + website().string() + " pushed to " + origin().string());
}

std::optional<std::filesystem::path> DemoSandbox::useStandInsUnlessXcode() {
#ifdef __APPLE__
    try {
        if (ProcessRunner::run("xcodebuild", {"-version"}).exitCode == 0) {
            return std::nullopt;
        }
    } catch (const std::exception&) {
    }
#endif
    const auto tools = ResourceLocator::locate(ResourceLocator::Resource::toolStandIns);
    if (!tools) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "This machine has no Xcode, and the stand-ins for Apple's tools are not "
                          "installed beside Veltra (share/veltra/tools). Reinstall Veltra.");
    }
    // Every tool runs through the process runner, which puts this folder first on PATH.
    ::setenv("VELTRA_TOOL_PATH", tools->c_str(), 1);
    // The stand-in hdiutil writes no real image; Veltra's own writer does.
    ::setenv("VELTRA_DMG_ENGINE", "native", 0);
    return tools;
}

fs::path DemoSandbox::writeLauncher(const fs::path& root, const fs::path& program,
                                    const std::optional<fs::path>& tools) {
    const auto script = root / "veltra";
    std::string text = "#!/bin/sh\n"
                       "# Veltra for this demo sandbox: its own profile file";
    text += tools ? std::string(" and the stand-ins for Apple's tools it was made with.\n")
                  : std::string(".\n");
    text += "# Serve its site first ('veltra demo --serve " + root.string() +
            "'), then for example: " + script.string() + " release Sample\n";
    text += "here=$(cd \"$(dirname \"$0\")\" && pwd)\n";
    text += "VELTRA_PROFILES=\"$here/profiles.json\"\nexport VELTRA_PROFILES\n";
    if (tools) {
        text += "VELTRA_TOOL_PATH=" + shellCommandLine({tools->string()}) +
                "\nVELTRA_DMG_ENGINE=native\nexport VELTRA_TOOL_PATH VELTRA_DMG_ENGINE\n";
    }
    text += "exec " + shellCommandLine({program.string()}) + " \"$@\"\n";
    writeFileAtomically(script, text);
    fs::permissions(script, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
    return script;
}

std::unique_ptr<StaticSiteServer> DemoSandbox::serveAgain(const fs::path& root) {
    const auto profiles = root / "profiles.json";
    std::error_code error;
    if (!fs::is_regular_file(profiles, error) || !fs::is_directory(root / "live-site", error)) {
        throw VeltraError("Veltra", errorCode::notFound,
                          root.string() + " is not a kept demo sandbox (no profiles.json and "
                                          "live-site). Make one with 'veltra demo --keep DIR'.");
    }
    std::uint16_t port = 0;
    for (const auto& profile : profilesFromJson(Json::parse(readFile(profiles)))) {
        const auto& site = profile.webDeploy.siteURL;
        constexpr std::string_view local = "http://127.0.0.1:";
        if (site.starts_with(local)) {
            port = static_cast<std::uint16_t>(
                std::stoul(site.substr(local.size(), site.find('/', local.size()) - local.size())));
        }
    }
    if (port == 0) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "The sandbox's profile names no address on this machine to serve.");
    }
    return std::make_unique<StaticSiteServer>(root / "live-site", port);
}

} // namespace veltra
