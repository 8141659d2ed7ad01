#pragma once

#include "CertificateScanner.h"
#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// A keychain of a CI runner's own for one job: made with a random password, unlocked, holding
// the imported identity with the key partition list codesign needs (without it, signing fails
// with errSecInternalComponent on a runner), and first in the user's search list.
class CIKeychain {
public:
    static constexpr std::string_view defaultName = "veltra-ci.keychain-db";

    // The identities the new keychain offers for code signing. Throws VeltraError ("Veltra",
    // security's exit status) with security's words when a step fails; a keychain made before
    // the failure is deleted again. Neither password appears in a message.
    std::vector<SigningCertificate> setup(const std::filesystem::path& p12,
                                          const std::string& password, const std::string& name,
                                          StopToken stop = {}) const;

    // Deletes the keychain (which also takes it off the search list). Throws like setup.
    void teardown(const std::string& name, StopToken stop = {}) const;

    // The keychains of `security list-keychains` output, in order.
    static std::vector<std::string> parseSearchList(std::string_view output);
};

} // namespace veltra
