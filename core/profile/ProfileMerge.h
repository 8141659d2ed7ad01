#pragma once

#include "core/support/JsonReader.h"

namespace veltra {

// Applies to `disk` (the profile file as another process may have changed it) only what changed
// between `base` (this process's list as last read or saved) and `mine` (its list now): profiles
// by id, releases by version and build, everything else field by field. Whatever this process
// did not change stays as `disk` has it, fields this version does not know included; where both
// changed one field, `mine` wins.
Json mergeProfileChanges(const Json& base, const Json& mine, Json disk);

} // namespace veltra
