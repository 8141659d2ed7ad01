#pragma once

#include "core/support/Date.h"
#include "core/support/Uuid.h"

#include <string>

namespace veltra {

// One line of a release's log.
struct ReleaseLogEntry {
    Uuid id;
    Date timestamp;
    std::string text; // without the trailing newline
    bool isError = false;

    static ReleaseLogEntry make(std::string text, bool isError) {
        return {Uuid::random(), Date::now(), std::move(text), isError};
    }
    bool operator==(const ReleaseLogEntry&) const = default;
};

} // namespace veltra
