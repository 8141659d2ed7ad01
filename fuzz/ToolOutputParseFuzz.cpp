// What Xcode's tools print is outside input too: scheme and workspace XML, build settings JSON
// with noise around it, identity lists, signature reports and build logs.
#include "core/signing/CertificateScanner.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/VeltraError.h"
#include "core/xcode/AppInspector.h"
#include "core/xcode/XcodeArchiver.h"
#include "core/xcode/XcodeBuildSettings.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        veltra::XcodeProjectDiscovery::parseScheme(text, "Fuzz");
    } catch (const veltra::VeltraError&) {
    }
    try {
        veltra::XcodeProjectDiscovery::workspaceProjects(text, "/src");
    } catch (const veltra::VeltraError&) {
    }
    if (const auto targets = veltra::XcodeBuildSettingsReader::decode(text)) {
        veltra::XcodePlistValidator::check(*targets, "Fuzz");
    }
    for (const auto& certificate : veltra::CertificateScanner::parseIdentities(text)) {
        if (certificate.hash.size() != 40 ||
            (certificate.teamID && certificate.teamID->size() != 10)) {
            std::abort();
        }
    }
    veltra::AppInspector::teamIdentifier(text);
    veltra::AppInspector::architectureNames(text);
    veltra::XcodeArchiver::failureSummary(text);
    veltra::MilestoneTracker([](const std::string&) {}).consume(text);
    veltra::NotaryLogFilter([](const std::string&) {}).consume(text);
    veltra::NotaryFailure::classify(text);
    return 0;
}
