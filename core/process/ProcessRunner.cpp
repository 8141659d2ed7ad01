#include "ProcessRunner.h"

#include "ProcessExecutionError.h"
#include "ProcessIO.h"
#include "ThreadSafeBuffer.h"
#include "core/support/Secrets.h"
#include "core/support/Text.h"
#include "core/support/Utf8.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

extern char** environ; // NOLINT: POSIX declares it nowhere else

namespace veltra {
namespace {

using namespace processio;

// What posix_spawn needs, built before the lock is taken.
struct SpawnPlan {
    std::string displayName;
    std::string executable;
    std::vector<std::string> argv;
    std::vector<std::string> envp;
    bool foundOnPath = false; // a bare name the runner looked up itself
    std::optional<std::string> workingDirectory;
    int standardInput = -1; // -1: inherit
    // A pseudo-terminal to open as standard input and controlling terminal, in a new session.
    std::optional<std::string> terminal;
    int standardOutput = -1;
    int standardError = -1;
};

int spawn(const SpawnPlan& plan, pid_t& pid) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);

    if (plan.terminal) {
        // Opened in the child, which leads a new session: the first terminal it opens becomes
        // its controlling terminal, the /dev/tty a password prompt reads.
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, plan.terminal->c_str(), O_RDWR, 0);
    } else if (plan.standardInput >= 0) {
        posix_spawn_file_actions_adddup2(&actions, plan.standardInput, STDIN_FILENO);
    }
#if defined(__APPLE__)
    else {
        posix_spawn_file_actions_addinherit_np(&actions, STDIN_FILENO);
    }
#endif
    posix_spawn_file_actions_adddup2(&actions, plan.standardOutput, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, plan.standardError, STDERR_FILENO);
    if (plan.workingDirectory) {
        posix_spawn_file_actions_addchdir_np(&actions, plan.workingDirectory->c_str());
    }

    // Own process group, so a stop takes the tool's helpers down with it; clean signal state,
    // since the host may block or ignore signals (SIGINT in the CLI, SIGPIPE anywhere).
    // A new session is a new process group too, led by the child. Without POSIX_SPAWN_SETSID
    // the terminal is still the child's standard input, where a prompt falls back to reading.
#if defined(POSIX_SPAWN_SETSID)
    const int groupFlag = plan.terminal ? POSIX_SPAWN_SETSID : POSIX_SPAWN_SETPGROUP;
#else
    const int groupFlag = POSIX_SPAWN_SETPGROUP;
#endif
    short flags = static_cast<short>(groupFlag | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
#if defined(__APPLE__)
    flags = static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
#endif
    posix_spawnattr_setflags(&attributes, flags);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    for (int signal = 1; signal < 32; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) {
            sigaddset(&signals, signal);
        }
    }
    posix_spawnattr_setsigdefault(&attributes, &signals);

    const auto pointers = [](const std::vector<std::string>& strings) {
        std::vector<char*> list;
        list.reserve(strings.size() + 1);
        for (const auto& text : strings) {
            list.push_back(const_cast<char*>(text.c_str()));
        }
        list.push_back(nullptr);
        return list;
    };
    auto argv = pointers(plan.argv);
    std::vector<char*> envp;
    envp.reserve(plan.envp.size() + 1);
    for (const auto& entry : plan.envp) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);

    int result = ::posix_spawn(&pid, plan.executable.c_str(), &actions, &attributes, argv.data(),
                               envp.data());
    if (result == ENOEXEC && plan.foundOnPath) {
        // A script without "#!": env's execvp hands it to /bin/sh, so env it is.
        std::vector<std::string> viaEnv{"/usr/bin/env"};
        viaEnv.insert(viaEnv.end(), plan.argv.begin(), plan.argv.end());
        argv = pointers(viaEnv);
        result = ::posix_spawn(&pid, viaEnv.front().c_str(), &actions, &attributes, argv.data(),
                               envp.data());
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return result;
}

// Ties one launched child to the waiting caller. start, finish and stop are serialised by the
// mutex, and `completed` makes the caller's wake-up happen exactly once whichever comes first.
class ProcessExecution {
public:
    ProcessExecution() = default;
    ProcessExecution(const ProcessExecution&) = delete;
    ProcessExecution& operator=(const ProcessExecution&) = delete;
    ~ProcessExecution() { reap(); }

    // Launches the child, unless a stop came first: then the run completes with that error.
    void start(const SpawnPlan& plan) {
        const std::lock_guard guard(lock_);
        started_ = true;
        if (stopError_) {
            complete(stopError_);
            return;
        }
        pid_t pid = -1;
        if (const int error = spawn(plan, pid); error != 0) {
            complete(std::make_exception_ptr(
                posixError(error, fmt::format("Could not run {}", plan.displayName))));
            return;
        }
        pid_ = pid;
        running_ = true;
        try {
            // Learns of the exit without reaping, so the pid stays ours until reap(): a stop
            // can never signal a recycled pid.
            waiter_ = std::thread([this, pid] {
                siginfo_t info{};
                while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 &&
                       errno == EINTR) {
                }
                finish();
            });
        } catch (...) {
            ::kill(-pid, SIGKILL);
            ::kill(pid, SIGKILL);
            running_ = false;
            complete(std::current_exception());
        }
    }

    void finish() {
        const std::lock_guard guard(lock_);
        running_ = false;
        if (!completed_) {
            complete(nullptr);
        }
        done_.notify_all();
    }

    // After a stop: waits up to `grace` for the tool to end, then kills what is left of its
    // process group. The leader is not reaped yet, so the group ID cannot belong to anyone else.
    void killAfterGrace(std::chrono::milliseconds grace) {
        std::unique_lock lock(lock_);
        if (pid_ <= 0) {
            return;
        }
        done_.wait_for(lock, grace, [this] { return !running_; });
        ::kill(-pid_, SIGKILL);
        if (running_) {
            ::kill(pid_, SIGKILL);
        }
    }

    void stop(const std::exception_ptr& error) {
        const std::lock_guard guard(lock_);
        if (completed_) {
            return;
        }
        stopError_ = error;
        if (running_) {
            // A chance to clean up first; killAfterGrace follows with SIGKILL.
            ::kill(-pid_, SIGTERM);
            ::kill(pid_, SIGTERM);
        }
        if (started_) {
            complete(error);
        }
    }

    // Blocks until completed or until the deadline; true when completed.
    bool waitUntil(const std::optional<std::chrono::steady_clock::time_point>& deadline) {
        std::unique_lock lock(lock_);
        if (!deadline) {
            done_.wait(lock, [this] { return completed_; });
            return true;
        }
        return done_.wait_until(lock, *deadline, [this] { return completed_; });
    }

    std::exception_ptr outcome() const {
        const std::lock_guard guard(lock_);
        return outcome_;
    }

    // Waits for the child to end and collects its status; returns the exit code, -1 if unknown.
    int reap() {
        if (waiter_.joinable()) {
            waiter_.join();
        }
        if (pid_ <= 0) {
            return -1;
        }
        int status = 0;
        pid_t result = 0;
        while ((result = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        if (result < 0) {
            return -1; // someone else reaped it (SIGCHLD ignored by the host)
        }
        if (WIFEXITED(status)) {
            return WEXITSTATUS(status);
        }
        if (WIFSIGNALED(status)) {
            return WTERMSIG(status);
        }
        return -1;
    }

private:
    void complete(std::exception_ptr error) {
        completed_ = true;
        outcome_ = std::move(error);
        done_.notify_all();
    }

    mutable std::mutex lock_;
    std::condition_variable done_;
    pid_t pid_ = -1;
    bool running_ = false;
    bool started_ = false;
    bool completed_ = false;
    std::exception_ptr stopError_;
    std::exception_ptr outcome_;
    std::thread waiter_;
};

} // namespace

namespace {

// Where execvp would find `name` on `searchPath`: the first regular file the user may execute.
// An empty folder in the list is the working directory, as for the shell.
std::optional<std::string>
findOnPath(const std::string& name, std::string_view searchPath,
           const std::optional<std::filesystem::path>& workingDirectory) {
    while (true) {
        const auto colon = searchPath.find(':');
        std::filesystem::path folder(searchPath.substr(0, colon));
        if (folder.empty()) {
            folder = ".";
        }
        if (folder.is_relative() && workingDirectory) {
            folder = *workingDirectory / folder;
        }
        const auto candidate = (folder / name).string();
        struct stat info {};
        if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return folder.is_relative() ? (std::filesystem::current_path() / candidate).string()
                                        : candidate;
        }
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        searchPath.remove_prefix(colon + 1);
    }
}

} // namespace

ProcessRunner::Launch
ProcessRunner::resolveLaunch(const std::string& command, const std::vector<std::string>& arguments,
                             std::optional<std::string_view> searchPath,
                             const std::optional<std::filesystem::path>& workingDirectory) {
    Launch launch;
    std::optional<std::string> found;
    if (searchPath && !command.empty() && command.find('/') == std::string::npos) {
        found = findOnPath(command, *searchPath, workingDirectory);
    }
    if (command.starts_with('/') || command.starts_with("./") || found) {
        // One exec instead of two: env would find the same file on the same PATH.
        launch.executable = found.value_or(command);
        launch.foundOnPath = found.has_value();
        launch.argv.reserve(arguments.size() + 1);
        launch.argv.push_back(command);
    } else {
        launch.executable = "/usr/bin/env";
        launch.argv.reserve(arguments.size() + 2);
        launch.argv.push_back(launch.executable);
        launch.argv.push_back(command);
    }
    launch.argv.insert(launch.argv.end(), arguments.begin(), arguments.end());
    return launch;
}

std::map<std::string, std::string>
ProcessRunner::childEnvironment(std::map<std::string, std::string> parent,
                                const std::map<std::string, std::string>& overrides) {
    std::string path;
    // Folders searched before the fixed ones: how the demo and the tests put the Apple-tool
    // stand-ins ahead of any real tool of the same name.
    if (const auto first = parent.find("VELTRA_TOOL_PATH");
        first != parent.end() && !first->second.empty()) {
        path = first->second + ":";
    }
    path += pathPrefix;
    if (const auto found = parent.find("PATH"); found != parent.end()) {
        path += found->second;
    }
    parent["PATH"] = std::move(path);
    // The telemetry key and address are Veltra's own business: no tool it runs gets them.
    std::erase_if(parent, [](const auto& variable) {
        return variable.first.starts_with("VELTRA_TELEMETRY");
    });
    for (const auto& [key, value] : overrides) {
        parent[key] = value;
    }
    return parent;
}

std::map<std::string, std::string> ProcessRunner::applicationEnvironment() {
    std::map<std::string, std::string> variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            continue;
        }
        variables.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    return variables;
}

std::optional<std::size_t> ProcessRunner::effectiveCaptureLimit(std::optional<long long> requested,
                                                                bool streaming) {
    if (requested) {
        return static_cast<std::size_t>(std::max(*requested, 0LL));
    }
    if (streaming) {
        return defaultStreamingCaptureLimit;
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> ProcessRunner::findTool(const std::string& name) {
    const auto environment = childEnvironment(applicationEnvironment(), {});
    const auto path = environment.find("PATH");
    if (name.empty() || name.find('/') != std::string::npos || path == environment.end()) {
        return std::nullopt;
    }
    auto launch = resolveLaunch(name, {}, path->second);
    if (!launch.foundOnPath) {
        return std::nullopt;
    }
    return std::filesystem::path(std::move(launch.executable));
}

ProcessResult ProcessRunner::run(std::string command, std::vector<std::string> arguments,
                                 StopToken stop) {
    ProcessRequest request;
    request.command = std::move(command);
    request.arguments = std::move(arguments);
    return run(request, std::move(stop));
}

namespace {

std::mutex traceLock;
ProcessRunner::Trace& currentTrace() {
    static ProcessRunner::Trace trace;
    return trace;
}

} // namespace

void ProcessRunner::setTrace(Trace trace) {
    const std::lock_guard guard(traceLock);
    currentTrace() = std::move(trace);
}

ProcessResult ProcessRunner::run(const ProcessRequest& request, StopToken stop) {
    Trace trace;
    {
        const std::lock_guard guard(traceLock);
        trace = currentTrace();
    }
    if (!trace) {
        return runUntraced(request, std::move(stop));
    }
    std::vector<std::string> words{request.command};
    words.insert(words.end(), request.arguments.begin(), request.arguments.end());
    // Addresses in arguments and output may carry a token (git repeats its remote's).
    trace("$ " + redactURLCredentials(shellCommandLine(words)));
    const auto result = runUntraced(request, std::move(stop));
    if (request.secretOutput) {
        trace("  | (" + std::to_string(result.output.size()) + " bytes of secret output hidden)");
    }
    for (const auto* stream : {&result.output, &result.errorOutput}) {
        if (request.secretOutput && stream == &result.output) {
            continue;
        }
        std::size_t begin = 0;
        while (begin < stream->size()) {
            const auto end = std::min(stream->find('\n', begin), stream->size());
            trace("  | " + redactURLCredentials(stream->substr(begin, end - begin)));
            begin = end + 1;
        }
    }
    if (result.exitCode != 0) {
        trace("  (exit status " + std::to_string(result.exitCode) + ")");
    }
    return result;
}

ProcessResult ProcessRunner::runUntraced(const ProcessRequest& request, StopToken stop) {
    if (request.standardInput && request.standardInput->size() > maxStandardInput) {
        throw ProcessExecutionError::inputTooLarge();
    }
    if (request.terminalReply && request.standardInput) {
        throw std::invalid_argument("A command reads either its input or a terminal reply.");
    }
    if (request.timeout && !std::isfinite(*request.timeout)) {
        throw std::invalid_argument("A command's time-out must be a finite number of seconds.");
    }

    SpawnPlan plan;
    plan.displayName = request.command;
    const auto environment = childEnvironment(applicationEnvironment(), request.environment);
    for (const auto& [key, value] : environment) {
        plan.envp.push_back(key + "=" + value);
    }
    const auto path = environment.find("PATH");
    auto launch = resolveLaunch(
        request.command, request.arguments,
        path == environment.end() ? std::nullopt : std::optional<std::string_view>(path->second),
        request.currentDirectory);
    plan.executable = std::move(launch.executable);
    plan.foundOnPath = launch.foundOnPath;
    if (plan.executable.starts_with("./")) {
        // Relative to the caller's directory, not the child's working directory.
        plan.executable = (std::filesystem::current_path() / plan.executable).lexically_normal();
    }
    plan.argv = std::move(launch.argv);
    if (request.currentDirectory) {
        plan.workingDirectory = request.currentDirectory->string();
    }

    Pipe input;
    if (request.standardInput) {
        input = makePipe();
        // At most 4096 bytes always fit in a pipe, so this cannot block.
        std::string_view bytes = *request.standardInput;
        while (!bytes.empty()) {
            const ssize_t written = ::write(input.write.get(), bytes.data(), bytes.size());
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                throw posixError(errno, "Could not write the command's input");
            }
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        if (const int error = input.write.close(); error != 0) {
            throw posixError(error, "Could not close the command's input");
        }
        plan.standardInput = input.read.get();
    }

    std::unique_ptr<TerminalSession> terminal;
    if (request.terminalReply) {
        terminal = std::make_unique<TerminalSession>(*request.terminalReply);
        plan.terminal = terminal->path();
    }

    Pipe output = makePipe();
    Pipe errors = makePipe();
    prepareOutputPipe(output);
    prepareOutputPipe(errors);
    plan.standardOutput = output.write.get();
    plan.standardError = errors.write.get();

    const bool streaming = bool(request.onOutput) || bool(request.onLine);
    const auto limit = effectiveCaptureLimit(request.captureLimit, streaming);
    ThreadSafeBuffer outputBuffer(limit);
    ThreadSafeBuffer errorBuffer(limit);
    // Both streams are read on the pump's one thread, so their lines never overlap.
    LineAssembler outputLines(request.onLine);
    LineAssembler errorLines(request.onLine);
    // What each stream's chunks feed; a prompt written to standard error is answered as one
    // written to the terminal.
    const auto consumer = [&request, streaming](LineAssembler& lines, TerminalSession* watcher) {
        if (!streaming && watcher == nullptr) {
            return std::function<void(std::string_view)>();
        }
        return std::function<void(std::string_view)>(
            [&request, &lines, watcher](std::string_view chunk) {
                if (watcher != nullptr) {
                    watcher->observe(chunk);
                }
                if (request.onOutput && utf8::isValid(chunk)) {
                    request.onOutput(chunk);
                }
                if (request.onLine) {
                    lines.consume(chunk);
                }
            });
    };
    const auto onStandardOutput = consumer(outputLines, nullptr);
    const auto onErrorOutput = consumer(errorLines, terminal.get());
    StreamReader outputReader(output.read.get(), outputBuffer, onStandardOutput);
    StreamReader errorReader(errors.read.get(), errorBuffer, onErrorOutput);
    OutputPump pump(outputReader, errorReader);
    pump.start();

    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (request.timeout) {
        const double seconds = std::clamp(*request.timeout, 0.0, 1e9);
        deadline = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                       std::chrono::duration<double>(seconds));
    }

    ProcessExecution execution;
    std::exception_ptr failure;
    {
        const StopCallback onCancel(
            stop, [&execution] { execution.stop(std::make_exception_ptr(CancellationError())); });
        if (terminal) {
            terminal->start();
        }
        execution.start(plan);
        // The parent's copies of the write ends must go, or the child's exit would never look
        // like the end of its output to anyone reading until EOF.
        output.write.reset();
        errors.write.reset();
        if (!execution.waitUntil(deadline)) {
            execution.stop(
                std::make_exception_ptr(ProcessExecutionError::timedOut(*request.timeout)));
            execution.waitUntil(std::nullopt);
        }
        failure = execution.outcome();
        if (!failure && stop.stop_requested()) {
            failure = std::make_exception_ptr(CancellationError());
        }
    }
    if (failure) {
        execution.killAfterGrace(terminationGrace);
    }
    const int exitCode = execution.reap();
    pump.finish(); // after the exit, so what the tool wrote last is read
    if (terminal) {
        terminal->finish();
    }
    if (failure) {
        std::rethrow_exception(failure); // output of a stopped run is discarded
    }
    outputLines.finish();
    errorLines.finish();
    return ProcessResult{exitCode, outputBuffer.string(), errorBuffer.string()};
}

void LineAssembler::consume(std::string_view chunk) {
    std::size_t start = 0;
    for (auto end = chunk.find('\n'); end != std::string_view::npos;
         end = chunk.find('\n', start)) {
        if (pending_.empty()) {
            deliver(chunk.substr(start, end - start));
        } else {
            pending_.append(chunk.substr(start, end - start));
            deliver(pending_);
            pending_.clear();
        }
        start = end + 1;
    }
    pending_.append(chunk.substr(start));
}

void LineAssembler::finish() {
    if (!pending_.empty()) {
        deliver(pending_);
        pending_.clear();
    }
}

void LineAssembler::deliver(std::string_view line) {
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    if (utf8::isValid(line)) {
        onLine_(line);
    } else {
        onLine_(utf8::decodeLossy(line));
    }
}

} // namespace veltra
