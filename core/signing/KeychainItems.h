#pragma once

#include "core/support/StopToken.h"

#include <optional>
#include <string>

namespace veltra {

// Generic-password items of the user's default keychain, through `security`. A secret goes to
// the tool on standard input (security -i) and comes back on its standard output, never on a
// command line.
class KeychainItems {
public:
    // The error code when an item is there already.
    static constexpr int itemExists = 45;

    // Whether this machine has a keychain to keep items in (the `security` tool).
    static bool available();
    // The item's secret; none when there is no such item. Throws VeltraError with the tool's
    // words when the keychain cannot be searched (locked, access denied).
    static std::optional<std::string> find(const std::string& service, const std::string& account,
                                           StopToken stop = {});
    // Adds an item; never replaces one (VeltraError itemExists).
    static void add(const std::string& service, const std::string& account,
                    const std::string& label, const std::string& comment, const std::string& secret,
                    StopToken stop = {});
};

} // namespace veltra
