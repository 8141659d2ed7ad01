#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// Puts Sparkle's Swift package on an app target of a project.pbxproj, the way Xcode's own
// "Add Package" writes it: an XCRemoteSwiftPackageReference (up to the next major version from
// 2.0.0), an XCSwiftPackageProductDependency "Sparkle", a PBXBuildFile of that product in the
// target's Frameworks phase (made when missing), and the references from the project
// (packageReferences) and the target (packageProductDependencies). Each object goes into its
// section in ID order, a missing section where the isa order puts it; every other byte of the
// file stays as it was.
class SparklePackageSetup {
public:
    static constexpr std::string_view repositoryURL = "https://github.com/sparkle-project/Sparkle";

    struct Plan {
        std::string targetName;
        // How the target already gets Sparkle ("Swift package", "CocoaPods or Carthage"); none
        // when it does not.
        std::optional<std::string> existing;
        // What adding it changes, one line each; empty when `existing` is set.
        std::vector<std::string> changes;
        // The file as it becomes; the original when nothing changes.
        std::string text;
    };

    // Plans Sparkle for the application target named `target`, or for the project's only
    // application target when none is named. Throws VeltraError naming the project's app
    // targets when `target` is not one of them, or when there is none, or several and none was
    // named; and when the file is not in the text form Xcode writes.
    static Plan plan(std::string_view projectText, const std::optional<std::string>& target);

    // A new object ID: 24 upper-case hexadecimal digits that `text` does not hold.
    static std::string newObjectID(std::string_view text);
};

} // namespace veltra
