#include "GatekeeperChecks.h"

#include "core/process/ProcessRunner.h"
#include "core/support/Text.h"

namespace veltra {

std::string GatekeeperVerdict::text() const {
    return check + ": " + (accepted ? "accepted" : "rejected") +
           (detail.empty() ? "" : " (" + detail + ")");
}

GatekeeperVerdict GatekeeperChecks::spctlVerdict(std::string check, int exitCode,
                                                 std::string_view output) {
    GatekeeperVerdict verdict{std::move(check), exitCode == 0, {}};
    std::string first;
    forEachTrimmedLine(output, [&](std::string_view line) {
        if (line.starts_with("source=")) {
            verdict.detail = std::string(line.substr(7));
        } else if (first.empty() && !line.empty()) {
            first = std::string(line);
        }
    });
    // spctl says "accepted" or "rejected" after the path; anything else is a failure to judge.
    if (verdict.accepted && !contains(output, ": accepted")) {
        verdict.accepted = false;
    }
    if (verdict.detail.empty() && !verdict.accepted) {
        verdict.detail = first;
    }
    return verdict;
}

std::vector<GatekeeperVerdict>
GatekeeperChecks::assess(const std::filesystem::path& image,
                         const std::optional<std::filesystem::path>& app, StopToken stop) {
    std::vector<GatekeeperVerdict> verdicts;
    if (ProcessRunner::findTool("xcrun")) {
        const auto validated =
            ProcessRunner::run("xcrun", {"stapler", "validate", image.string()}, stop);
        GatekeeperVerdict verdict{"stapler validate", validated.exitCode == 0, {}};
        if (!verdict.accepted) {
            forEachTrimmedLine(combinedOutput(validated), [&](std::string_view line) {
                if (verdict.detail.empty() && !line.empty() && !line.starts_with("Processing:")) {
                    verdict.detail = std::string(line);
                }
            });
        }
        verdicts.push_back(std::move(verdict));
    }
    if (!ProcessRunner::findTool("spctl")) {
        return verdicts;
    }
    // spctl judges an image as a document to open, by its own signature.
    const auto opened = ProcessRunner::run(
        "spctl",
        {"-a", "-t", "open", "--context", "context:primary-signature", "-v", image.string()}, stop);
    verdicts.push_back(spctlVerdict("spctl (image)", opened.exitCode, combinedOutput(opened)));
    if (app) {
        const auto executed =
            ProcessRunner::run("spctl", {"-a", "-t", "exec", "-vv", app->string()}, stop);
        verdicts.push_back(
            spctlVerdict("spctl (app)", executed.exitCode, combinedOutput(executed)));
    }
    return verdicts;
}

std::string GatekeeperChecks::explain(const GatekeeperVerdict& verdict) {
    if (verdict.accepted) {
        return verdict.text();
    }
    if (verdict.check == "stapler validate") {
        return verdict.text() +
               ": the image has no valid notarization ticket stapled, so a Mac that is offline "
               "when it opens the download cannot confirm it. Notarize and staple it again.";
    }
    if (contains(verdict.detail, "Unnotarized")) {
        return verdict.text() +
               ": Apple has not notarized it; Gatekeeper will refuse to open it. Turn on "
               "notarization for this profile and release again.";
    }
    if (contains(verdict.detail, "no usable signature")) {
        return verdict.text() +
               ": it is not signed with a Developer ID; Gatekeeper will refuse to open it. Sign "
               "with a Developer ID Application identity.";
    }
    return verdict.text() + ": Gatekeeper would refuse to open the download.";
}

} // namespace veltra
