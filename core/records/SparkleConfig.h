#pragma once

#include <optional>
#include <string>

namespace veltra {

// "{app}" and "{dmg}" in the patterns are filled in when a release's addresses are resolved.
struct SparkleConfig {
    std::string appcastPath;
    std::string privateKeyPath = "~/.sparkle/ed25519_priv";
    std::string releaseNotesURLPattern = "https://www.example.com/downloads/{app}.md";
    std::string downloadURLPattern = "https://www.example.com/downloads/{dmg}";
    // Raises the built app's LSMinimumSystemVersion in the feed; unset for new profiles.
    std::optional<std::string> minimumSystemVersion;
    // The sign_update to use; otherwise the one of the project's resolved Sparkle package, or
    // Veltra's own signer.
    std::optional<std::string> signUpdatePath;
    // How many items the feed keeps; older ones leave it (and their files the site) when a
    // release or withdraw goes out. Unset: every item stays.
    std::optional<int> keepReleases;

    bool operator==(const SparkleConfig&) const = default;
};

} // namespace veltra
