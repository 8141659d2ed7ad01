#pragma once

#include "core/process/ProcessResult.h"

#include <string>
#include <string_view>

namespace veltra {

// Whether the selected developer tools can archive, judged from what `xcode-select -p` and
// `xcodebuild -version` answered. The release's check and the doctor both ask this.
struct XcodeToolsVerdict {
    enum class Kind {
        fullXcode,
        commandLineToolsOnly, // archiving needs the full Xcode
        xcodebuildFails,      // `said` has the tool's first words
    };
    Kind kind = Kind::fullXcode;
    std::string said;

    // Without `version`, from the folder alone: callers ask first, so that xcodebuild never
    // runs from the command-line tools.
    static XcodeToolsVerdict judge(std::string_view developerDirectory,
                                   const ProcessResult* version = nullptr);
};

} // namespace veltra
