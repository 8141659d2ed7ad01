#pragma once

#include "core/process/ProcessResult.h"
#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <memory>
#include <string>

namespace veltra {

// Where the active developer tools are and what Xcode says about itself.
class XcodeEnvironmentReading {
public:
    virtual ~XcodeEnvironmentReading() = default;
    // `xcode-select -p`, trimmed. Throws when the tool cannot be run or fails.
    virtual std::string developerDirectory(StopToken stop) const = 0;
    // `xcodebuild -version`; throws only when it cannot be started.
    virtual ProcessResult xcodeVersion(StopToken stop) const = 0;
};

class DefaultXcodeEnvironmentReader : public XcodeEnvironmentReading {
public:
    std::string developerDirectory(StopToken stop) const override;
    ProcessResult xcodeVersion(StopToken stop) const override;
};

// Checks that a full Xcode, not only the command-line tools, is the active developer directory.
class XcodeEnvironmentValidator {
public:
    std::shared_ptr<const XcodeEnvironmentReading> reader =
        std::make_shared<DefaultXcodeEnvironmentReader>();

    // Returns when Xcode is usable; throws VeltraError 404, 412 or 500 otherwise.
    void validate(StopToken stop = {}) const;

    static const std::string instruction;
    static const std::string commandLineToolsMessage;
};

} // namespace veltra
