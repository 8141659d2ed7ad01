#pragma once

#include "core/process/ProcessResult.h"
#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// A code-signing identity from the user's keychains.
struct SigningCertificate {
    std::string hash{};
    std::string name{};
    bool isDeveloperID = false;
    bool isDevelopment = false;
    bool isAdHoc = false;
    std::optional<std::string> teamID{};
    std::optional<std::string> accountName{};

    // The flags, team and account that the name carries.
    static SigningCertificate classify(std::string hash, std::string name);
};

class CertificateScanner {
public:
    struct DetectedTeamInfo {
        std::string teamID{};
        std::optional<std::string> accountName{};
        // "Developer ID", "Apple Development" or "Signing Identity".
        std::string source{};
    };

    // The error code when the keychains cannot be listed.
    static constexpr int identitiesUnreadable = 1;

    // Valid code-signing identities in the tool's order; empty when there are none. When the
    // tool fails, its words as an error (identitiesUnreadable), so "none" is never said for a
    // tool that could not look.
    using Identities = std::expected<std::vector<SigningCertificate>, VeltraError>;
    Identities scanIdentities(StopToken stop = {}) const;
    // Throws the scan's error.
    std::optional<DetectedTeamInfo> detectBestTeamInfo(StopToken stop = {}) const;
    // The tool's answer, for the caller to judge (a wrong password is a non-zero exit).
    ProcessResult importP12(const std::filesystem::path& file, const std::string& password,
                            StopToken stop = {}) const;
    // Brings Xcode's settings window forward so the user can manage accounts; macOS only.
    static void openXcodeSettings();

    // The identities listed in `security find-identity` output.
    static std::vector<SigningCertificate> parseIdentities(std::string_view output);
    // The identities Veltra would sign with, in order: Developer ID (users can open a notarized
    // app only with one), then Apple Development, then the rest; the keychain's order within each.
    static std::vector<const SigningCertificate*>
    byPreference(const std::vector<SigningCertificate>& all);
    // The identity a release signs with when the profile names none: the first Developer ID,
    // else the first Apple Development one; nothing otherwise.
    static const SigningCertificate* preferredIdentity(const std::vector<SigningCertificate>& all);
    // The team of the first identity in preference order that names one.
    static std::optional<DetectedTeamInfo> bestTeam(const std::vector<SigningCertificate>& all);
};

} // namespace veltra
