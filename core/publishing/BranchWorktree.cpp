#include "BranchWorktree.h"

#include "GitCommand.h"
#include "core/support/GitRefName.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

namespace veltra {

namespace fs = std::filesystem;

BranchWorktree::BranchWorktree(const fs::path& project, const std::string& branch,
                               const fs::path& temporaryDirectory, StopToken stop) {
    if (const auto problem = gitBranchNameError(branch)) {
        throw VeltraError("Veltra", errorCode::invalidSetup, *problem);
    }
    const auto projectFolder = project.parent_path();
    const auto root = GitCommand::run(projectFolder, {"rev-parse", "--show-toplevel"}, stop, 60);
    if (root.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "The app project at " + project.string() +
                              " is not in a git repository, so branch '" + branch +
                              "' cannot be built.");
    }
    repository_ = fs::path(std::string(trimWhitespace(root.output)));
    const auto verified = GitCommand::run(
        repository_, {"rev-parse", "--verify", "--quiet", "--end-of-options", branch + "^{commit}"},
        stop, 60);
    if (verified.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "The app branch '" + branch + "' does not exist in " +
                              repository_.string() + ". Choose another branch before shipping.");
    }
    const auto base = temporaryDirectory.empty() ? fs::temp_directory_path() : temporaryDirectory;
    folder_ = base / ("veltra_branch_" + Uuid::random().string());
    const auto added = GitCommand::run(
        repository_, {"worktree", "add", "--detach", "--end-of-options", folder_.string(), branch},
        stop, 300);
    if (added.exitCode != 0) {
        throw GitCommand::failure("Could not check out app branch '" + branch + "'", added);
    }
    // Resolve symlinks on both sides (a temporary folder behind /var -> /private/var).
    std::error_code error;
    const auto canonicalProject = fs::weakly_canonical(project, error);
    const auto canonicalRoot = fs::weakly_canonical(repository_, error);
    project_ = folder_ / canonicalProject.lexically_relative(canonicalRoot);
}

BranchWorktree::~BranchWorktree() {
    // Never cancelled: the folder goes even when the run was stopped.
    try {
        GitCommand::run(repository_, {"worktree", "remove", "--force", folder_.string()}, {}, 120);
        GitCommand::run(repository_, {"worktree", "prune"}, {}, 120);
    } catch (const std::exception&) {
    }
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

} // namespace veltra
