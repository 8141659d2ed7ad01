#include "XcodeToolsVerdict.h"

#include "core/support/Text.h"

namespace veltra {

XcodeToolsVerdict XcodeToolsVerdict::judge(std::string_view developerDirectory,
                                           const ProcessResult* version) {
    if (developerDirectory.find("CommandLineTools") != std::string_view::npos) {
        return {Kind::commandLineToolsOnly, {}};
    }
    if (version == nullptr) {
        return {};
    }
    // xcodebuild of the command-line tools says "requires Xcode" and names its folder.
    const auto output = combinedOutput(*version);
    if (output.find("requires Xcode") != std::string::npos ||
        output.find("CommandLineTools") != std::string::npos) {
        return {Kind::commandLineToolsOnly, {}};
    }
    if (version->exitCode != 0) {
        return {Kind::xcodebuildFails, std::string(trimWhitespace(output))};
    }
    return {};
}

} // namespace veltra
