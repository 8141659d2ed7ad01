#include "XcodeArchiver.h"

#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <set>
#include <system_error>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace veltra {

namespace fs = std::filesystem;

namespace {

// The target name in "... (in target 'T' from project 'P')"; nullopt without one.
std::optional<std::string> targetName(std::string_view line) {
    constexpr std::string_view marker = "in target '";
    const auto start = line.find(marker);
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    const auto rest = line.substr(start + marker.size());
    const auto end = rest.find('\'');
    const auto name = rest.substr(0, end);
    if (name.empty()) {
        return std::nullopt;
    }
    return std::string(name);
}

// The first `count` characters (code points) of UTF-8 text.
std::string_view firstCharacters(std::string_view text, std::size_t count) {
    std::size_t index = 0;
    for (std::size_t seen = 0; index < text.size(); ++index) {
        if ((static_cast<unsigned char>(text[index]) & 0xC0) != 0x80) {
            if (seen == count) {
                break;
            }
            ++seen;
        }
    }
    return text.substr(0, index);
}

// Lines split at any line break, each trimmed.
std::vector<std::string_view> trimmedLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    for (std::size_t index = 0; index <= text.size(); ++index) {
        if (index == text.size() || text[index] == '\n' || text[index] == '\r') {
            lines.push_back(trimWhitespace(text.substr(start, index - start)));
            start = index + 1;
        }
    }
    return lines;
}

} // namespace

std::optional<MilestoneTracker::Milestone> MilestoneTracker::milestone(std::string_view line) {
    const auto inTarget = [&](std::string_view prefix,
                              std::string_view suffix) -> std::optional<Milestone> {
        if (auto target = targetName(line)) {
            return Milestone{std::string(prefix) + *target + std::string(suffix)};
        }
        return std::nullopt;
    };
    if (line.starts_with("Resolve Package Graph")) {
        return Milestone{"   Resolving Swift Package dependencies..."};
    }
    if (const auto banner = line.find("=== BUILD TARGET"); banner != std::string_view::npos) {
        const auto after = line.find("BUILD TARGET ", banner);
        if (after == std::string_view::npos) {
            return std::nullopt;
        }
        auto rest = line.substr(after + std::string_view("BUILD TARGET ").size());
        const auto word = rest.substr(0, rest.find(' '));
        if (word.empty()) {
            return std::nullopt;
        }
        return Milestone{"   Building target '" + std::string(word) + "'..."};
    }
    // Xcode 14 and later name a Swift compile task "SwiftCompile".
    if (contains(line, "CompileSwiftSources") || contains(line, "CompileSwift ") ||
        line.starts_with("SwiftCompile ")) {
        return inTarget("   Compiling Swift sources for '", "'...");
    }
    if (line.starts_with("Ld ") || contains(line, "Linking ")) {
        return inTarget("   Linking target '", "'...");
    }
    if (line.starts_with("CodeSign ")) {
        return inTarget("   Signing target '", "'...");
    }
    if (contains(line, "error:")) {
        return Milestone{"   Error: " + std::string(line), true};
    }
    return std::nullopt;
}

void MilestoneTracker::consume(std::string_view line) {
    auto found = milestone(trimWhitespace(line));
    if (!found) {
        return;
    }
    if (found->isError) {
        if (onLog_) {
            onLog_(found->text);
        }
        return;
    }
    if (found->text != last_) {
        last_ = found->text;
        if (onLog_) {
            onLog_(last_);
        }
    }
}

std::vector<std::string> XcodeArchiver::archiveArguments(
    const XcodeProjectInfo& project, const std::string& scheme, const fs::path& archivePath,
    const std::optional<std::string>& marketingVersion, std::optional<std::int64_t> buildNumber) {
    std::vector<std::string> arguments{
        project.isWorkspace ? "-workspace" : "-project", project.projectPath.string(), "-scheme",
        scheme, "-configuration", project.archiveConfiguration(scheme),
        // A multiplatform target would archive for iOS.
        "-destination", "generic/platform=macOS", "-archivePath", archivePath.string(), "archive"};
    if (marketingVersion && !marketingVersion->empty()) {
        arguments.push_back("MARKETING_VERSION=" + *marketingVersion);
        arguments.push_back("INFOPLIST_KEY_CFBundleShortVersionString=" + *marketingVersion);
    }
    if (buildNumber) {
        arguments.push_back("CURRENT_PROJECT_VERSION=" + std::to_string(*buildNumber));
        arguments.push_back("INFOPLIST_KEY_CFBundleVersion=" + std::to_string(*buildNumber));
    }
    return arguments;
}

std::string XcodeArchiver::failureSummary(std::string_view log) {
    if (contains(log, "requires Xcode") ||
        contains(log, "CommandLineTools' is a command line tools instance")) {
        return "Active developer directory is set to Command Line Tools instead of Xcode.app. Run "
               "in Terminal: sudo xcode-select -s /Applications/Xcode.app/Contents/Developer (or "
               "select Xcode in Xcode Settings ➔ Locations).";
    }
    const auto lines = trimmedLines(log);
    std::vector<std::string_view> errors;
    for (const auto line : lines) {
        if ((contains(line, ": error:") || contains(line, ": fatal error:")) &&
            std::find(errors.begin(), errors.end(), line) == errors.end()) {
            errors.push_back(line);
            if (errors.size() == 3) {
                break;
            }
        }
    }
    if (!errors.empty()) {
        std::string summary = "Xcode archive failed:";
        for (const auto line : errors) {
            summary += "\n";
            summary += firstCharacters(line, 500);
        }
        return summary;
    }
    for (const auto line : lines) {
        if (line.starts_with("xcodebuild: error:") || line.starts_with("error:") ||
            contains(line, "CodeSign failed")) {
            return "Xcode archive failed. " + std::string(firstCharacters(line, 500));
        }
    }
    return "Xcode archive failed. Open the build log for diagnostic details.";
}

bool XcodeArchiver::isMachO(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::array<unsigned char, 4> bytes{};
    if (!in.read(reinterpret_cast<char*>(bytes.data()), 4)) {
        return false;
    }
    const std::uint32_t magic = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
                                (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
    switch (magic) {
    case 0xFEEDFACE:
    case 0xFEEDFACF:
    case 0xCEFAEDFE:
    case 0xCFFAEDFE:
    case 0xCAFEBABE:
    case 0xBEBAFECA:
        return true;
    default:
        return false;
    }
}

namespace {

// Bundles codesign signs as bundles; a .bundle or .plugin only when it holds code.
bool isCodeBundle(const fs::path& folder) {
    const auto extension = folder.extension();
    if (extension == ".app" || extension == ".appex" || extension == ".xpc" ||
        extension == ".framework" || extension == ".systemextension") {
        return true;
    }
    std::error_code error;
    return (extension == ".bundle" || extension == ".plugin") &&
           fs::is_directory(folder / "Contents" / "MacOS", error);
}

std::string bundleExecutableName(const fs::path& bundle) {
    try {
        const auto plist = readPropertyListDictionary(bundle / "Contents" / "Info.plist");
        const auto found = plist.find("CFBundleExecutable");
        return found != plist.end() && found->is_string() ? found->get<std::string>() : "";
    } catch (const std::exception&) {
        return {};
    }
}

// A bundle's own executable, which its bundle's signature covers.
bool isBundleExecutable(const fs::path& file) {
    const auto parent = file.parent_path();
    if (parent.filename() == "MacOS" && parent.parent_path().filename() == "Contents") {
        const auto bundle = parent.parent_path().parent_path();
        return isCodeBundle(bundle) && bundleExecutableName(bundle) == file.filename().string();
    }
    // Framework/Versions/A/Framework
    const auto versions = parent.parent_path();
    return versions.filename() == "Versions" &&
           versions.parent_path().extension() == ".framework" &&
           versions.parent_path().stem() == file.filename();
}

// The keys whose values differ between two dictionaries, sorted.
std::vector<std::string> differingKeys(const nlohmann::json& a, const nlohmann::json& b) {
    std::set<std::string> keys;
    for (const auto& [key, value] : a.items()) {
        if (!b.contains(key) || b.at(key) != value) {
            keys.insert(key);
        }
    }
    for (const auto& [key, value] : b.items()) {
        if (!a.contains(key)) {
            keys.insert(key);
        }
    }
    return {keys.begin(), keys.end()};
}

nlohmann::json entitlementsValue(const std::string& xml) {
    return trimWhitespace(xml).empty() ? nlohmann::json::object() : parsePropertyList(xml);
}

} // namespace

std::vector<fs::path> XcodeArchiver::signingTargets(const fs::path& app) {
    struct Target {
        std::string relative;
        bool isDirectory = false;
        std::size_t depth = 0;
    };
    std::vector<Target> targets;
    std::set<std::string> seen;
    std::error_code error;
    for (fs::recursive_directory_iterator it(app, error), end; !error && it != end;
         it.increment(error)) {
        const auto status = it->symlink_status(error);
        if (error || fs::is_symlink(status)) {
            error.clear();
            continue;
        }
        const auto extension = it->path().extension();
        const bool directory = fs::is_directory(status);
        bool target = false;
        if (directory) {
            target = isCodeBundle(it->path());
        } else if (fs::is_regular_file(status)) {
            target = (extension == ".dylib" || extension == ".so" || isMachO(it->path())) &&
                     !isBundleExecutable(it->path());
        }
        if (!target) {
            continue;
        }
        auto relative = it->path().lexically_relative(app).generic_string();
        if (!seen.insert(relative).second) {
            continue;
        }
        const auto depth =
            static_cast<std::size_t>(std::count(relative.begin(), relative.end(), '/')) + 1;
        targets.push_back({std::move(relative), directory, depth});
    }
    std::sort(targets.begin(), targets.end(), [](const Target& a, const Target& b) {
        if (a.depth != b.depth) {
            return a.depth > b.depth;
        }
        if (a.isDirectory != b.isDirectory) {
            return !a.isDirectory;
        }
        return a.relative > b.relative;
    });
    std::vector<fs::path> paths;
    paths.reserve(targets.size() + 1);
    for (const auto& target : targets) {
        paths.push_back(app / target.relative);
    }
    paths.push_back(app);
    return paths;
}

const std::vector<std::string>& XcodeArchiver::developmentEntitlements() {
    // The notary service refuses a Developer ID executable that lets debuggers attach.
    static const std::vector<std::string> keys{"com.apple.security.get-task-allow"};
    return keys;
}

std::string XcodeArchiver::readEntitlements(const fs::path& item, StopToken stop) {
    const auto result =
        ProcessRunner::run("codesign", {"-d", "--entitlements", "-", "--xml", item.string()}, stop);
    if (result.exitCode != 0) {
        // Unsigned code carries no entitlements.
        if (contains(result.errorOutput, "code object is not signed at all")) {
            return {};
        }
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "Could not read the entitlements of " + item.string() + ": " +
                              std::string(trimWhitespace(combinedOutput(result))));
    }
    return result.output;
}

std::vector<SignedItem> XcodeArchiver::signInsideOut(const fs::path& app,
                                                     const std::string& identity,
                                                     const LogHandler& onLog,
                                                     StopToken stop) const {
    const auto name = [&](const fs::path& item) {
        return item == app
                   ? app.filename().string()
                   : app.filename().string() + "/" + item.lexically_relative(app).generic_string();
    };
    // Entitlements files hold nothing secret, but stay private to this run all the same.
    const PrivateTemporaryFolder folder("veltra_entitlements");
    std::vector<SignedItem> signedItems;
    std::set<std::string> removedKeys;
    for (const auto& target : signingTargets(app)) {
        if (stop.stop_requested()) {
            throw CancellationError();
        }
        SignedItem item{.path = target};
        const auto built = readEntitlements(target, stop);
        std::vector<std::string> arguments{"--force",   "--sign",  identity,
                                           "--options", "runtime", "--timestamp"};
        if (!trimWhitespace(built).empty()) {
            const auto before = entitlementsValue(built);
            for (const auto& key : developmentEntitlements()) {
                if (before.contains(key)) {
                    item.removed.push_back(key);
                    removedKeys.insert(key);
                }
            }
            const auto shipped = editPropertyList(built, {.remove = developmentEntitlements()});
            item.entitlements = entitlementsValue(shipped);
            if (!item.entitlements.empty()) {
                const auto file =
                    folder.path() / fmt::format("{}.entitlements", signedItems.size());
                writeSecretFile(file, shipped);
                arguments.insert(arguments.end(), {"--entitlements", file.string()});
            }
        }
        arguments.push_back(target.string());
        const auto result = ProcessRunner::run("codesign", arguments, stop);
        if (result.exitCode != 0) {
            throw VeltraError("Veltra", errorCode::toolFailed,
                              "Code signing failed for " + name(target) + ": " +
                                  std::string(trimWhitespace(combinedOutput(result))));
        }
        signedItems.push_back(std::move(item));
    }
    // Read back once all are signed: what each item ships with is what was asked.
    for (const auto& item : signedItems) {
        const auto carried = entitlementsValue(readEntitlements(item.path, stop));
        if (const auto keys = differingKeys(item.entitlements, carried); !keys.empty()) {
            std::string list;
            for (const auto& key : keys) {
                list += (list.empty() ? "" : ", ") + key;
            }
            throw VeltraError("Veltra", errorCode::toolFailed,
                              "The re-signed " + name(item.path) +
                                  " does not carry the entitlements it was signed with (" + list +
                                  ").");
        }
    }
    if (onLog) {
        for (const auto& key : removedKeys) {
            onLog("   Info: Removed the development entitlement " + key +
                  " (the notary service refuses it)");
        }
        for (const auto& item : signedItems) {
            if (fs::is_directory(item.path) && item.path != app) {
                onLog(fmt::format("   Signed {} ({} entitlement{})", name(item.path),
                                  item.entitlements.size(),
                                  item.entitlements.size() == 1 ? "" : "s"));
            }
        }
    }
    return signedItems;
}

fs::path XcodeArchiver::archiveAndExport(const XcodeProjectInfo& project, const std::string& scheme,
                                         const std::optional<std::string>& signingIdentity,
                                         const std::optional<std::string>& marketingVersion,
                                         std::optional<std::int64_t> buildNumber,
                                         const LogHandler& onLog, StopToken stop) const {
    const auto log = [&](const std::string& line) {
        if (onLog) {
            onLog(line);
        }
    };
    if (stop.stop_requested()) {
        throw CancellationError();
    }
    const auto configuration = project.archiveConfiguration(scheme);
    log("   Checking " + configuration + " Info.plist paths...");
    XcodePlistValidator validator;
    validator.reader = settingsReader;
    if (auto problem = validator.validate(project, scheme, stop)) {
        throw VeltraError("Veltra", errorCode::toolFailed, *problem);
    }
    log("   Success: " + configuration + " Info.plist paths verified");

    const auto buildFolder = makeOwnedTemporaryFolder(fs::temp_directory_path(), "veltra_build_");
    const auto archivePath = buildFolder / (scheme + ".xcarchive");
    const auto exportFolder = buildFolder / "ExportedApp";
    fs::create_directories(buildFolder);
    // Only a finished archive hands its folder (the exported app) on; a failed or cancelled
    // one leaves nothing in the temporary folder.
    struct RemoveUnlessKept {
        fs::path folder;
        bool keep = false;
        ~RemoveUnlessKept() {
            if (!keep) {
                std::error_code ignored;
                fs::remove_all(folder, ignored);
            }
        }
    } buildFolderGuard{buildFolder};
    log("   Compiling & Archiving " + scheme + " (" + configuration + ") with Xcode...");

    MilestoneTracker tracker(onLog);
    ProcessRequest request;
    request.command = "xcodebuild";
    request.arguments =
        archiveArguments(project, scheme, archivePath, marketingVersion, buildNumber);
    request.onLine = [&tracker](std::string_view line) { tracker.consume(line); };
    const auto result = ProcessRunner::run(request, stop);

    std::error_code missing;
    if (result.exitCode != 0 || !fs::exists(archivePath, missing)) {
        const auto fullLog = result.output + "\n" + result.errorOutput;
        // Kept where Veltra keeps logs (private, the newest 20), as the build folder goes.
        constexpr std::string_view prefix = "xcodebuild-error-";
        const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
        const auto logFile =
            veltraLogFolder() / fmt::format("{}{:%Y%m%d-%H%M%S}-{}.log", prefix, now,
                                            Uuid::random().string().substr(0, 8));
        bool written = true;
        try {
            createPrivateDirectories(logFile.parent_path());
            makeRoomForNewest(logFile.parent_path(), prefix, 20);
            writeSecretFile(logFile, fullLog);
        } catch (const std::exception&) {
            written = false;
        }
        auto message = failureSummary(fullLog);
        if (written) {
            message += "\nFull build log: " + logFile.string();
        }
        throw VeltraError("Veltra", errorCode::toolFailed, message);
    }

    log("   Success: Xcode archive created successfully");
    log("   Extracting application bundle...");
    const auto applications = archivePath / "Products" / "Applications";
    std::vector<fs::path> apps;
    std::error_code error;
    for (fs::directory_iterator it(applications, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".app") {
            apps.push_back(it->path());
        }
    }
    std::sort(apps.begin(), apps.end());
    if (apps.empty()) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "Could not find built .app in archive at " + applications.string());
    }
    fs::create_directories(exportFolder);
    const auto app = exportFolder / apps.front().filename();
    // The archive is this run's scratch and goes with the build folder, so its app moves out
    // instead of being copied (a copy only where the two folders are on different volumes).
    fs::rename(apps.front(), app, error);
    if (error) {
        copyItem(apps.front(), app);
    }

    if (!signingIdentity || signingIdentity->empty()) {
        log("   Success: Extracted " + app.filename().string() + "...");
        buildFolderGuard.keep = true;
        return app;
    }
    log("   Signing application bundle with " + *signingIdentity + "...");
    signInsideOut(app, *signingIdentity, onLog, stop);
    log("   Success: Code signature applied successfully");
    buildFolderGuard.keep = true;
    return app;
}

} // namespace veltra
