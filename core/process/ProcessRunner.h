#pragma once

#include "ProcessResult.h"
#include "core/support/StopToken.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// One tool run. Only `command` is required.
struct ProcessRequest {
    // A path ("/..." or "./...") run as it is, or a bare tool name looked up on the child's PATH.
    std::string command{};
    std::vector<std::string> arguments{};
    // The child's working directory; the caller's when absent.
    std::optional<std::filesystem::path> currentDirectory{};
    // Variables set over the application's environment (a PATH here replaces the prefixed one).
    std::map<std::string, std::string> environment{};
    // Seconds; finite. Absent means no limit.
    std::optional<double> timeout{};
    // Fed to the child's standard input (at most 4096 bytes); secrets go here, never in arguments.
    std::optional<std::string> standardInput{};
    // For a tool that asks for a secret only at its terminal: the child runs in a session of its
    // own with a pseudo-terminal as controlling terminal and standard input, and `reply` is typed
    // there (with a newline) once `prompt` (any case) appears on that terminal or on standard
    // error. What the tool writes to the terminal is not captured. Not with standardInput.
    struct TerminalReply {
        std::string prompt;
        std::string reply;
    };
    std::optional<TerminalReply> terminalReply{};
    // Byte cap on each captured stream; the tail is kept. Defaults to 1 MiB when streaming.
    std::optional<long long> captureLimit{};
    // Called from reader threads with each chunk of output that is valid UTF-8 on its own.
    // Chunks are not lines; a chunk that splits a character is captured but not passed here.
    std::function<void(std::string_view)> onOutput{};
    // Called with each whole line of output, assembled across reads: standard output's and
    // standard error's each on their own, without the line break ("\n", or "\r\n"), ill-formed
    // UTF-8 replaced. A last line without a break comes when the tool has ended (not when it was
    // stopped). Lines of one run come one at a time, never concurrently.
    std::function<void(std::string_view)> onLine{};
    // What the tool prints is a secret (a key or password read out of a keychain): a trace
    // (--verbose) says only how much it printed.
    bool secretOutput = false;
};

// Cuts a stream of chunks into whole lines for ProcessRequest::onLine.
class LineAssembler {
public:
    explicit LineAssembler(const std::function<void(std::string_view)>& onLine) : onLine_(onLine) {}
    void consume(std::string_view chunk);
    // Hands on what is left after the last line break, if anything.
    void finish();

private:
    void deliver(std::string_view line);

    const std::function<void(std::string_view)>& onLine_;
    std::string pending_{};
};

// The one way Veltra starts an external program. Stateless; safe to use from many threads.
class ProcessRunner {
public:
    static constexpr std::string_view pathPrefix =
        "/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin:";
    static constexpr std::size_t maxStandardInput = 4096;
    static constexpr std::size_t defaultStreamingCaptureLimit = 1024 * 1024;
    // How long a stopped tool has between SIGTERM and SIGKILL, to clean up after itself (git
    // removes its index.lock).
    static constexpr std::chrono::milliseconds terminationGrace{2000};

    // Runs the tool to completion. Throws ProcessExecutionError (input too large, timed out),
    // CancellationError when `stop` is requested (the tool's process group gets SIGTERM, and
    // SIGKILL after terminationGrace; the call returns once the tool has ended),
    // or VeltraError (domain "POSIX") when it cannot be launched. A non-zero exit is returned.
    // The runner keeps no state, so there is nothing to make or hold: ProcessRunner::run(...).
    static ProcessResult run(const ProcessRequest& request, StopToken stop = {});
    static ProcessResult run(std::string command, std::vector<std::string> arguments,
                             StopToken stop = {});

    // For --verbose: every tool's command line ("$ git push …") and, once it ends, what it
    // printed, handed to `trace` from whichever thread ran it; none to stop. Arguments carry no
    // secrets (they go on standard input or a terminal), and neither input nor environment is
    // traced.
    using Trace = std::function<void(const std::string&)>;
    static void setTrace(Trace trace);

    // Where a bare tool name would be found on a child's PATH; none when it would not.
    static std::optional<std::filesystem::path> findTool(const std::string& name);

    struct Launch {
        std::string executable;
        std::vector<std::string> argv; // including argv[0]
        bool foundOnPath = false;      // a bare name looked up here, not by env
    };
    // Paths starting with "/" or "./" run directly. A bare name found on `searchPath` (the
    // child's PATH; its relative folders from `workingDirectory`, as in the child) runs directly
    // as the file found there; anything else runs as /usr/bin/env <name>, so that a tool that
    // cannot be found fails exactly as env reports it.
    static Launch resolveLaunch(const std::string& command,
                                const std::vector<std::string>& arguments,
                                std::optional<std::string_view> searchPath = std::nullopt,
                                const std::optional<std::filesystem::path>& workingDirectory = {});
    // The child's environment: `parent` with PATH prefixed (by $VELTRA_TOOL_PATH, then the fixed
    // folders), then `overrides` on top.
    static std::map<std::string, std::string>
    childEnvironment(std::map<std::string, std::string> parent,
                     const std::map<std::string, std::string>& overrides);
    static std::map<std::string, std::string> applicationEnvironment();
    static std::optional<std::size_t> effectiveCaptureLimit(std::optional<long long> requested,
                                                            bool streaming);

private:
    static ProcessResult runUntraced(const ProcessRequest& request, StopToken stop);
};

} // namespace veltra
