#include "WebsiteRepositoryInspector.h"

#include "GitCommand.h"
#include "core/support/Secrets.h"
#include "core/support/Text.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <vector>

namespace veltra {
namespace {

std::string trimmed(const std::string& text) {
    return std::string(trimWhitespace(text));
}

} // namespace

WebsiteRepositoryStatus WebsiteRepositoryInspector::inspect(const std::filesystem::path& repository,
                                                            const std::string& publishingBranch,
                                                            StopToken stop) const {
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
        return GitCommand::run(repository, std::move(arguments), stop, timeout);
    };
    try {
        // One rev-parse answers the root and where the in-progress markers live: every git
        // start costs milliseconds, and this runs twice per release.
        const auto paths = git({"rev-parse", "--show-toplevel", "--git-path", "rebase-merge",
                                "--git-path", "rebase-apply", "--git-path", "MERGE_HEAD",
                                "--git-path", "CHERRY_PICK_HEAD", "--git-path", "index.lock"});
        std::vector<std::string> lines;
        forEachTrimmedLine(paths.output,
                           [&lines](std::string_view line) { lines.emplace_back(line); });
        if (paths.exitCode != 0 || lines.size() != 6) {
            status.blocker = "The website folder " + where +
                             " is not a git repository. Choose the folder of your website's "
                             "repository, or run 'git init' there and add an origin remote.";
            return status;
        }
        const auto root = std::filesystem::weakly_canonical(lines[0], error);
        if (root != std::filesystem::weakly_canonical(repository, error)) {
            status.blocker = "The website folder " + where + " is inside the git repository at " +
                             root.string() +
                             ", not its root. Choose the repository's root folder in the profile.";
            return status;
        }
        const std::tuple<const char*, const char*> markers[] = {
            {"a rebase", "git rebase"},
            {"a rebase", "git rebase"},
            {"a merge", "git merge"},
            {"a cherry-pick", "git cherry-pick"}};
        for (std::size_t index = 0; index < std::size(markers); ++index) {
            const auto& [what, command] = markers[index];
            std::filesystem::path found = lines[index + 1];
            if (found.is_relative()) {
                found = repository / found;
            }
            if (std::filesystem::exists(found, error)) {
                status.blocker = std::string("The website repository at ") + where + " has " +
                                 what + " in progress. Finish it with '" + command +
                                 " --continue' or undo it with '" + command +
                                 " --abort', then release again.";
                return status;
            }
        }
        if (std::filesystem::path lock = lines[5];
            std::filesystem::exists(lock.is_relative() ? repository / lock : lock, error)) {
            status.blocker = "The website repository at " + where +
                             " is locked by another git command (.git/index.lock). Wait for it "
                             "to finish; if none is running, remove .git/index.lock, then release "
                             "again.";
            return status;
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
        // get-url fails for a remote that is not there, so it is also the check for origin.
        const auto origin = git({"remote", "get-url", "origin"});
        const auto url = origin.exitCode == 0 ? trimmed(origin.output) : std::string();
        if (url.empty()) {
            status.blocker = "The website repository at " + where +
                             " has no origin remote. Add the address your hosting service "
                             "publishes from with 'git remote add origin <URL>'.";
            return status;
        }
        status.originURL = redactURLCredentials(url); // shown, never used to connect
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& failure) {
        status.blocker =
            "The website repository at " + where + " could not be inspected: " + failure.what();
    }
    return status;
}

std::optional<std::string> WebsiteRepositoryInspector::releaseBlocker(
    const std::filesystem::path& repository, const std::string& publishingBranch,
    const std::vector<std::string>& releasePaths, const std::string& ownCommitSubject,
    StopToken stop) const {
    const auto where = repository.string();
    const auto git = [&](std::vector<std::string> arguments) {
        return GitCommand::run(repository, std::move(arguments), stop, timeout);
    };
    // What origin has, as last fetched. A branch origin never had is published whole by the
    // first release: the site is new.
    const auto tracking = "refs/remotes/origin/" + publishingBranch;
    if (git({"rev-parse", "--verify", "--quiet", "--end-of-options", tracking}).exitCode == 0) {
        constexpr std::size_t named = 5;
        const auto ahead = git({"log", "--format=%h %s", "--end-of-options", tracking + "..HEAD"});
        std::vector<std::string> commits;
        forEachTrimmedLine(ahead.output, [&](std::string_view line) {
            const auto space = line.find(' ');
            if (space == std::string_view::npos || line.substr(space + 1) != ownCommitSubject) {
                commits.emplace_back(line);
            }
        });
        if (ahead.exitCode == 0 && !commits.empty()) {
            std::string list;
            for (std::size_t i = 0; i < std::min(named, commits.size()); ++i) {
                list += (i == 0 ? "" : "; ") + commits[i];
            }
            if (commits.size() > named) {
                list += "; and more";
            }
            return "The website repository at " + where + " has commits that origin/" +
                   publishingBranch + " does not: " + list +
                   ". A release publishes only its own files: push these commits first, or move "
                   "them off '" +
                   publishingBranch +
                   "' (for example 'git branch drafts && git reset --keep origin/" +
                   publishingBranch + "'), then release again.";
        }
    }
    if (!releasePaths.empty()) {
        std::vector<std::string> status{"status", "--porcelain=v1", "-z", "--untracked-files=all",
                                        "--"};
        status.insert(status.end(), releasePaths.begin(), releasePaths.end());
        const auto changed = git(status);
        std::vector<std::string> names;
        // "XY path\0", with a second path after a rename's.
        for (std::size_t at = 0; at + 3 < changed.output.size();) {
            const auto end = changed.output.find('\0', at);
            const auto entry = changed.output.substr(at, end - at);
            names.push_back(entry.substr(3));
            at = end == std::string::npos ? changed.output.size() : end + 1;
            if (entry[0] == 'R' || entry[0] == 'C') {
                const auto next = changed.output.find('\0', at);
                at = next == std::string::npos ? changed.output.size() : next + 1;
            }
        }
        if (changed.exitCode == 0 && !names.empty()) {
            std::string list;
            for (const auto& name : names) {
                list += (list.empty() ? "" : ", ") + name;
            }
            return "The website repository at " + where +
                   " has uncommitted changes to files the release commits: " + list +
                   ". Commit and push them, or undo them (git restore --staged --worktree -- " +
                   names.front() + "), then release again.";
        }
    }
    return std::nullopt;
}

} // namespace veltra
