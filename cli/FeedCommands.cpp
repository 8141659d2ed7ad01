#include "CommandLine.h"
#include "Commands.h"
#include "FeedControlOptions.h"
#include "JsonOutput.h"
#include "core/feed/BuildNumber.h"
#include "core/feed/FeedItemCheck.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/feed/SparkleEngine.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace veltra::cli {

namespace {

// What each item says, as it says it: a value the item leaves out stays empty.
std::string feedAsJson(const std::optional<std::vector<SparkleFeedItem>>& items) {
    nlohmann::ordered_json json;
    json["valid"] = items.has_value();
    json["items"] = nlohmann::ordered_json::array();
    for (const auto& item : items.value_or(std::vector<SparkleFeedItem>{})) {
        const auto problems = feedItemProblems(item);
        nlohmann::ordered_json entry{
            {"title", item.stated.title},
            {"shortVersion", item.stated.shortVersion},
            {"version", item.stated.version},
            {"pubDate", item.pubDate},
            {"minimumSystemVersion", item.stated.minimumSystemVersion},
            {"releaseNotesURL", item.releaseNotesURL},
            {"enclosureURL", item.enclosureURL},
            {"enclosureLength", item.enclosureLength},
            {"edSignature", item.edSignature},
            {"rawDescription", item.rawDescription},
            {"channel", item.controls.channel},
            {"critical", item.controls.critical},
            {"criticalBelow", item.controls.criticalBelow},
            {"phasedRolloutInterval", item.stated.phasedRolloutInterval},
            {"minimumAutoupdateVersion", item.controls.minimumAutoupdateVersion},
            {"valid", problems.empty()},
            {"problems", problems},
        };
        json["items"].push_back(std::move(entry));
    }
    return jsonText(json);
}

// Columns padded to their widest cell; the download address goes last as it is the longest.
std::string feedAsTable(const std::vector<SparkleFeedItem>& items) {
    if (items.empty()) {
        return "The feed lists no releases.\n";
    }
    constexpr std::size_t columns = 7;
    std::vector<std::array<std::string, columns>> rows{
        {"BUILD", "VERSION", "PUBLISHED", "MIN MACOS", "BYTES", "SIGNED", "OFFERED"}};
    for (const auto& item : items) {
        const auto offered = item.controls.summary();
        rows.push_back(
            {item.stated.version.empty() ? "-" : item.stated.version,
             item.stated.shortVersion.empty() ? "-" : item.stated.shortVersion,
             item.pubDate.empty() ? "-" : item.pubDate,
             item.stated.minimumSystemVersion.empty() ? "-" : item.stated.minimumSystemVersion,
             item.enclosureLength.empty() ? "-" : item.enclosureLength,
             item.edSignature.empty() ? "no" : "yes", offered.empty() ? "everyone" : offered});
    }
    std::array<std::size_t, columns> widths{};
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::string out;
    for (std::size_t index = 0; index < rows.size(); ++index) {
        for (std::size_t column = 0; column < rows[index].size(); ++column) {
            out += fmt::format("{:<{}}  ", rows[index][column], widths[column]);
        }
        out += index == 0 ? std::string("DOWNLOAD") : items[index - 1].enclosureURL;
        out += '\n';
    }
    for (std::size_t index = 0; index < items.size(); ++index) {
        for (const auto& problem : feedItemProblems(items[index])) {
            out += fmt::format("Invalid item {} (build '{}'): {}\n", index + 1,
                               items[index].stated.version, problem);
        }
    }
    return out;
}

void reportFeed(CliContext& context, std::string_view data, bool json, const std::string& source) {
    const auto items = SparkleFeedParser::parse(data);
    // A feed with an item no Mac can install is reported as such (exit 3), whatever the format.
    const bool anyInvalid =
        items && std::any_of(items->begin(), items->end(), [](const SparkleFeedItem& item) {
            return !feedItemProblems(item).empty();
        });
    if (json) {
        context.out << feedAsJson(items) << '\n';
        context.exitStatus = !items ? exitFailure : anyInvalid ? exitCheckFailed : exitSuccess;
        return;
    }
    if (!items) {
        if (const auto encoding = SparkleFeedParser::unreadableEncoding(data)) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              fmt::format("{} is not a usable update feed: it declares the "
                                          "encoding '{}', which cannot be read. Save it as UTF-8.",
                                          source, *encoding));
        }
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          fmt::format("{} is not a usable update feed ({}): it must be "
                                      "well-formed XML with an rss element and a channel.",
                                      source, SparkleFeedParser::problem(data)));
    }
    context.out << feedAsTable(*items);
    if (anyInvalid) {
        context.exitStatus = exitCheckFailed;
    }
}

SparkleEngine engineFor(CliContext& context) {
    SparkleEngine engine;
    engine.log = [&context](const std::string& line) { context.out << line << '\n'; };
    return engine;
}

void addParse(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand("parse", "List the releases an appcast feed offers");
    auto file = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("FILE", *file, "The appcast.xml to read")->required();
    command->add_flag("--json", *json, "Print {\"valid\":…,\"items\":[…]} instead of a table");
    command->callback([&context, file, json] {
        reportFeed(context, readFile(expandTilde(*file)), *json, *file);
    });
}

void addCheckBuild(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "check-build", "Check that a build number is above every build the feed lists");
    auto file = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    command->add_option("FILE", *file, "The appcast.xml to read")->required();
    command->add_option("BUILD", *build, "The build about to be released")->required();
    command->callback([&context, file, build] {
        const auto value = releaseBuildArgument(*build);
        const auto data = readFile(expandTilde(*file));
        try {
            ReleaseFeedValidator::validateNextBuild(data, value);
        } catch (const VeltraError& error) {
            // Which item stands in the way, so the user can look at it.
            const auto items = SparkleFeedParser::parse(data);
            for (const auto& item : items.value_or(std::vector<SparkleFeedItem>{})) {
                const auto published = BuildNumber::parse(item.version);
                if (!item.version.empty() && (!published.isValid() || published.value >= value)) {
                    throw VeltraError(error.domain(), error.code(),
                                      fmt::format("{} It is the item '{}' (build '{}').",
                                                  error.message(), item.title, item.version));
                }
            }
            throw;
        }
        context.out << fmt::format("Build {} is newer than every build in the feed.\n", value);
    });
}

struct ItemOptions {
    std::string version;
    std::string build;
    std::string url;
    std::string signature;
    std::string length;
};

void addVerify(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "verify", "Check that exactly one item carries the release, with its exact values");
    auto file = std::make_shared<std::string>();
    auto options = std::make_shared<ItemOptions>();
    command->add_option("FILE", *file, "The appcast.xml to read")->required();
    command->add_option("--version", options->version, "Short version (1.4.2)")->required();
    command->add_option("--build", options->build, "Build number")->required();
    command->add_option("--url", options->url, "Download address of the disk image")->required();
    command->add_option("--signature", options->signature, "Base64 EdDSA signature")->required();
    command->add_option("--length", options->length, "Size of the disk image in bytes")->required();
    command->callback([&context, file, options] {
        ReleaseFeedValidator::verifyWrittenFeed(
            readFile(expandTilde(*file)),
            {options->version, options->build, options->url, options->signature, options->length});
        context.out << fmt::format("The feed lists build {} exactly as released.\n",
                                   options->build);
    });
}

void addStub(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand("stub", "Write a new feed without releases");
    auto file = std::make_shared<std::string>();
    auto app = std::make_shared<std::string>();
    auto site = std::make_shared<std::string>();
    command->add_option("FILE", *file, "Where to write appcast.xml (must not exist)")->required();
    command->add_option("--app", *app, "The application's name")->required();
    command->add_option("--site", *site, "The application's web site");
    command->callback([&context, file, app, site] {
        engineFor(context).createStubFeed(expandTilde(*file), *app, *site);
    });
}

void addAdd(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "add", "Put a release at the top of a feed, signing the disk image when given one");
    auto file = std::make_shared<std::string>();
    auto release = std::make_shared<AppcastRelease>();
    auto dmg = std::make_shared<std::string>();
    auto keyFile = std::make_shared<std::string>(SparkleEngine::defaultPrivateKeyPath);
    auto controls = std::make_shared<FeedControlArguments>();
    command->add_option("FILE", *file, "The appcast.xml to extend")->required();
    command->add_option("--version", release->shortVersion, "Short version (1.4.2)")->required();
    command->add_option("--build", release->build, "Build number")->required();
    command->add_option("--url", release->downloadURL, "Download address of the disk image")
        ->required();
    command->add_option("--min-system", release->minimumSystemVersion, "Minimum macOS version")
        ->required();
    command->add_option("--notes-url", release->releaseNotesURL, "Release notes address")
        ->required();
    auto* signature =
        command->add_option("--signature", release->signature, "Base64 EdDSA signature");
    auto* length = command->add_option("--length", release->length, "Size in bytes");
    auto* dmgOption = command->add_option("--dmg", *dmg, "Disk image to sign for the item");
    auto* key = command
                    ->add_option("--ed-key-file", *keyFile,
                                 "Private key for --dmg (32-byte seed or the older 96-byte form)")
                    ->capture_default_str();
    controls->addTo(*command);
    signature->needs(length)->excludes(dmgOption);
    length->needs(signature)->excludes(dmgOption);
    key->needs(dmgOption);
    command->callback([&context, file, release, dmg, keyFile, signature, controls] {
        if (signature->count() == 0 && dmg->empty()) {
            throw CLI::ValidationError("Give --signature and --length, or --dmg to sign.");
        }
        release->controls = controls->controls();
        auto engine = engineFor(context);
        if (!dmg->empty()) {
            const std::filesystem::path image = expandTilde(*dmg);
            const auto signed_ = engine.sign(image, image.stem().string(), *keyFile, context.stop);
            release->signature = signed_.signature;
            release->length = signed_.length;
        }
        engine.updateFeed(expandTilde(*file), *release);
    });
}

void addLive(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("live", "Fetch the feed a web site serves and list its releases");
    auto url = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("URL", *url, "The feed's public address")->required();
    command->add_flag("--json", *json, "Print {\"valid\":…,\"items\":[…]} instead of a table");
    command->callback([&context, url, json] {
        const auto data = PublishedFeedReader().liveFeed(*url, context.stop);
        reportFeed(context, data, *json, *url);
    });
}

void addCommitted(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "committed", "Read the feed on the website repository's publishing branch at origin");
    auto repository = std::make_shared<std::string>();
    auto branch = std::make_shared<std::string>("main");
    auto downloads = std::make_shared<std::string>();
    auto live = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("REPO", *repository, "Root folder of the website repository")->required();
    command->add_option("--branch", *branch, "Publishing branch")->capture_default_str();
    command->add_option("--downloads", *downloads,
                        "Folder of the repository that holds appcast.xml (default: its root)");
    command->add_option("--live", *live,
                        "The site's feed address, consulted when the branch has no feed");
    command->add_flag("--json", *json, "Print {\"valid\":…,\"items\":[…]} instead of a table");
    command->callback([&context, repository, branch, downloads, live, json] {
        const PublishedFeedReader reader;
        const auto folder = expandTilde(*repository);
        const auto data = live->empty()
                              ? reader.committedFeed(folder, *branch, *downloads, context.stop)
                              : reader.committedFeedCheckedAgainstLive(folder, *branch, *downloads,
                                                                       *live, context.stop);
        reportFeed(context, data, *json, fmt::format("The feed on {}", *branch));
    });
}

} // namespace

std::optional<std::chrono::seconds> followDuration(const std::string& text, bool byDefault) {
    if (text.empty()) {
        return byDefault && ::isatty(STDOUT_FILENO) == 1
                   ? std::optional<std::chrono::seconds>(std::chrono::minutes(10))
                   : std::nullopt;
    }
    std::size_t used = 0;
    long long amount = -1;
    try {
        amount = std::stoll(text, &used);
    } catch (const std::exception&) {
    }
    const auto unit = text.substr(used);
    const long long scale = unit.empty() || unit == "s" ? 1
                            : unit == "m"               ? 60
                            : unit == "h"               ? 3600
                                                        : 0;
    if (amount <= 0 || scale == 0 || amount > 24 * 3600 / scale) {
        throw CLI::ValidationError("--wait", "'" + text +
                                                 "' is not a duration such as 10m, 90s or 1h (at "
                                                 "most a day)");
    }
    return std::chrono::seconds(amount * scale);
}

std::int64_t releaseBuildArgument(const std::string& text) {
    const auto build = BuildNumber::parse(text);
    if (!build.isValid()) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "Invalid release build number.");
    }
    return build.value;
}

void addSignCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "sign",
        "Sign a file for Sparkle updates (EdDSA), printing what the feed's enclosure needs");
    auto file = std::make_shared<std::string>();
    auto keyFile = std::make_shared<std::string>();
    auto account = std::make_shared<std::string>(SparkleKeys::defaultAccount);
    command->add_option("FILE", *file, "The file to sign (usually the disk image)")->required();
    command->add_option("--ed-key-file", *keyFile,
                        "Private key written by Sparkle's key tool (32-byte seed or the older "
                        "96-byte form); without it, the keychain's key, or ~/.sparkle/ACCOUNT_priv "
                        "where there is no keychain");
    command->add_option("--account", *account, "The keychain account naming the key")
        ->capture_default_str();
    command->callback([&context, file, keyFile, account] {
        const auto location = SparkleKeys::locate(
            *account, keyFile->empty()
                          ? std::nullopt
                          : std::optional<std::filesystem::path>(expandTilde(*keyFile)));
        const auto key = SparkleKeys::load(location, context.stop);
        const auto result = NativeEd25519Signer::signFile(key, expandTilde(*file), context.stop);
        context.out << fmt::format("sparkle:edSignature=\"{}\" length=\"{}\"\n",
                                   result.signatureBase64(), result.length);
    });
}

void addAppcastCommands(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("appcast", "Read, check and extend Sparkle appcast feeds");
    group->require_subcommand(1);
    addParse(*group, context);
    addCheckBuild(*group, context);
    addVerify(*group, context);
    addStub(*group, context);
    addAdd(*group, context);
    addLive(*group, context);
    addCommitted(*group, context);
}

} // namespace veltra::cli
