#include "ProcessRunner.h"

#include "ProcessExecutionError.h"
#include "ThreadSafeBuffer.h"
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

using namespace std::chrono_literals;

constexpr std::size_t readChunkSize = 16384;
constexpr int readsPerDrain = 64;
constexpr auto pollInterval = 10ms;

VeltraError posixError(int error, const std::string& what) {
    return VeltraError("POSIX", error, fmt::format("{}: {}", what, std::strerror(error)));
}

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return fd_; }
    // Closes now and reports the failure, for the one close whose failure matters.
    int close() noexcept {
        const int result = ::close(std::exchange(fd_, -1));
        return result == 0 ? 0 : errno;
    }
    void reset() noexcept {
        if (fd_ >= 0) {
            ::close(fd_); // close failures are of no use to anyone here
            fd_ = -1;
        }
    }

private:
    int fd_ = -1;
};

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
};

Pipe makePipe() {
    int fds[2];
#if defined(__linux__)
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw posixError(errno, "Could not create a pipe");
    }
#else
    // Without pipe2 there is a window before FD_CLOEXEC; POSIX_SPAWN_CLOEXEC_DEFAULT closes it
    // for every child this runner starts.
    if (::pipe(fds) != 0) {
        throw posixError(errno, "Could not create a pipe");
    }
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#endif
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

void prepareOutputPipe(const Pipe& pipe) {
    const int flags = ::fcntl(pipe.read.get(), F_GETFL);
    ::fcntl(pipe.read.get(), F_SETFL, flags | O_NONBLOCK);
#if defined(F_SETPIPE_SZ)
    // One poll may take 64 x 16 KiB; a pipe that holds as much lets a fast tool keep writing
    // between polls instead of stalling on the default 64 KiB. Refusal is harmless.
    ::fcntl(pipe.write.get(), F_SETPIPE_SZ, readsPerDrain * static_cast<int>(readChunkSize));
#endif
}

// One captured stream: each drain takes at most 64 reads of 16 KiB.
class StreamReader {
public:
    StreamReader(int fd, ThreadSafeBuffer& buffer,
                 const std::function<void(std::string_view)>& onOutput)
        : fd_(fd), buffer_(buffer), onOutput_(onOutput) {}

    int fd() const noexcept { return fd_; }
    bool atEnd() const noexcept { return atEnd_; }

    void drain(std::string& scratch) {
        for (int i = 0; i < readsPerDrain; ++i) {
            const ssize_t count = ::read(fd_, scratch.data(), scratch.size());
            if (count == 0) {
                atEnd_ = true;
                return;
            }
            if (count < 0) {
                return; // nothing available yet, or an error: try at the next drain
            }
            const std::string_view chunk(scratch.data(), static_cast<std::size_t>(count));
            buffer_.append(chunk);
            if (onOutput_ && utf8::isValid(chunk)) {
                onOutput_(chunk);
            }
        }
    }

private:
    int fd_;
    ThreadSafeBuffer& buffer_;
    const std::function<void(std::string_view)>& onOutput_;
    bool atEnd_ = false;
};

// Drains both streams on one background thread. While output flows, drains are 10 ms apart,
// so a chatty tool gets at most 64 x 16 KiB per stream per interval; while the tool is silent
// the thread sleeps in poll() instead of waking every 10 ms, which is what makes a long quiet
// build cost next to nothing.
class OutputPump {
public:
    OutputPump(StreamReader& output, StreamReader& errors)
        : output_(output), errors_(errors), wake_(makePipe()), scratch_(readChunkSize, '\0') {
        const int flags = ::fcntl(wake_.read.get(), F_GETFL);
        ::fcntl(wake_.read.get(), F_SETFL, flags | O_NONBLOCK);
    }

    void start() {
        thread_ = std::jthread([this](const std::stop_token& stop) { loop(stop); });
    }

    // Stops the thread and waits for it; then drains once more on the caller's thread, standard
    // output first, so what the tool wrote just before exiting is not lost.
    void finish() {
        if (thread_.joinable()) {
            thread_.request_stop();
            const char byte = 0;
            while (::write(wake_.write.get(), &byte, 1) < 0 && errno == EINTR) {
            }
            thread_.join();
        }
        output_.drain(scratch_);
        errors_.drain(scratch_);
    }

private:
    void loop(const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const auto drained = std::chrono::steady_clock::now();
            output_.drain(scratch_);
            errors_.drain(scratch_);
            // Pace the drains 10 ms apart, then wait until there is something to read.
            const auto next = drained + pollInterval;
            const auto pause = std::chrono::ceil<std::chrono::milliseconds>(
                next - std::chrono::steady_clock::now());
            if (pause.count() > 0 && !waitFor({}, pause, stop)) {
                return;
            }
            std::vector<int> open;
            for (const StreamReader* reader : {&output_, &errors_}) {
                if (!reader->atEnd()) {
                    open.push_back(reader->fd());
                }
            }
            if (!waitFor(open, std::nullopt, stop)) {
                return;
            }
        }
    }

    // Waits until one of `fds` is readable, the time passes, or a stop arrives.
    // Returns false on stop.
    bool waitFor(const std::vector<int>& fds, std::optional<std::chrono::milliseconds> duration,
                 const std::stop_token& stop) {
        std::vector<pollfd> polled;
        polled.push_back({wake_.read.get(), POLLIN, 0});
        for (const int fd : fds) {
            polled.push_back({fd, POLLIN, 0});
        }
        const int timeout = duration ? static_cast<int>(duration->count()) : -1;
        while (::poll(polled.data(), polled.size(), timeout) < 0 && errno == EINTR) {
        }
        return !stop.stop_requested();
    }

    StreamReader& output_;
    StreamReader& errors_;
    Pipe wake_;
    std::string scratch_;
    std::jthread thread_;
};

// The pseudo-terminal of a run with a TerminalReply: its master end is read on a thread of its
// own (so the tool never blocks writing to its terminal) and the reply is typed once the prompt
// shows there or on standard error.
class TerminalSession {
public:
    explicit TerminalSession(ProcessRequest::TerminalReply reply) : reply_(std::move(reply)) {
        for (auto& c : reply_.prompt) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        master_ = FileDescriptor(::posix_openpt(O_RDWR | O_NOCTTY));
        if (master_.get() < 0 || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0) {
            throw posixError(errno, "Could not open a terminal for the command");
        }
        ::fcntl(master_.get(), F_SETFD, FD_CLOEXEC);
#if defined(__linux__)
        char name[128] = {};
        if (::ptsname_r(master_.get(), name, sizeof name) != 0) {
            throw posixError(errno, "Could not name the command's terminal");
        }
        path_ = name;
#else
        static std::mutex ptsnameLock; // ptsname's buffer is shared
        const std::lock_guard guard(ptsnameLock);
        const char* name = ::ptsname(master_.get());
        if (name == nullptr) {
            throw posixError(errno, "Could not name the command's terminal");
        }
        path_ = name;
#endif
        // Held open here too, so the master does not read as closed before the child opens it.
        secondary_ = FileDescriptor(::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (secondary_.get() < 0) {
            throw posixError(errno, "Could not open the command's terminal");
        }
        ::fcntl(master_.get(), F_SETFL, ::fcntl(master_.get(), F_GETFL) | O_NONBLOCK);
    }
    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;
    ~TerminalSession() {
        finish();
    }

    const std::string& path() const noexcept {
        return path_;
    }

    void start() {
        thread_ = std::jthread([this](const std::stop_token& stop) {
            std::string buffer(4096, '\0');
            while (!stop.stop_requested()) {
                pollfd polled{master_.get(), POLLIN, 0};
                if (::poll(&polled, 1, 20) <= 0) {
                    continue;
                }
                const ssize_t count = ::read(master_.get(), buffer.data(), buffer.size());
                if (count > 0) {
                    observe(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
                } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
                    return;
                }
            }
        });
    }

    // Looks for the prompt in what the tool wrote; types the reply once.
    void observe(std::string_view chunk) {
        const std::lock_guard guard(lock_);
        if (replied_) {
            return;
        }
        for (const char c : chunk) {
            seen_ += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (seen_.find(reply_.prompt) == std::string::npos) {
            // A prompt split across chunks is still found; older text is of no use.
            if (seen_.size() > 4096) {
                seen_.erase(0, seen_.size() - 1024);
            }
            return;
        }
        replied_ = true;
        seen_.clear();
        const std::string typed = reply_.reply + "\n";
        std::string_view line = typed;
        while (!line.empty()) {
            const ssize_t written = ::write(master_.get(), line.data(), line.size());
            if (written < 0) {
                if (errno == EINTR || errno == EAGAIN) {
                    continue;
                }
                return;
            }
            line.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    void finish() {
        if (thread_.joinable()) {
            thread_.request_stop();
            thread_.join();
        }
    }

private:
    ProcessRequest::TerminalReply reply_;
    FileDescriptor master_;
    FileDescriptor secondary_;
    std::string path_;
    std::mutex lock_;
    std::string seen_;
    bool replied_ = false;
    std::jthread thread_;
};

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

ProcessResult ProcessRunner::run(std::string command, std::vector<std::string> arguments,
                                 std::stop_token stop) const {
    ProcessRequest request;
    request.command = std::move(command);
    request.arguments = std::move(arguments);
    return run(request, std::move(stop));
}

ProcessResult ProcessRunner::run(const ProcessRequest& request, std::stop_token stop) const {
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
    plan.foundOnPath = plan.executable != request.command && plan.executable != "/usr/bin/env";
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

    const auto limit = effectiveCaptureLimit(request.captureLimit, bool(request.onOutput));
    ThreadSafeBuffer outputBuffer(limit);
    ThreadSafeBuffer errorBuffer(limit);
    // A prompt written to standard error is answered as one written to the terminal.
    const std::function<void(std::string_view)> onErrorOutput =
        terminal
            ? std::function<void(std::string_view)>([&terminal, &request](std::string_view chunk) {
                  terminal->observe(chunk);
                  if (request.onOutput) {
                      request.onOutput(chunk);
                  }
              })
            : request.onOutput;
    StreamReader outputReader(output.read.get(), outputBuffer, request.onOutput);
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
        const std::stop_callback onCancel(
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
    return ProcessResult{exitCode, outputBuffer.string(), errorBuffer.string()};
}

} // namespace veltra
