#include "XcodeEnvironment.h"

#include "XcodeToolsVerdict.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

namespace veltra {

const std::string XcodeEnvironmentValidator::instruction =
    "Run this command in Terminal to point to Xcode:\nsudo xcode-select -s "
    "/Applications/Xcode.app/Contents/Developer\n(or select Xcode in Xcode ➔ Settings ➔ "
    "Locations ➔ Command Line Tools).";

const std::string XcodeEnvironmentValidator::commandLineToolsMessage =
    "Xcode is not selected as the active developer directory.\n\n" + instruction;

std::string DefaultXcodeEnvironmentReader::developerDirectory(StopToken stop) const {
    const auto result = ProcessRunner::run("xcode-select", {"-p"}, stop);
    if (result.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::notFound,
                          std::string(trimWhitespace(result.errorOutput)));
    }
    return std::string(trimWhitespace(result.output));
}

ProcessResult DefaultXcodeEnvironmentReader::xcodeVersion(StopToken stop) const {
    return ProcessRunner::run("xcodebuild", {"-version"}, stop);
}

void XcodeEnvironmentValidator::validate(StopToken stop) const {
    std::string directory;
    try {
        directory = reader->developerDirectory(stop);
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception&) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "Xcode Command Line Tools are missing. Run 'xcode-select --install' in "
                          "Terminal or install Xcode.");
    }
    using Kind = XcodeToolsVerdict::Kind;
    if (XcodeToolsVerdict::judge(directory).kind == Kind::commandLineToolsOnly) {
        throw VeltraError("Veltra", errorCode::wrongTools, commandLineToolsMessage);
    }
    ProcessResult version;
    try {
        version = reader->xcodeVersion(stop);
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        version.exitCode = -1;
        version.errorOutput = error.what();
    }
    const auto verdict = XcodeToolsVerdict::judge(directory, &version);
    if (verdict.kind == Kind::commandLineToolsOnly) {
        throw VeltraError("Veltra", errorCode::wrongTools, commandLineToolsMessage);
    }
    if (verdict.kind == Kind::xcodebuildFails) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Xcode configuration issue: " +
                              (verdict.said.empty()
                                   ? std::string("xcodebuild could not be executed.")
                                   : verdict.said) +
                              "\n\n" + instruction);
    }
}

} // namespace veltra
