#include "WebsiteRepositoryInspector.h"

#include "GitCommand.h"
#include "core/support/Text.h"

namespace veltra {
namespace {

std::string trimmed(const std::string& text) {
    return std::string(trimWhitespace(text));
}

} // namespace

WebsiteRepositoryStatus WebsiteRepositoryInspector::inspect(const std::filesystem::path& repository,
                                                            const std::string& publishingBranch,
                                                            std::stop_token stop) const {
    WebsiteRepositoryStatus status;
    const auto where = repository.string();
    std::error_code error;
    if (!std::filesystem::is_directory(repository, error)) {
        status.blocker = "The website repository folder " + where +
                         " does not exist. Clone your website's repository there, or choose its "
                         "folder in the profile.";
        return status;
    }
    const auto git = [&](std::vector<std::string> arguments) {
        return GitCommand::run(runner, repository, std::move(arguments), stop, timeout);
    };
    try {
        const auto top = git({"rev-parse", "--show-toplevel"});
        if (top.exitCode != 0) {
            status.blocker = "The website folder " + where +
                             " is not a git repository. Choose the folder of your website's "
                             "repository, or run 'git init' there and add an origin remote.";
            return status;
        }
        const auto root = std::filesystem::weakly_canonical(trimmed(top.output), error);
        if (root != std::filesystem::weakly_canonical(repository, error)) {
            status.blocker = "The website folder " + where + " is inside the git repository at " +
                             root.string() +
                             ", not its root. Choose the repository's root folder in the profile.";
            return status;
        }
        for (const auto& [marker, what, command] :
             {std::tuple{"rebase-merge", "a rebase", "git rebase"},
              std::tuple{"rebase-apply", "a rebase", "git rebase"},
              std::tuple{"MERGE_HEAD", "a merge", "git merge"}}) {
            const auto path = git({"rev-parse", "--git-path", marker});
            if (path.exitCode == 0) {
                std::filesystem::path found = trimmed(path.output);
                if (found.is_relative()) {
                    found = repository / found;
                }
                if (std::filesystem::exists(found, error)) {
                    status.blocker = "The website repository at " + where + " has " + what +
                                     " in progress. Finish it with '" + command +
                                     " --continue' or undo it with '" + command +
                                     " --abort', then release again.";
                    return status;
                }
            }
        }
        const auto branch = git({"symbolic-ref", "--short", "-q", "HEAD"});
        status.branch = branch.exitCode == 0 ? trimmed(branch.output) : std::string();
        if (status.branch.empty()) {
            status.blocker = "The website repository at " + where +
                             " has no branch checked out (detached HEAD). Switch to the "
                             "publishing branch with 'git switch " +
                             publishingBranch + "', then release again.";
            return status;
        }
        if (status.branch != publishingBranch) {
            status.blocker = "The website repository at " + where + " is on branch '" +
                             status.branch + "', not the publishing branch '" + publishingBranch +
                             "'. Switch with 'git switch " + publishingBranch +
                             "', or set the publishing branch in the profile.";
            return status;
        }
        const auto remotes = git({"remote"});
        bool hasOrigin = false;
        forEachTrimmedLine(remotes.output, [&hasOrigin](std::string_view line) {
            hasOrigin = hasOrigin || line == "origin";
        });
        if (!hasOrigin) {
            status.blocker = "The website repository at " + where +
                             " has no origin remote. Add the address your hosting service "
                             "publishes from with 'git remote add origin <URL>'.";
            return status;
        }
        const auto origin = git({"remote", "get-url", "origin"});
        if (origin.exitCode == 0) {
            status.originURL = trimmed(origin.output);
        }
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& failure) {
        status.blocker =
            "The website repository at " + where + " could not be inspected: " + failure.what();
    }
    return status;
}

} // namespace veltra
