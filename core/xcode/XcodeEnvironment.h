#pragma once

#include "core/process/ProcessResult.h"
#include "core/process/ProcessRunner.h"

#include <memory>
#include <stop_token>
#include <string>

namespace veltra {

// Where the active developer tools are and what Xcode says about itself.
class XcodeEnvironmentReading {
public:
    virtual ~XcodeEnvironmentReading() = default;
    // `xcode-select -p`, trimmed. Throws when the tool cannot be run or fails.
    virtual std::string developerDirectory(std::stop_token stop) const = 0;
    // `xcodebuild -version`; throws only when it cannot be started.
    virtual ProcessResult xcodeVersion(std::stop_token stop) const = 0;
};

class DefaultXcodeEnvironmentReader : public XcodeEnvironmentReading {
public:
    std::string developerDirectory(std::stop_token stop) const override;
    ProcessResult xcodeVersion(std::stop_token stop) const override;
};

// Checks that a full Xcode, not only the command-line tools, is the active developer directory.
class XcodeEnvironmentValidator {
public:
    std::shared_ptr<const XcodeEnvironmentReading> reader =
        std::make_shared<DefaultXcodeEnvironmentReader>();

    // Returns when Xcode is usable; throws VeltraError 404, 412 or 500 otherwise.
    void validate(std::stop_token stop = {}) const;

    static const std::string instruction;
    static const std::string commandLineToolsMessage;
};

} // namespace veltra
