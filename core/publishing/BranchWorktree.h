#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <string>

namespace veltra {

// A committed branch of the app's repository checked out into a temporary git worktree, so a
// release builds exactly what is committed; removed again when this goes away, whatever ended
// the run.
class BranchWorktree {
public:
    // Throws VeltraError ("Veltra", 404) when the project is not in a git repository or the
    // branch does not exist, with git's words.
    BranchWorktree(const std::filesystem::path& project, const std::string& branch,
                   const std::filesystem::path& temporaryDirectory, StopToken stop = {});
    BranchWorktree(const BranchWorktree&) = delete;
    BranchWorktree& operator=(const BranchWorktree&) = delete;
    ~BranchWorktree();

    // The project's counterpart inside the worktree.
    const std::filesystem::path& project() const { return project_; }
    const std::filesystem::path& folder() const { return folder_; }

private:
    std::filesystem::path repository_;
    std::filesystem::path folder_;
    std::filesystem::path project_;
};

} // namespace veltra
