// The shell completions, loaded in real shells, and the manual pages, read by groff.

#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"

#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

class Completion : public ::testing::Test {
protected:
    Completion() {
        for (const char* name : {"Sample App", "Other"}) {
            EXPECT_EQ(testing::runVeltra({"profile", "create", name, "--bundle-id",
                                          "com.example.app", "--profiles", profiles.string()})
                          .exitCode,
                      0);
        }
    }

    // What `shell -c script` prints, with veltra on its PATH and the test's profile file.
    std::string inShell(const std::string& shell, const std::string& script) const {
        ProcessRequest request;
        request.command = shell;
        request.arguments = {"-c", script};
        request.environment = {
            {"VELTRA_PROFILES", profiles.string()},
            {"HOME", dir.path().string()},
            {"PATH", fs::path(VELTRA_BINARY).parent_path().string() + ":" + std::getenv("PATH")}};
        const auto result = ProcessRunner::run(request);
        EXPECT_EQ(result.exitCode, 0) << result.errorOutput;
        return result.output;
    }

    testing::TempDir dir;
    fs::path profiles = dir / "profiles.json";
};

TEST_F(Completion, BashCompletesCommandsOptionsAndProfileNames) {
    const auto complete = [&](const std::string& words, int current) {
        return inShell("bash", "source <(veltra completion bash); COMP_WORDS=(" + words +
                                   "); COMP_CWORD=" + std::to_string(current) +
                                   "; _veltra; printf '%s\\n' \"${COMPREPLY[@]}\"");
    };
    EXPECT_EQ(complete("veltra rel", 1), "releases\nrelease\n"); // in the help's order
    EXPECT_EQ(complete("veltra sparkle keys g", 3), "generate\n");
    EXPECT_EQ(complete("veltra release --bu", 2), "--build\n");
    // A name with a space stays one word; an option's value is not the profile.
    EXPECT_EQ(complete("veltra release --build 5 Sa", 4), "Sample App\n");
    EXPECT_EQ(complete("veltra doctor ''", 2), "Sample App\nOther\n");
}

TEST_F(Completion, FishCompletesProfileNames) {
    EXPECT_EQ(inShell("fish", "veltra completion fish | source; complete -C 'veltra release Sa'"),
              "Sample App\n");
    EXPECT_EQ(inShell("fish", "veltra completion fish | source; complete -C 'veltra sparkle k'"),
              "keys\n");
}

TEST_F(Completion, ZshCompletesProfileNames) {
    // Through zsh's bash completion layer, as the script sets it up (ksharrays as it calls it).
    EXPECT_EQ(inShell("zsh", "autoload -U +X compinit && compinit -u -d \"$HOME/.zcompdump\"; "
                             "source <(veltra completion zsh); setopt ksharrays; "
                             "COMP_WORDS=(veltra release Sa); COMP_CWORD=2; _veltra_bash; "
                             "print -l \"${COMPREPLY[@]}\""),
              "Sample App\n");
}

// A page for every command, each one groff reads without a warning.
TEST(Manual, APagePerCommandThatGroffReads) {
    testing::TempDir dir;
    const auto written = testing::runVeltra({"manual", (dir / "man").string()});
    ASSERT_EQ(written.exitCode, 0) << written.errorOutput;
    for (const char* page : {"veltra.1", "veltra-release.1", "veltra-sparkle-keys-generate.1",
                             "veltra-profile-delete.1", "veltra-completion.1"}) {
        EXPECT_TRUE(fs::is_regular_file(dir / "man" / page)) << page;
    }
    EXPECT_FALSE(fs::exists(dir / "man" / "veltra-manual.1")) << "the build's own command";
    const auto release = readFile(dir / "man" / "veltra-release.1");
    EXPECT_NE(release.find(".SH SYNOPSIS\n.B veltra release\n[OPTIONS] NAME|ID\n"),
              std::string::npos)
        << release;
    EXPECT_NE(release.find(".B \\-\\-build \\fIBUILD\\fR\n"), std::string::npos);
    for (const auto& entry : fs::directory_iterator(dir / "man")) {
        const auto checked =
            ProcessRunner::run("groff", {"-ww", "-z", "-man", entry.path().string()});
        EXPECT_EQ(checked.exitCode, 0) << entry.path();
        EXPECT_EQ(checked.errorOutput, "") << entry.path();
    }
}

} // namespace
} // namespace veltra
