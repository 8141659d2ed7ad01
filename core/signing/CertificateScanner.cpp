#include "CertificateScanner.h"

#include "SecurityCommand.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>

namespace veltra {

namespace {

bool isHex(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// Ten upper-case letters or digits between parentheses at `open`.
std::optional<std::string> teamAt(std::string_view name, std::size_t open) {
    if (open + 11 >= name.size() || name[open] != '(' || name[open + 11] != ')') {
        return std::nullopt;
    }
    const auto team = name.substr(open + 1, 10);
    if (!std::all_of(team.begin(), team.end(),
                     [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); })) {
        return std::nullopt;
    }
    return std::string(team);
}

} // namespace

SigningCertificate SigningCertificate::classify(std::string hash, std::string name) {
    SigningCertificate certificate;
    certificate.hash = std::move(hash);
    certificate.name = std::move(name);
    const std::string_view text = certificate.name;
    const auto lower = asciiLowercase(text);
    certificate.isDeveloperID = text.find("Developer ID Application") != std::string_view::npos;
    certificate.isDevelopment = text.find("Apple Development") != std::string_view::npos ||
                                text.find("Mac Developer") != std::string_view::npos;
    certificate.isAdHoc = text == "-" || lower.find("ad-hoc") != std::string::npos;

    // "<kind>: <account> (<TEAM>)": the account runs from a colon to the next "(", which must
    // open a team ID; otherwise a later colon is tried.
    for (auto colon = text.find(':'); colon != std::string_view::npos;
         colon = text.find(':', colon + 1)) {
        const auto open = text.find('(', colon + 1);
        if (open == std::string_view::npos || open == colon + 1) {
            continue;
        }
        if (auto team = teamAt(text, open)) {
            certificate.teamID = std::move(team);
            certificate.accountName =
                std::string(trimWhitespace(text.substr(colon + 1, open - colon - 1)));
            return certificate;
        }
    }
    for (auto open = text.find('('); open != std::string_view::npos;
         open = text.find('(', open + 1)) {
        if (auto team = teamAt(text, open)) {
            certificate.teamID = std::move(team);
            break;
        }
    }
    return certificate;
}

std::vector<SigningCertificate> CertificateScanner::parseIdentities(std::string_view output) {
    std::vector<SigningCertificate> found;
    std::size_t index = 0;
    while (index + 40 < output.size()) {
        // A run of exactly 40 hex digits, blanks, then a quoted name; the leftmost such match,
        // as a regular-expression search would find it.
        std::size_t digits = 0;
        while (digits < 40 && isHex(output[index + digits])) {
            ++digits;
        }
        if (digits < 40) {
            index += digits + 1;
            continue;
        }
        auto cursor = index + 40;
        const auto blanks = cursor;
        while (cursor < output.size() && isSpace(output[cursor])) {
            ++cursor;
        }
        if (cursor == blanks || cursor >= output.size() || output[cursor] != '"') {
            ++index;
            continue;
        }
        const auto close = output.find('"', cursor + 1);
        if (close == std::string_view::npos || close == cursor + 1) {
            ++index;
            continue;
        }
        found.push_back(SigningCertificate::classify(
            std::string(output.substr(index, 40)),
            std::string(output.substr(cursor + 1, close - cursor - 1))));
        index = close + 1;
    }
    return found;
}

CertificateScanner::Identities CertificateScanner::scanIdentities(StopToken stop) const {
    const auto result =
        ProcessRunner::run("security", {"find-identity", "-v", "-p", "codesigning"}, stop);
    if (result.exitCode != 0) {
        const std::string said(
            trimWhitespace(result.errorOutput.empty() ? result.output : result.errorOutput));
        return std::unexpected(VeltraError(
            "Veltra.Signing", identitiesUnreadable,
            "Could not list the code-signing identities (security find-identity exited with " +
                std::to_string(result.exitCode) + (said.empty() ? ")" : "): " + said)));
    }
    return parseIdentities(result.output);
}

std::optional<CertificateScanner::DetectedTeamInfo>
CertificateScanner::bestTeam(const std::vector<SigningCertificate>& all) {
    for (const auto* certificate : byPreference(all)) {
        if (certificate->teamID) {
            return DetectedTeamInfo{*certificate->teamID, certificate->accountName,
                                    certificate->isDeveloperID   ? "Developer ID"
                                    : certificate->isDevelopment ? "Apple Development"
                                                                 : "Signing Identity"};
        }
    }
    return std::nullopt;
}

std::vector<const SigningCertificate*>
CertificateScanner::byPreference(const std::vector<SigningCertificate>& all) {
    std::vector<const SigningCertificate*> ordered;
    ordered.reserve(all.size());
    for (const auto& certificate : all) {
        ordered.push_back(&certificate);
    }
    const auto rank = [](const SigningCertificate* certificate) {
        return certificate->isDeveloperID ? 0 : certificate->isDevelopment ? 1 : 2;
    };
    std::stable_sort(ordered.begin(), ordered.end(),
                     [&](const auto* a, const auto* b) { return rank(a) < rank(b); });
    return ordered;
}

const SigningCertificate*
CertificateScanner::preferredIdentity(const std::vector<SigningCertificate>& all) {
    const auto ordered = byPreference(all);
    return !ordered.empty() && (ordered.front()->isDeveloperID || ordered.front()->isDevelopment)
               ? ordered.front()
               : nullptr;
}

std::optional<CertificateScanner::DetectedTeamInfo>
CertificateScanner::detectBestTeamInfo(StopToken stop) const {
    const auto all = scanIdentities(stop);
    if (!all) {
        throw all.error();
    }
    return bestTeam(*all);
}

ProcessResult CertificateScanner::importP12(const std::filesystem::path& file,
                                            const std::string& password, StopToken stop) const {
    return runSecurityCommand({"import", file.string(), "-P", password, "-T", "/usr/bin/codesign"},
                              stop);
}

void CertificateScanner::openXcodeSettings() {
#ifdef __APPLE__
    // Each fallback covers another Xcode release's menu wording; failures are not the user's
    // problem, the window simply does not come forward.
    static constexpr const char* script = R"(tell application "System Events"
    tell process "Xcode"
        set frontmost to true
        try
            click menu item "Settings…" of menu "Xcode" of menu bar 1
        on error
            try
                click menu item "Preferences…" of menu "Xcode" of menu bar 1
            on error
                keystroke "," using command down
            end try
        end try
    end tell
end tell)";
    try {
        ProcessRunner::run("open", {"-b", "com.apple.dt.Xcode"});
        ProcessRunner::run("osascript", {"-e", script});
    } catch (const std::exception&) {
    }
#endif
}

} // namespace veltra
