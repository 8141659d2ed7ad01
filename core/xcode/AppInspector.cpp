#include "AppInspector.h"

#include "core/support/PropertyList.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <system_error>

namespace veltra {

namespace fs = std::filesystem;

std::optional<std::string> AppInspector::teamIdentifier(std::string_view report) {
    constexpr std::string_view key = "TeamIdentifier=";
    std::size_t start = 0;
    while (start <= report.size()) {
        auto end = report.find_first_of("\r\n", start);
        if (end == std::string_view::npos) {
            end = report.size();
        }
        auto line = report.substr(start, end - start);
        start = end + 1;
        const auto at = line.find(key);
        if (at == std::string_view::npos) {
            continue;
        }
        std::string team(line.substr(0, at));
        team += line.substr(at + key.size());
        const auto trimmed = trimWhitespace(team);
        if (trimmed.empty() || trimmed == "not set") {
            return std::nullopt;
        }
        return std::string(trimmed);
    }
    return std::nullopt;
}

std::vector<std::string> AppInspector::architectureNames(std::string_view output) {
    std::vector<std::string> names;
    std::size_t index = 0;
    while (index < output.size()) {
        const auto start = output.find_first_not_of(" \t\r\n", index);
        if (start == std::string_view::npos) {
            break;
        }
        auto end = output.find_first_of(" \t\r\n", start);
        if (end == std::string_view::npos) {
            end = output.size();
        }
        names.emplace_back(output.substr(start, end - start));
        index = end;
    }
    return names;
}

namespace {

std::optional<std::string> stringValue(const nlohmann::json& plist, const char* key) {
    const auto found = plist.find(key);
    if (found == plist.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

} // namespace

std::optional<std::string> AppInspector::signatureProblem(const fs::path& app,
                                                          StopToken stop) const {
    const auto result = processRunner.run(
        ProcessRequest{.command = "codesign",
                       .arguments = {"--verify", "--deep", "--strict", app.string()}},
        stop);
    if (result.exitCode == 0) {
        return std::nullopt;
    }
    return std::string(trimWhitespace(combinedOutput(result)));
}

AppInfo AppInspector::inspect(const fs::path& app, StopToken stop) const {
    std::error_code error;
    if (!fs::exists(app, error)) {
        throw VeltraError("Veltra", errorCode::notFound, "App bundle not found at " + app.string());
    }
    nlohmann::json plist;
    try {
        plist = readPropertyListDictionary(app / "Contents" / "Info.plist");
    } catch (const std::exception&) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "Invalid Info.plist inside " + app.filename().string());
    }
    AppInfo info;
    info.appPath = app;
    info.bundleIdentifier = stringValue(plist, "CFBundleIdentifier").value_or("unknown.bundle.id");
    info.displayName =
        stringValue(plist, "CFBundleDisplayName")
            .value_or(stringValue(plist, "CFBundleName").value_or(app.stem().string()));
    info.version = stringValue(plist, "CFBundleShortVersionString").value_or("");
    info.build = stringValue(plist, "CFBundleVersion").value_or("");
    info.minimumOSVersion = stringValue(plist, "LSMinimumSystemVersion").value_or("");
    info.sparkleFeedURL = stringValue(plist, "SUFeedURL");
    if (auto icon = stringValue(plist, "CFBundleIconFile")) {
        if (fs::path(*icon).extension().empty()) {
            *icon += ".icns";
        }
        const auto file = app / "Contents" / "Resources" / *icon;
        if (fs::exists(file, error)) {
            info.iconURL = file;
        }
    }
    if (auto executable = stringValue(plist, "CFBundleExecutable")) {
        info.executableURL = app / "Contents" / "MacOS" / *executable;
    }

    // The tool queries describe the app; when they cannot run, the facts are simply unknown.
    try {
        const auto signature = processRunner.run("codesign", {"-dvvv", app.string()}, stop);
        info.isCodesigned = signature.exitCode == 0;
        if (info.isCodesigned) {
            info.signingTeam = teamIdentifier(signature.errorOutput + "\n" + signature.output);
        }
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception&) {
    }
    if (info.executableURL) {
        try {
            const auto lipo =
                processRunner.run("lipo", {"-archs", info.executableURL->string()}, stop);
            if (lipo.exitCode == 0) {
                info.architectures = architectureNames(lipo.output);
            }
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception&) {
        }
    }
    return info;
}

} // namespace veltra
