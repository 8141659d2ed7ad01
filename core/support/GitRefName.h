#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Why `name` cannot be a git branch, by the rules `git check-ref-format --branch` applies (no
// leading '-', no "..", "@{", control characters, blanks, ~ ^ : ? * [ \, no component starting
// with '.' or ending with ".lock", no empty component, not "@" or "HEAD", not ending with '.'
// or '/'); nothing when it can. Checked where a branch enters, so it never reaches git as an
// option or a refspec.
std::optional<std::string> gitBranchNameProblem(std::string_view name);

// The same as a user-facing message naming the value: "'a b' is not a valid branch name: …".
std::optional<std::string> gitBranchNameError(std::string_view name);

} // namespace veltra
