#pragma once

#include <filesystem>
#include <optional>

namespace veltra {

// Files Veltra ships beside its tool (the demo's sample project and the Apple-tool stand-ins it
// uses where Xcode is missing). An installed `<prefix>/bin/veltra` finds them in
// `<prefix>/share/veltra`; a tool run from its build folder finds them in the source tree.
class ResourceLocator {
public:
    enum class Resource { toolStandIns, demo };

    // The running program's own file, resolved through links; empty when it cannot be told.
    static std::filesystem::path executablePath();

    // The folder of `resource` for a program at `executable`, or nothing when neither the
    // installed layout nor the source tree has it.
    static std::optional<std::filesystem::path>
    locate(Resource resource, const std::filesystem::path& executable = executablePath());
};

} // namespace veltra
