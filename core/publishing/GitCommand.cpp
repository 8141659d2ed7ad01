#include "GitCommand.h"

#include "core/support/Text.h"

#include <atomic>

namespace veltra {

namespace {

// git commands of this process under way, in any repository.
std::atomic<int> runningGitCommands{0};

} // namespace

ProcessResult GitCommand::run(const std::filesystem::path& repository,
                              std::vector<std::string> arguments, StopToken stop,
                              std::optional<double> timeout,
                              std::function<void(std::string_view)> onLine) {
    const auto indexLock = repository / ".git" / "index.lock";
    std::error_code error;
    const bool lockedBefore = std::filesystem::exists(indexLock, error);
    ++runningGitCommands;
    try {
        auto result =
            ProcessRunner::run(ProcessRequest{.command = "git",
                                              .arguments = std::move(arguments),
                                              .currentDirectory = repository,
                                              .environment = {{"GIT_TERMINAL_PROMPT", "0"}},
                                              .timeout = timeout,
                                              .onLine = std::move(onLine)},
                               stop);
        --runningGitCommands;
        return result;
    } catch (const CancellationError&) {
        // git removes its lock on SIGTERM; one killed after the grace period leaves it, and
        // every later commit would fail. It is Veltra's own only when it was not there before
        // and no other git of this process can be holding it.
        if (--runningGitCommands == 0 && !lockedBefore) {
            std::filesystem::remove(indexLock, error);
        }
        throw;
    } catch (...) {
        --runningGitCommands;
        throw;
    }
}

std::vector<std::string> GitCommand::identityFallback(const std::filesystem::path& repository,
                                                      StopToken stop) {
    const auto email = run(repository, {"config", "user.email"}, stop, 30);
    if (!trimWhitespace(email.output).empty()) {
        return {};
    }
    return {"-c", "user.name=Veltra", "-c", "user.email=veltra@localhost"};
}

bool GitCommand::isCredentialsProblem(std::string_view output) {
    const auto lower = asciiLowercase(output);
    for (const std::string_view sign :
         {"invalid username or token", "password authentication is not supported",
          "authentication failed", "terminal prompts disabled", "could not read username"}) {
        if (contains(lower, sign)) {
            return true;
        }
    }
    return false;
}

VeltraError GitCommand::failure(const std::string& base, const ProcessResult& result) {
    const std::string output(trimWhitespace(combinedOutput(result)));
    if (isCredentialsProblem(output)) {
        return VeltraError("Veltra", result.exitCode,
                           base +
                               ": GitHub Authentication Failed: Password authentication is not "
                               "supported by GitHub. Run 'gh auth setup-git' or 'gh auth "
                               "login' in Terminal to authorize Git pushes.\nDiagnostic: " +
                               output);
    }
    return VeltraError("Veltra", result.exitCode, base + ": " + output);
}

} // namespace veltra
