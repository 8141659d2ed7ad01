#pragma once

// The runner's plumbing: descriptors, pipes, the output pump and the pseudo-terminal of a run
// with a terminal reply. Private to the process runner.

#include "ProcessExecutionError.h"
#include "ProcessRunner.h"
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

namespace veltra::processio {

using namespace std::chrono_literals;

constexpr std::size_t readChunkSize = 16384;
constexpr int readsPerDrain = 64;
constexpr auto pollInterval = 10ms;

inline VeltraError posixError(int error, const std::string& what) {
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

inline Pipe makePipe() {
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

inline void prepareOutputPipe(const Pipe& pipe) {
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
    // `onOutput` gets every chunk as read, UTF-8 or not.
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
            if (onOutput_) {
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
        thread_ = JThread([this](const StopToken& stop) { loop(stop); });
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
    void loop(const StopToken& stop) {
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
                 const StopToken& stop) {
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
    JThread thread_;
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
        thread_ = JThread([this](const StopToken& stop) {
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
    JThread thread_;
};

} // namespace veltra::processio
