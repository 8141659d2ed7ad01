#pragma once

#include "ProjectProfile.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// Reads and changes any settable field of a profile by its key path ("sparkle.appcastPath",
// "dmgDesign.appIconPosition"), checking the value's type. Failures throw VeltraError
// (domain "Veltra.Profile") whose message lists the valid keys or values.
class ProfileFieldEditor {
public:
    enum class Kind {
        string,
        optionalString,
        boolean,
        number,
        optionalNumber,
        point,
        enumeration,
        optionalEnumeration
    };
    struct Field {
        std::string path;
        Kind kind;
        std::vector<std::string> values; // for enumerations
    };

    static const std::vector<Field>& fields();
    // Sets `path` from its text form: true/false, a number, "x,y", an enumeration's raw value;
    // an empty value clears an optional field.
    static void set(ProjectProfile& profile, std::string_view path, std::string_view value);
    // The text form of a field, "" when an optional one is absent.
    static std::string get(const ProjectProfile& profile, std::string_view path);
    // The message refusing `text` for a field, naming the key and the rule, or nothing: names
    // not empty, file names and relative paths that stay inside their folders, bundle IDs as
    // Apple defines them, window and icon sizes in range, dotted macOS versions, absolute
    // http(s) addresses. `set` checks these, positions inside the window, and that a source
    // path is a project (a folder holding exactly one is stored as that one).
    static std::optional<std::string> valueProblem(std::string_view path, std::string_view text);
    // Why `text` is not a bundle identifier, or nothing.
    static std::optional<std::string> bundleIdentifierProblem(std::string_view text);
};

} // namespace veltra
