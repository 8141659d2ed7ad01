#include "GitHubReleaseEngine.h"

#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

namespace veltra {

std::vector<std::string> GitHubReleaseEngine::arguments(const GitHubReleaseConfig& config,
                                                        const std::filesystem::path& dmgPath,
                                                        const std::string& appName,
                                                        const std::string& version,
                                                        const std::filesystem::path& notesFile) {
    std::vector<std::string> list{"release",        "create",          "v" + version,
                                  dmgPath.string(), "--title",         appName + " v" + version,
                                  "--notes-file",   notesFile.string()};
    // Not trimmed: a repository of blanks is passed on for gh to refuse.
    if (!config.repoOwnerAndName.empty()) {
        list.insert(list.end(), {"--repo", config.repoOwnerAndName});
    }
    if (config.createDraft) {
        list.emplace_back("--draft");
    }
    return list;
}

void GitHubReleaseEngine::publish(const GitHubReleaseConfig& config,
                                  const std::filesystem::path& dmgPath, const std::string& appName,
                                  const std::string& version, const std::string& notes,
                                  const LogHandler& log, StopToken stop) const {
    if (!config.enabled) {
        return;
    }
    const auto say = [&log](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    say("Publishing release v" + version + " to GitHub Releases...");
    if (!ProcessRunner::findTool("gh")) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "GitHub CLI ('gh') is not installed. Install via 'brew install gh' or "
                          "disable GitHub Releases in profile.");
    }
    // The notes go through a file of their own: as an argument a long text fails (E2BIG) and
    // anyone could read it in the process list.
    const PrivateTemporaryFolder folder("veltra-notes");
    const auto notesFile = folder.path() / "notes.md";
    writeSecretFile(notesFile, notes);
    ProcessRequest request{.command = "gh",
                           .arguments = arguments(config, dmgPath, appName, version, notesFile),
                           .currentDirectory = repositoryFolder};
    if (log) {
        request.onLine = [&log](std::string_view line) {
            if (!line.empty()) {
                log(std::string(line));
            }
        };
    }
    const auto result = ProcessRunner::run(request, stop);
    if (result.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "GitHub release failed: " + result.errorOutput);
    }
    say("Success: Successfully published to GitHub Releases: v" + version);
}

} // namespace veltra
