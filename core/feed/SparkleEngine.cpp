#include "SparkleEngine.h"

#include "BuildNumber.h"
#include "NativeEd25519Signer.h"
#include "SparkleFeedParser.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <regex>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra {

namespace {

constexpr const char* domain = "Veltra.Sparkle";
constexpr int signingCode = 3;
constexpr int feedCode = 4;

bool isExecutableFile(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

bool isProjectBundle(const std::filesystem::path& path) {
    const auto extension = path.extension();
    return extension == ".xcodeproj" || extension == ".xcworkspace";
}

} // namespace

void SparkleEngine::emit(const std::string& line) const {
    if (log) {
        log(line);
    }
}

std::filesystem::path SparkleEngine::derivedData() const {
    return derivedDataFolder.empty() ? homeDirectory() / "Library/Developer/Xcode/DerivedData"
                                     : derivedDataFolder;
}

std::optional<std::filesystem::path>
SparkleEngine::resolvedPackageTool(const std::filesystem::path& project,
                                   const std::filesystem::path& derivedDataFolder) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (project.empty() || !fs::is_directory(derivedDataFolder, error)) {
        return std::nullopt;
    }
    const auto wanted = fs::weakly_canonical(project, error);
    for (const auto& entry : fs::directory_iterator(derivedDataFolder, error)) {
        const auto info = entry.path() / "info.plist";
        if (!fs::is_regular_file(info, error)) {
            continue;
        }
        std::string workspace;
        try {
            const auto plist = readPropertyListDictionary(info);
            if (plist.contains("WorkspacePath") && plist["WorkspacePath"].is_string()) {
                workspace = plist["WorkspacePath"].get<std::string>();
            }
        } catch (const std::exception&) {
            continue; // another project's folder that cannot be read is none of ours
        }
        if (workspace.empty()) {
            continue;
        }
        const auto opened = fs::weakly_canonical(workspace, error);
        // A folder stands for the project or workspace directly inside it.
        if (opened != wanted && (isProjectBundle(wanted) || opened.parent_path() != wanted)) {
            continue;
        }
        const auto tool = entry.path() / "SourcePackages/artifacts/sparkle/Sparkle/bin/sign_update";
        if (isExecutableFile(tool)) {
            return tool;
        }
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> SparkleEngine::locateSignUpdate(StopToken stop) const {
    if (stop.stop_requested()) {
        throw CancellationError();
    }
    std::optional<std::filesystem::path> found;
    if (configuredTool) {
        if (!isExecutableFile(*configuredTool)) {
            throw VeltraError(domain, signingCode,
                              fmt::format("The sign_update set in the profile ({}) is not an "
                                          "executable file. Fix sparkle.signUpdatePath or clear "
                                          "it to sign without it.",
                                          configuredTool->string()));
        }
        found = configuredTool;
    } else {
        found = resolvedPackageTool(project, derivedData());
    }
    if (found) {
        emit("Success: Located Sparkle sign_update tool");
    }
    return found;
}

std::optional<std::string> SparkleEngine::signatureFromToolOutput(std::string_view output) {
    static const std::regex expression("sparkle:edSignature=\"([^\"]+)\"");
    std::match_results<std::string_view::const_iterator> match;
    if (!std::regex_search(output.begin(), output.end(), match, expression)) {
        return std::nullopt;
    }
    return match[1].str();
}

SparkleSignResult SparkleEngine::sign(const std::filesystem::path& dmg, const std::string& appName,
                                      const std::string& privateKeyPath, StopToken stop) const {
    const auto keyPath = expandTilde(privateKeyPath);
    return signWith(
        dmg, appName, {"--ed-key-file", keyPath.string()},
        [&] {
            std::error_code error;
            if (!std::filesystem::is_regular_file(keyPath, error)) {
                throw VeltraError(domain, signingCode,
                                  fmt::format("Could not generate Sparkle signature: sign_update "
                                              "binary and private key at '{}' not available.",
                                              keyPath.string()));
            }
            return SparklePrivateKey::readFile(keyPath);
        },
        "key at: " + keyPath.string(), std::move(stop));
}

SparkleSignResult SparkleEngine::sign(const std::filesystem::path& dmg, const std::string& appName,
                                      const KeychainSigningKey& key, StopToken stop) const {
    // sign_update would read the keychain item itself, and macOS would ask whether it may: in
    // CI nobody answers. Veltra has read the key already, so its own signer uses it.
    emit(fmt::format("Signing Sparkle update for {}...", appName));
    return signNatively(dmg, key.load(), "the keychain's key (account " + key.account + ")", stop);
}

SparkleSignResult SparkleEngine::signWith(const std::filesystem::path& dmg,
                                          const std::string& appName,
                                          const std::vector<std::string>& toolKey,
                                          const std::function<SparklePrivateKey()>& load,
                                          const std::string& keyDescription, StopToken stop) const {
    emit(fmt::format("Signing Sparkle update for {}...", appName));
    if (const auto tool = locateSignUpdate(stop)) {
        auto arguments = toolKey;
        arguments.push_back(dmg.string());
        const auto result = ProcessRunner::run(tool->string(), arguments, stop);
        const auto signature = signatureFromToolOutput(result.output);
        if (result.exitCode != 0 || !signature) {
            // sign_update prints its errors on standard output.
            throw VeltraError(domain, signingCode,
                              fmt::format("sign_update could not sign {}: {}", dmg.string(),
                                          trimWhitespace(result.output + result.errorOutput)));
        }
        emit("Success: Generated Ed25519 signature: " + *signature);
        std::error_code error;
        const auto size = std::filesystem::file_size(dmg, error);
        if (error) {
            throw VeltraError(
                domain, signingCode,
                fmt::format("Could not read the size of {}: {}", dmg.string(), error.message()));
        }
        return {*signature, std::to_string(size)};
    }
    return signNatively(dmg, load(), keyDescription, stop);
}

SparkleSignResult SparkleEngine::signNatively(const std::filesystem::path& dmg,
                                              const SparklePrivateKey& key,
                                              const std::string& keyDescription,
                                              StopToken stop) const {
    emit("Using native CryptoKit Ed25519 signer with " + keyDescription);
    const auto signature = NativeEd25519Signer::signFile(key, dmg, stop);
    emit("Success: Native CryptoKit signature: " + signature.signatureBase64());
    return {signature.signatureBase64(), std::to_string(signature.length)};
}

void SparkleEngine::updateFeed(const std::filesystem::path& appcastPath,
                               const AppcastRelease& release) const {
    if (!BuildNumber::parse(release.build).isValid()) {
        throw VeltraError(domain, feedCode, "Invalid release build number.");
    }
    std::error_code error;
    if (!std::filesystem::exists(appcastPath, error)) {
        throw VeltraError(domain, feedCode, "appcast.xml not found at " + appcastPath.string());
    }
    const auto document = readFile(appcastPath);
    // A feed that was broken before the release names where it breaks.
    const auto cause = [&] {
        return SparkleFeedParser::parse(document)
                   ? std::string()
                   : "The feed at " + appcastPath.string() +
                         " cannot be read: " + SparkleFeedParser::problem(document) + ".";
    };
    const auto when = clock ? clock() : std::time(nullptr);
    const auto updated =
        appcast::insertItem(document, appcast::itemText(release, appcast::rfc822Date(when)));
    if (!updated) {
        throw VeltraError(domain, feedCode,
                          "Could not find insertion anchor in appcast.xml" +
                              (cause().empty() ? "" : ". " + cause()));
    }
    // Checked before writing, so a feed that would not read back is never left on disk.
    const auto items = SparkleFeedParser::parse(*updated);
    const bool readsBack = items && !items->empty() &&
                           items->front().shortVersion == release.shortVersion &&
                           items->front().version == release.build &&
                           items->front().enclosureURL == release.downloadURL &&
                           items->front().edSignature == release.signature &&
                           items->front().enclosureLength == release.length;
    if (!readsBack) {
        throw VeltraError(domain, feedCode,
                          "The update feed does not match the release version, build, download "
                          "URL, signature, and size. Upload stopped." +
                              (cause().empty() ? "" : " " + cause()));
    }
    writeFileAtomically(appcastPath, *updated);
    emit(fmt::format("Success: Successfully updated appcast.xml with v{} (build {})",
                     release.shortVersion, release.build));
}

std::vector<SparkleFeedItem> SparkleEngine::keepNewest(const std::filesystem::path& appcastPath,
                                                       int keep) const {
    const auto document = readFile(appcastPath);
    const auto items = SparkleFeedParser::parse(document);
    if (!items || keep < 1 || items->size() <= static_cast<std::size_t>(keep)) {
        return {};
    }
    const auto limit = static_cast<std::size_t>(keep);
    const auto kept =
        appcast::removeItems(document, [limit](std::size_t index) { return index >= limit; });
    const auto after = SparkleFeedParser::parse(kept);
    if (!after || after->size() != limit) {
        throw VeltraError(domain, feedCode,
                          "The update feed could not be trimmed to " + std::to_string(keep) +
                              " releases; it was left as it was.");
    }
    writeFileAtomically(appcastPath, kept);
    return {items->begin() + keep, items->end()};
}

void SparkleEngine::createStubFeed(const std::filesystem::path& appcastPath,
                                   const std::string& appName, const std::string& siteURL) const {
    std::error_code error;
    if (std::filesystem::exists(appcastPath, error)) {
        throw VeltraError(domain, feedCode,
                          "appcast.xml already exists at " + appcastPath.string());
    }
    writeFileAtomically(appcastPath, appcast::stubFeed(appName, siteURL));
    emit("Success: Created appcast.xml stub at " + appcastPath.string());
}

} // namespace veltra
