// Project files and Info.plists come from the user's repository and from generators: any bytes
// must parse or be refused with an error, and discovery's reading of the result must hold up, as
// must putting Sparkle's package on the app target: an edited file parses again.
#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"
#include "core/xcode/ProjectFileParser.h"
#include "core/xcode/SparklePackageSetup.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const auto project = veltra::parseProjectFile(text);
        veltra::XcodeProjectDiscovery::projectSettings(project, "", "Release");
        veltra::XcodeProjectDiscovery::projectSettings(project, "A", "Debug");
    } catch (const veltra::VeltraError&) {
    }
    std::optional<veltra::SparklePackageSetup::Plan> plan;
    try {
        plan = veltra::SparklePackageSetup::plan(text, std::nullopt);
    } catch (const veltra::VeltraError&) {
    }
    if (plan && !plan->changes.empty()) {
        // The setup read the file, so an edit the parser then refuses is a fault of the edit.
        try {
            veltra::parseProjectFile(plan->text);
        } catch (const veltra::VeltraError&) {
            __builtin_trap();
        }
    }
    try {
        veltra::parsePropertyList(text);
    } catch (const veltra::VeltraError&) {
    }
    return 0;
}
