// What veltra shows on a terminal: a real pseudo-terminal of a given size, read as the user's
// terminal would get it.

#include "TestSupport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#if defined(__APPLE__)
#include <util.h>
#else
#include <pty.h>
#endif

#include <gtest/gtest.h>

extern char** environ;

namespace veltra {
namespace {

struct TerminalRun {
    int exitCode = -1;
    std::string output; // everything written to the terminal, escapes included
    // Where the output stood when the window was resized.
    std::size_t resizedAt = 0;
};

// Runs veltra on a pseudo-terminal of `columns` x `rows` as its standard output and error.
// `answer` is typed once the output shows `prompt`; the window becomes `resize` columns wide
// once the output shows `resizeAt`.
TerminalRun runOnTerminal(const std::vector<std::string>& arguments, int columns, int rows,
                          const std::map<std::string, std::string>& environment = {},
                          std::string prompt = {}, const std::string& answer = {},
                          std::string resizeAt = {}, int resize = 0) {
    // Everything the child needs is made before fork: after it, only exec.
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable(*entry);
        if (!environment.contains(variable.substr(0, variable.find('=')))) {
            variables.push_back(variable);
        }
    }
    for (const auto& [name, value] : environment) {
        variables.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> words{VELTRA_BINARY};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    winsize size{};
    size.ws_col = static_cast<unsigned short>(columns);
    size.ws_row = static_cast<unsigned short>(rows);
    int master = -1;
    const pid_t child = ::forkpty(&master, nullptr, nullptr, &size);
    if (child == 0) {
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    TerminalRun run;
    if (child < 0) {
        ADD_FAILURE() << "forkpty: " << std::strerror(errno);
        return run;
    }
    // A generous ceiling for a slow machine; the run ends long before.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    char buffer[4096];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd polled{master, POLLIN, 0};
        if (::poll(&polled, 1, 100) <= 0) {
            continue;
        }
        const auto count = ::read(master, buffer, sizeof buffer);
        if (count > 0) {
            run.output.append(buffer, static_cast<std::size_t>(count));
            if (!prompt.empty() && run.output.find(prompt) != std::string::npos) {
                const auto typed = answer + "\n";
                EXPECT_EQ(::write(master, typed.data(), typed.size()),
                          static_cast<ssize_t>(typed.size()));
                prompt.clear();
            }
            if (!resizeAt.empty() && run.output.find(resizeAt) != std::string::npos) {
                // As a terminal window does: the kernel tells the foreground processes.
                winsize wider{};
                wider.ws_col = static_cast<unsigned short>(resize);
                wider.ws_row = static_cast<unsigned short>(rows);
                EXPECT_EQ(::ioctl(master, TIOCSWINSZ, &wider), 0);
                run.resizedAt = run.output.size();
                resizeAt.clear();
            }
        } else if (count == 0 || errno != EINTR) {
            break; // EIO once the child and its children have closed the terminal
        }
    }
    ::close(master);
    int status = 0;
    if (::waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        run.exitCode = WEXITSTATUS(status);
    }
    return run;
}

// The text without colour escapes.
std::string withoutColour(const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\x1b' && at + 1 < text.size() && text[at + 1] == '[') {
            const auto end = text.find_first_of("mHJ", at);
            if (end != std::string::npos && text[end] == 'm') {
                at = end;
                continue;
            }
        }
        plain += text[at];
    }
    return plain;
}

// Terminal cells a line takes: every UTF-8 character used here is one cell wide.
int cells(const std::string& line) {
    return static_cast<int>(std::count_if(line.begin(), line.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80 && c != '\r';
    }));
}

TEST(TerminalOutput, ErrorsAreRedUnlessColourIsOff) {
    testing::TempDir dir;
    const std::map<std::string, std::string> profiles{
        {"VELTRA_PROFILES", (dir / "profiles.json").string()}, {"TERM", "xterm"}};
    const auto coloured = runOnTerminal({"release", "Nope"}, 80, 24, profiles);
    EXPECT_EQ(coloured.exitCode, 1);
    EXPECT_NE(coloured.output.find("\x1b[31mError: No profile named 'Nope'."), std::string::npos)
        << coloured.output;

    auto noColour = profiles;
    noColour["NO_COLOR"] = "1";
    for (const auto& [arguments, environment] :
         {std::pair{std::vector<std::string>{"release", "Nope"}, noColour},
          std::pair{std::vector<std::string>{"release", "Nope", "--no-color"}, profiles}}) {
        const auto plain = runOnTerminal(arguments, 80, 24, environment);
        EXPECT_EQ(plain.exitCode, 1);
        EXPECT_EQ(plain.output.find('\x1b'), std::string::npos) << plain.output;
        EXPECT_NE(plain.output.find("Error: No profile named 'Nope'."), std::string::npos);
    }
}

// The live table of a whole release fits each width, never wrapping a row; a window narrower
// than the table gets plain lines.
TEST(TerminalOutput, TheLiveTableFitsTheWindow) {
    const std::map<std::string, std::string> environment{
        {"TERM", "xterm"}, {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}};
    for (const int columns : {40, 60, 110}) {
        SCOPED_TRACE(columns);
        const auto run = runOnTerminal({"demo"}, columns, 30, environment);
        ASSERT_EQ(run.exitCode, 0) << run.output;
        // Each frame starts at the top of a cleared screen.
        std::vector<std::string> frames;
        for (auto at = run.output.find("\x1b[H\x1b[J"); at != std::string::npos;) {
            const auto next = run.output.find("\x1b[H\x1b[J", at + 1);
            frames.push_back(run.output.substr(at + 6, next == std::string::npos ? std::string::npos
                                                                                 : next - at - 6));
            at = next;
        }
        ASSERT_GT(frames.size(), 5u);
        // The last frame is followed by the command's closing lines; the table rows are its
        // first lines.
        for (const auto& frame : frames) {
            std::size_t begin = 0;
            for (int row = 0; row < 10 && begin < frame.size(); ++row) {
                const auto end = frame.find('\n', begin);
                const auto line = withoutColour(frame.substr(begin, end - begin));
                EXPECT_LT(cells(line), columns) << line;
                begin = end == std::string::npos ? frame.size() : end + 1;
            }
        }
        const auto& last = frames.back();
        EXPECT_NE(last.find("\x1b[32m\xE2\x9C\x93\x1b[0m"), std::string::npos)
            << "a finished step's tick is green";
        EXPECT_EQ(last.find("STATUS") != std::string::npos, columns >= 60);
        if (columns >= 60) {
            // A running step shows its time from the start.
            EXPECT_NE(run.output.find("Running    "), std::string::npos);
        }
    }
    const auto narrow = runOnTerminal({"demo"}, 30, 30, environment);
    EXPECT_EQ(narrow.exitCode, 0);
    EXPECT_EQ(narrow.output.find("\x1b[H\x1b[J"), std::string::npos);
    EXPECT_NE(narrow.output.find("\x1b[32m\xE2\x9C\x93 Sync Version"), std::string::npos);
}

// A long step's time ticks while it runs, and a resized window gets frames of its new width.
TEST(TerminalOutput, TheTableTicksAndFollowsTheWindowsWidth) {
    const std::map<std::string, std::string> environment{
        {"TERM", "xterm"},
        {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")},
        // Each line of the archive's output a while apart: the archive takes seconds.
        {"VELTRA_FAKE_ARCHIVE_DELAY", "0.4"}};
    const auto run = runOnTerminal({"demo"}, 60, 30, environment, {}, {}, "Compiling Release", 100);
    ASSERT_EQ(run.exitCode, 0) << run.output;
    ASSERT_GT(run.resizedAt, 0u);
    // The running archive's row showed its time going up: a second and more.
    const auto plain = withoutColour(run.output);
    EXPECT_NE(plain.find("Running    "), std::string::npos);
    // (The terminal ends its lines with \r\n.)
    EXPECT_TRUE(plain.find(" 1s\r\n") != std::string::npos ||
                plain.find(" 2s\r\n") != std::string::npos)
        << "no tick";
    // The table's rows in frames after the resize are wider than the old window could hold.
    std::size_t widest = 0;
    const auto later = withoutColour(run.output.substr(run.resizedAt));
    for (auto frame = later.find("\x1b[H\x1b[J"); frame != std::string::npos;
         frame = later.find("\x1b[H\x1b[J", frame + 1)) {
        auto begin = frame + 6;
        for (int row = 0; row < 10 && begin < later.size(); ++row) {
            const auto end = std::min(later.find('\n', begin), later.size());
            widest =
                std::max(widest, static_cast<std::size_t>(cells(later.substr(begin, end - begin))));
            begin = end + 1;
        }
    }
    EXPECT_GT(widest, 60u);
    EXPECT_LT(widest, 100u);
}

// Deleting a profile drops its release history: a person at a terminal is asked first.
TEST(TerminalOutput, DeletingAProfileAsksOnATerminal) {
    testing::TempDir dir;
    const std::map<std::string, std::string> environment{
        {"VELTRA_PROFILES", (dir / "profiles.json").string()}, {"TERM", "xterm"}};
    ASSERT_EQ(runOnTerminal({"profile", "create", "Acme", "--bundle-id", "com.example.acme"}, 80,
                            24, environment)
                  .exitCode,
              0);
    const auto kept =
        runOnTerminal({"profile", "delete", "Acme"}, 80, 24, environment, "[y/N] ", "n");
    EXPECT_EQ(kept.exitCode, 1);
    EXPECT_NE(kept.output.find("Delete profile Acme and the 0 releases it records? This cannot be "
                               "undone. [y/N] "),
              std::string::npos)
        << kept.output;
    EXPECT_NE(kept.output.find("Kept profile Acme."), std::string::npos);
    const auto deleted =
        runOnTerminal({"profile", "delete", "Acme"}, 80, 24, environment, "[y/N] ", "y");
    EXPECT_EQ(deleted.exitCode, 0);
    EXPECT_NE(deleted.output.find("Deleted profile Acme"), std::string::npos) << deleted.output;
}

} // namespace
} // namespace veltra
