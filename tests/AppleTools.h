#pragma once

#include "TestSupport.h"
#include "core/xcode/XcodeProjectInfo.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace veltra::testing {

// Puts the Apple tool stand-ins first on PATH and records their runs in a log of the test's
// own. fake() steers a stand-in for one test.
class AppleToolsTest : public ::testing::Test {
protected:
    AppleToolsTest()
        : path_("PATH", std::string(VELTRA_TOOLS_DIR) + ":" +
                            (std::getenv("PATH") != nullptr ? std::getenv("PATH") : "")),
          toolPath_("VELTRA_TOOL_PATH", VELTRA_TOOLS_DIR),
          log_("VELTRA_TOOL_LOG", (dir / "tools.log").string()) {}

    ~AppleToolsTest() override {
        // Newest first, so that a variable steered twice gets its first value back.
        while (!steering_.empty()) {
            steering_.pop_back();
        }
    }

    void fake(const char* name, const std::string& value) {
        steering_.push_back(std::make_unique<ScopedEnvironment>(name, value));
    }

    // Each run of `tool` as its argument list, in order.
    std::vector<std::vector<std::string>> runsOf(const std::string& tool) const {
        static const std::vector<std::string> tools{
            "xcodebuild",  "xcode-select", "xcrun", "codesign", "security", "lipo",
            "sign_update", "hdiutil",      "sips",  "gh",       "spctl"};
        std::vector<std::vector<std::string>> runs;
        std::ifstream in(dir / "tools.log");
        std::string line;
        bool current = false;
        while (std::getline(in, line)) {
            if (std::find(tools.begin(), tools.end(), line) != tools.end()) {
                current = line == tool;
                if (current) {
                    runs.emplace_back();
                }
            } else if (current) {
                runs.back().push_back(line);
            }
        }
        return runs;
    }

    // The commands `tool -i` read from standard input, in order, as argument lists.
    std::vector<std::vector<std::string>> interactiveRunsOf(const std::string& tool) const {
        std::vector<std::vector<std::string>> runs;
        std::ifstream in(dir / "tools.log.stdin");
        for (std::string line; std::getline(in, line);) {
            if (line == tool) {
                runs.emplace_back();
            } else if (!runs.empty()) {
                runs.back().push_back(line);
            }
        }
        return runs;
    }

    // An empty Acme.xcodeproj in the test's folder: the stand-ins only need its path.
    XcodeProjectInfo scratchProject() {
        std::filesystem::create_directories(dir / "Acme.xcodeproj");
        XcodeProjectInfo info;
        info.projectPath = dir / "Acme.xcodeproj";
        info.name = "Acme";
        return info;
    }

    TempDir dir;

private:
    ScopedEnvironment path_;
    ScopedEnvironment toolPath_;
    ScopedEnvironment log_;
    std::vector<std::unique_ptr<ScopedEnvironment>> steering_;
};

} // namespace veltra::testing
