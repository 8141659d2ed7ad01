#include "CIKeychain.h"

#include "SecurityCommand.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <openssl/rand.h>

#include <fmt/format.h>

namespace veltra {
namespace {

std::string randomPassword() {
    std::array<std::uint8_t, 24> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not make a password for the keychain.");
    }
    std::string text;
    for (const auto byte : bytes) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

// A failed step with security's own words (never its arguments, which hold passwords).
VeltraError failure(const std::string& what, const ProcessResult& result) {
    const std::string said(trimWhitespace(combinedOutput(result)));
    return VeltraError("Veltra", result.exitCode, what + (said.empty() ? "." : ": " + said));
}

} // namespace

std::vector<std::string> CIKeychain::parseSearchList(std::string_view output) {
    std::vector<std::string> list;
    forEachTrimmedLine(output, [&list](std::string_view line) {
        if (line.size() >= 2 && line.front() == '"' && line.back() == '"') {
            line = line.substr(1, line.size() - 2);
        }
        if (!line.empty()) {
            list.emplace_back(line);
        }
    });
    return list;
}

std::vector<SigningCertificate> CIKeychain::setup(const std::filesystem::path& p12,
                                                  const std::string& password,
                                                  const std::string& name, StopToken stop) const {
    const auto security = [&](std::vector<std::string> arguments) {
        return ProcessRunner::run("security", std::move(arguments), stop);
    };
    // Commands that carry a password read it from standard input, never from argv.
    const auto securityWithSecret = [&](const std::vector<std::string>& arguments) {
        return runSecurityCommand(arguments, stop);
    };
    const auto keychainPassword = randomPassword();
    if (const auto made = securityWithSecret({"create-keychain", "-p", keychainPassword, name});
        made.exitCode != 0) {
        throw failure("Could not create keychain " + name, made);
    }
    try {
        // Locks again after six hours: longer than any job.
        if (const auto set = security({"set-keychain-settings", "-lut", "21600", name});
            set.exitCode != 0) {
            throw failure("Could not set keychain " + name + "'s lock timeout", set);
        }
        if (const auto unlocked =
                securityWithSecret({"unlock-keychain", "-p", keychainPassword, name});
            unlocked.exitCode != 0) {
            throw failure("Could not unlock keychain " + name, unlocked);
        }
        if (const auto imported = securityWithSecret({"import", p12.string(), "-k", name, "-P",
                                                      password, "-T", "/usr/bin/codesign", "-T",
                                                      "/usr/bin/security", "-f", "pkcs12"});
            imported.exitCode != 0) {
            throw failure("Could not import " + p12.filename().string(), imported);
        }
        if (const auto allowed = securityWithSecret({"set-key-partition-list", "-S",
                                                     "apple-tool:,apple:,codesign:", "-s", "-k",
                                                     keychainPassword, name});
            allowed.exitCode != 0) {
            throw failure("Could not let codesign use the imported key", allowed);
        }
        const auto listed = security({"list-keychains", "-d", "user"});
        if (listed.exitCode != 0) {
            throw failure("Could not read the keychain search list", listed);
        }
        std::vector<std::string> list{"list-keychains", "-d", "user", "-s", name};
        for (auto& keychain : parseSearchList(listed.output)) {
            if (keychain != name && !keychain.ends_with("/" + name)) {
                list.push_back(std::move(keychain));
            }
        }
        if (const auto searched = security(list); searched.exitCode != 0) {
            throw failure("Could not add keychain " + name + " to the search list", searched);
        }
        const auto found = security({"find-identity", "-v", "-p", "codesigning", name});
        return CertificateScanner::parseIdentities(found.output);
    } catch (...) {
        // A half-made keychain must not stay in the way of the next attempt.
        try {
            teardown(name);
        } catch (const std::exception&) {
        }
        throw;
    }
}

void CIKeychain::teardown(const std::string& name, StopToken stop) const {
    const auto deleted = ProcessRunner::run("security", {"delete-keychain", name}, stop);
    if (deleted.exitCode != 0) {
        throw failure("Could not delete keychain " + name, deleted);
    }
}

} // namespace veltra
