#pragma once

#include "TestSupport.h"
#include "core/process/ProcessRunner.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace veltra::testing {

// Runs real git with a fixed identity and no user or system configuration.
inline std::string git(const std::filesystem::path& directory, std::vector<std::string> arguments) {
    ProcessRequest request;
    request.command = "git";
    request.arguments = std::move(arguments);
    request.currentDirectory = directory;
    request.environment = {
        {"GIT_AUTHOR_NAME", "Jane Doe"},    {"GIT_AUTHOR_EMAIL", "jane@example.com"},
        {"GIT_COMMITTER_NAME", "Jane Doe"}, {"GIT_COMMITTER_EMAIL", "jane@example.com"},
        {"GIT_CONFIG_NOSYSTEM", "1"},       {"GIT_CONFIG_GLOBAL", "/dev/null"}};
    const auto result = ProcessRunner::run(request);
    EXPECT_EQ(result.exitCode, 0) << "git " << request.arguments.front() << ": "
                                  << result.errorOutput;
    return result.output;
}

// A bare "origin" and a clone of it (the website repository) with one commit on main.
struct WebsiteRepository {
    TempDir dir;
    std::filesystem::path origin = dir / "origin.git";
    std::filesystem::path site = dir / "site";

    WebsiteRepository() {
        git(dir.path(), {"init", "--quiet", "--bare", "--initial-branch=main", origin.string()});
        git(origin, {"config", "uploadpack.allowFilter", "true"});
        git(dir.path(), {"clone", "--quiet", origin.string(), site.string()});
        git(site, {"checkout", "--quiet", "-b", "main"});
        commit("index.html", "<html></html>");
    }

    // Writes a file in the clone, commits it and pushes main.
    void commit(const std::string& path, const std::string& contents) {
        std::filesystem::create_directories((site / path).parent_path());
        writeFile(site / path, contents);
        git(site, {"add", path});
        git(site, {"commit", "--quiet", "-m", "Update " + path});
        git(site, {"push", "--quiet", "origin", "main"});
    }
};

} // namespace veltra::testing
