#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Drafts Markdown release notes from the subjects of the last ten commits of the app's source
// repository: conventional-commit prefixes become labels, housekeeping commits are left out.
class ReleaseNotesGenerator {
public:
    // Never fails: a history that cannot be read (no repository, no commits yet) gives the
    // general-improvements bullet, with an "Info: " line saying why.
    std::string generate(const std::filesystem::path& repository,
                         const std::optional<std::string>& path, const std::string& heading,
                         const LogHandler& log = {}, StopToken stop = {}) const;

    // The notes for these commit subjects (newest first) and how many bullets they list.
    struct Notes {
        std::string markdown;
        int bullets = 0;
    };
    static Notes compose(std::string_view subjects, const std::string& heading);
    // One subject as a bullet, or nothing for a housekeeping commit or an empty line.
    static std::optional<std::string> bullet(std::string_view subject);
};

} // namespace veltra
