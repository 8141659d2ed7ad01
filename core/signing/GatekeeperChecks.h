#pragma once

#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// One check a downloaded release must pass, as its tool judged it.
struct GatekeeperVerdict {
    std::string check; // "stapler validate", "spctl (image)", "spctl (app)"
    bool accepted = false;
    std::string detail; // the tool's own reason ("source=Notarized Developer ID", ...)

    // "spctl (image): accepted (Notarized Developer ID)"
    std::string text() const;
    bool operator==(const GatekeeperVerdict&) const = default;
};

// The checks macOS makes of a downloaded, notarized image and the app in it: the stapled
// ticket (stapler validate), and Gatekeeper's assessment of each (spctl). Only where the tools
// exist; a machine without them gets no verdicts.
class GatekeeperChecks {
public:
    static std::vector<GatekeeperVerdict> assess(const std::filesystem::path& image,
                                                 const std::optional<std::filesystem::path>& app,
                                                 StopToken stop);

    // The verdict spctl's output gives: accepted or not, and the "source=" or first line.
    static GatekeeperVerdict spctlVerdict(std::string check, int exitCode, std::string_view output);

    // What a rejection means and what to do, for the doctor and the failure message.
    static std::string explain(const GatekeeperVerdict& verdict);
};

} // namespace veltra
