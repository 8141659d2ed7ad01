#pragma once

#include "XcodeBuildSettings.h"
#include "XcodeProjectInfo.h"
#include "core/process/ProcessRunner.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace veltra {

// Boils xcodebuild's output down to a few progress lines. One per archive run, given its lines
// one at a time.
class MilestoneTracker {
public:
    explicit MilestoneTracker(LogHandler onLog) : onLog_(std::move(onLog)) {}

    void consume(std::string_view line);

    struct Milestone {
        std::string text;
        bool isError = false;
    };
    // What one trimmed line says, if anything.
    static std::optional<Milestone> milestone(std::string_view line);

private:
    LogHandler onLog_;
    std::string last_{};
};

// One item of the app as re-signed: its entitlements as they ship (an object; empty when none).
struct SignedItem {
    std::filesystem::path path{};
    nlohmann::json entitlements = nlohmann::json::object();
    // Development-only keys the item was built with and no longer carries.
    std::vector<std::string> removed{};
};

// Archives the user's project with its scheme's archive configuration, lifts the .app out of the
// archive and re-signs it.
class XcodeArchiver {
public:
    // Reads the Release settings for the Info.plist check that precedes every build.
    std::shared_ptr<const XcodeBuildSettingsReading> settingsReader =
        std::make_shared<XcodeBuildSettingsReader>();

    // Returns the .app in "<temp>/veltra_build_<UUID>/ExportedApp". Throws VeltraError (500 the
    // archive failed, 404 no app in it, the Info.plist check's message, file-system errors) or
    // CancellationError. Signing is by identity alone (the team is the identity's).
    std::filesystem::path archiveAndExport(const XcodeProjectInfo& project,
                                           const std::string& scheme,
                                           const std::optional<std::string>& signingIdentity,
                                           const std::optional<std::string>& marketingVersion,
                                           std::optional<std::int64_t> buildNumber,
                                           const LogHandler& onLog, StopToken stop = {}) const;

    static std::vector<std::string>
    archiveArguments(const XcodeProjectInfo& project, const std::string& scheme,
                     const std::filesystem::path& archivePath,
                     const std::optional<std::string>& marketingVersion,
                     std::optional<std::int64_t> buildNumber);

    // The short text that explains a failed archive, from its full output.
    static std::string failureSummary(std::string_view log);

    // Everything inside `app` that needs its own signature, innermost first, then `app`: nested
    // bundles (apps and login items, extensions, XPC services, frameworks, plug-ins, system
    // extensions) as bundles, then loose Mach-O files and libraries; a bundle's own executable
    // is signed with its bundle.
    static std::vector<std::filesystem::path> signingTargets(const std::filesystem::path& app);

    // Entitlements that a Developer ID release must not carry.
    static const std::vector<std::string>& developmentEntitlements();

    // Signs the targets of `app` inside-out with hardened runtime and a secure timestamp, each
    // with the entitlements it was built with less the development ones, then reads each back.
    // Throws VeltraError naming the item when codesign fails on it, or when what it carries
    // differs from what was asked (naming the keys).
    std::vector<SignedItem> signInsideOut(const std::filesystem::path& app,
                                          const std::string& identity, const LogHandler& onLog,
                                          StopToken stop) const;

    // The entitlements `item`'s signature carries, as codesign prints them (XML; "" for none).
    static std::string readEntitlements(const std::filesystem::path& item, StopToken stop);

    // A Mach-O or universal binary, by its first four bytes.
    static bool isMachO(const std::filesystem::path& file);
};

} // namespace veltra
