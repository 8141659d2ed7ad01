#include "KeychainItems.h"

#include "SecurityCommand.h"
#include "core/process/ProcessRunner.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <openssl/crypto.h>

namespace veltra {
namespace {

// security's exit status for "The specified item could not be found in the keychain."
constexpr int itemNotFound = 44;

std::string said(const ProcessResult& result) {
    return std::string(
        trimWhitespace(result.errorOutput.empty() ? result.output : result.errorOutput));
}

} // namespace

bool KeychainItems::available() {
    return ProcessRunner::findTool("security").has_value();
}

std::optional<std::string> KeychainItems::find(const std::string& service,
                                               const std::string& account, StopToken stop) {
    auto result = ProcessRunner::run(
        ProcessRequest{.command = "security",
                       .arguments = {"find-generic-password", "-s", service, "-a", account, "-w"},
                       .secretOutput = true},
        stop);
    if (result.exitCode == itemNotFound) {
        return std::nullopt;
    }
    if (result.exitCode != 0) {
        OPENSSL_cleanse(result.output.data(), result.output.size());
        throw VeltraError("Veltra.Keychain", result.exitCode,
                          "Could not read the keychain item for " + account + " (" + service +
                              "): " + said(result));
    }
    auto secret = std::move(result.output);
    while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) {
        secret.pop_back();
    }
    return secret;
}

void KeychainItems::add(const std::string& service, const std::string& account,
                        const std::string& label, const std::string& comment,
                        const std::string& secret, StopToken stop) {
    // Checked first: security's own refusal reads the same for a locked keychain on some systems.
    if (find(service, account, stop)) {
        throw VeltraError("Veltra.Keychain", itemExists,
                          "The keychain already holds an item for " + account + " (" + service +
                              "); it is never replaced.");
    }
    const auto result = runSecurityCommand({"add-generic-password", "-s", service, "-a", account,
                                            "-l", label, "-j", comment, "-w", secret},
                                           stop);
    if (result.exitCode != 0) {
        throw VeltraError("Veltra.Keychain", result.exitCode,
                          "Could not add the keychain item for " + account + " (" + service +
                              "): " + said(result));
    }
}

} // namespace veltra
