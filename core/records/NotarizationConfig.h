#pragma once

#include <string>

namespace veltra {

struct NotarizationConfig {
    bool enabled = false;
    std::string developerTeamID;
    std::string keychainProfileName = "AC_PASSWORD"; // notary credentials in the keychain
    std::string signingIdentity;

    bool operator==(const NotarizationConfig&) const = default;
};

} // namespace veltra
