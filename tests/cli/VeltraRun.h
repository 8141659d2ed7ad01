#pragma once

#include "core/process/ProcessRunner.h"

#include <csignal>
#include <map>
#include <optional>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace veltra::testing {

// Runs the built veltra as a user would, with extra environment variables.
inline ProcessResult runVeltra(std::vector<std::string> arguments,
                               std::map<std::string, std::string> environment = {},
                               std::optional<std::string> standardInput = {}) {
    ProcessRequest request;
    request.command = VELTRA_BINARY;
    request.arguments = std::move(arguments);
    request.environment = std::move(environment);
    request.standardInput = std::move(standardInput);
    return ProcessRunner::run(request);
}

// Runs the built veltra, sends `signal` to it (alone, as a CI runner or `timeout` does) once its
// output holds `marker`, and returns its output and exit status (`output` holds both streams).
inline ProcessResult runVeltraStoppedAt(const std::vector<std::string>& arguments,
                                        const std::map<std::string, std::string>& environment,
                                        const std::string& marker, int signal) {
    std::vector<std::string> words{VELTRA_BINARY};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (!environment.contains(text.substr(0, text.find('=')))) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : environment) {
        variables.push_back(name + "=" + value);
    }
    const auto pointers = [](std::vector<std::string>& texts) {
        std::vector<char*> out;
        for (auto& text : texts) {
            out.push_back(text.data());
        }
        out.push_back(nullptr);
        return out;
    };
    int channel[2];
    if (::pipe(channel) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, channel[0]);
    auto argv = pointers(words);
    auto envp = pointers(variables);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(channel[1]);
    ProcessResult result;
    if (spawned != 0) {
        ::close(channel[0]);
        return result;
    }
    bool sent = false;
    char buffer[4096];
    for (;;) {
        const auto got = ::read(channel[0], buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        result.output.append(buffer, static_cast<std::size_t>(got));
        if (!sent && result.output.find(marker) != std::string::npos) {
            ::kill(pid, signal);
            sent = true;
        }
    }
    ::close(channel[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace veltra::testing
