#pragma once

#include "core/records/ReleaseManifest.h"

#include <filesystem>
#include <map>
#include <string>

namespace veltra {

// The variables the profile's post-release script sees on top of Veltra's own environment: the
// release's facts (app, version, build, image path, SHA-256 and size, notes path; the update
// signature, download and feed addresses when there are any). Nothing secret is among them.
std::map<std::string, std::string> postReleaseEnvironment(const ReleaseManifest& manifest,
                                                          const std::filesystem::path& dmg,
                                                          const std::filesystem::path& notes);

} // namespace veltra
