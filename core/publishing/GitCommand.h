#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// git in the website repository: never waiting for a credential prompt, with a time limit.
class GitCommand {
public:
    static constexpr double defaultTimeout = 300;

    static ProcessResult run(const std::filesystem::path& repository,
                             std::vector<std::string> arguments, StopToken stop = {},
                             std::optional<double> timeout = defaultTimeout,
                             std::function<void(std::string_view)> onLine = {});

    // A failed git command as an error: code = git's exit status, message = base + ": " + its
    // output, with the way out when the output shows a credentials problem.
    static VeltraError failure(const std::string& base, const ProcessResult& result);
    static bool isCredentialsProblem(std::string_view output);

    // Arguments that go before a commit's own when the repository has no author identity
    // (a fresh machine): git would refuse the commit otherwise. Empty when one is set.
    static std::vector<std::string> identityFallback(const std::filesystem::path& repository,
                                                     StopToken stop = {});
};

} // namespace veltra
