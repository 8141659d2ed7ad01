#include "CommandLine.h"

#include "Commands.h"
#include "JsonOutput.h"
#include "Terminal.h"
#include "core/pipeline/TelemetryEvents.h"
#include "core/pipeline/TelemetrySender.h"
#include "core/support/Telemetry.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <map>
#include <ranges>
#include <sstream>
#include <unistd.h>

#include <CLI/CLI.hpp>

#ifndef VELTRA_VERSION
#error "VELTRA_VERSION must be defined by the build"
#endif

namespace veltra::cli {
namespace {

// What each option takes, by its name, where CLI11 would say TEXT.
const std::map<std::string, std::string>& placeholders() {
    static const std::map<std::string, std::string> names{
        {"--account", "NAME"},
        {"--app", "PATH"},
        {"--appcast", "FILE"},
        {"--apple-id", "EMAIL"},
        {"--branch", "BRANCH"},
        {"--build", "BUILD"},
        {"--bundle-id", "ID"},
        {"--dmg", "FILE"},
        {"--downloads", "PATH"},
        {"--ed-key-file", "FILE"},
        {"--feed", "FILE"},
        {"--feed-url", "URL"},
        {"--file", "FILE"},
        {"--heading", "TEXT"},
        {"--height", "POINTS"},
        {"--identity", "IDENTITY"},
        {"--interval", "SECONDS"},
        {"--issuer", "UUID"},
        {"--keep", "DIR"},
        {"--key", "FILE"},
        {"--key-id", "ID"},
        {"--keychain", "NAME"},
        {"--keychain-profile", "NAME"},
        {"--length", "BYTES"},
        {"--live", "URL"},
        {"--min-system", "VERSION"},
        {"--notes", "FILE"},
        {"--notes-url", "URL"},
        {"--output", "PATH"},
        {"--p12", "FILE"},
        {"--password-env", "VAR"},
        {"--path", "PATH"},
        {"--preset", "NAME"},
        {"--profile", "NAME|ID"},
        {"--profiles", "FILE"},
        {"--project", "PATH"},
        {"--public-key", "KEY"},
        {"--release", "VERSION"},
        {"--remote", "URL"},
        {"--repo", "OWNER/NAME"},
        {"--scheme", "NAME"},
        {"--signature", "BASE64"},
        {"--site", "URL"},
        {"--target", "NAME"},
        {"--team-id", "TEAM"},
        {"--timeout", "SECONDS"},
        {"--url", "URL"},
        {"--version", "VERSION"},
        {"--width", "POINTS"},
    };
    return names;
}

// Placeholders that say what an option takes; a positional's name is its own placeholder.
void namePlaceholders(CLI::App& app) {
    for (auto* option : app.get_options()) {
        if (option->get_type_size() == 0) {
            continue; // a flag
        }
        if (option->get_lnames().empty() && option->get_snames().empty()) {
            option->type_name("");
        } else if (const auto found = placeholders().find(option->get_name());
                   found != placeholders().end()) {
            option->type_name(found->second);
        } else if (option->get_type_name() == "TEXT") {
            option->type_name("VALUE");
        }
    }
    for (auto* sub : app.get_subcommands({})) {
        namePlaceholders(*sub);
    }
}

std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        auto diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const auto above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// "Did you mean 'release'?" for the first word that is not a command where one was expected.
std::optional<std::string> suggestion(CLI::App& app, const std::vector<std::string>& arguments) {
    CLI::App* current = &app;
    for (const auto& word : arguments) {
        if (word.starts_with('-')) {
            continue;
        }
        const auto subcommands = current->get_subcommands({});
        if (subcommands.empty()) {
            return std::nullopt;
        }
        const auto next = std::ranges::find_if(
            subcommands, [&](const CLI::App* sub) { return sub->get_name() == word; });
        if (next != subcommands.end()) {
            current = *next;
            continue;
        }
        const CLI::App* best = nullptr;
        std::size_t bestDistance = 3;
        for (const auto* sub : subcommands) {
            const auto distance = editDistance(word, sub->get_name());
            if (distance < bestDistance) {
                best = sub;
                bestDistance = distance;
            }
        }
        if (best == nullptr) {
            return std::nullopt;
        }
        auto path = best->get_name();
        for (const auto* parent = best->get_parent(); parent != nullptr && parent != &app;
             parent = parent->get_parent()) {
            path = parent->get_name() + " " + path;
        }
        return "Did you mean '" + path + "'?";
    }
    return std::nullopt;
}

// CLI11 lists unexpected words in the reverse of the order they were typed.
std::string inTypedOrder(const std::string& message, const std::vector<std::string>& arguments) {
    const auto colon = message.find(": ");
    if (colon == std::string::npos || !message.starts_with("The following argument")) {
        return message;
    }
    std::vector<std::string> words;
    std::istringstream list(message.substr(colon + 2));
    for (std::string word; list >> word;) {
        words.push_back(word);
    }
    std::vector<std::pair<std::size_t, std::string>> placed;
    for (const auto& word : words) {
        const auto at = std::ranges::find(arguments, word);
        if (at == arguments.end()) {
            return message;
        }
        placed.emplace_back(static_cast<std::size_t>(at - arguments.begin()), word);
    }
    std::ranges::stable_sort(placed, {}, &std::pair<std::size_t, std::string>::first);
    std::string ordered = message.substr(0, colon + 2);
    for (std::size_t i = 0; i < placed.size(); ++i) {
        ordered += (i == 0 ? "" : " ") + placed[i].second;
    }
    return ordered;
}

// --json anywhere before "--" asks for errors as JSON too.
bool wantsJSON(const std::vector<std::string>& arguments) {
    for (const auto& word : arguments) {
        if (word == "--") {
            return false;
        }
        if (word == "--json") {
            return true;
        }
    }
    return false;
}

int report(CliContext& context, bool json, const std::string& domain, int code,
           const std::string& message, int status, const std::string& hint = {}) {
    if (json) {
        context.out << Json{{"type", "error"},
                            {"domain", domain},
                            {"code", code},
                            {"message", message}}
                           .dump(-1, ' ', false, Json::error_handler_t::replace)
                    << '\n';
    } else {
        const auto line = "Error: " + message;
        context.err << (&context.err == &std::cerr && colourFor(STDERR_FILENO, context.noColour)
                            ? colouredLine(line)
                            : line)
                    << '\n'
                    << hint;
    }
    return status;
}

constexpr const char* exitStatuses =
    "Exit status: 0 done, 1 failed, 2 usage error, 3 a check said no (version check, doctor), "
    "130 cancelled.";

// The command's words and the names of the options given, never their values.
void recordCommand(const CLI::App& app) {
    std::string command;
    std::vector<std::string> options;
    for (const CLI::App* at = &app; at != nullptr;) {
        for (const auto* option : at->get_options()) {
            if (option->count() > 0 && !option->get_lnames().empty()) {
                options.push_back("--" + option->get_lnames().front());
            }
        }
        const auto parsed = at->get_subcommands();
        at = parsed.empty() ? nullptr : parsed.front();
        if (at != nullptr) {
            command += (command.empty() ? "" : " ") + at->get_name();
        }
    }
    if (command.empty()) {
        return;
    }
    const TelemetrySettings settings(TelemetrySettings::defaultFolder());
    TelemetryEvents::record(TelemetryEvents::source(VELTRA_VERSION, false, settings), "command_run",
                            TelemetryEvents::commandRun(command, options), settings);
    // At most two seconds at the end of a command, silently, once all it says is out.
    std::cout.flush();
    std::cerr.flush();
    TelemetrySender(settings).send(std::chrono::seconds(2));
}

} // namespace

int runCommandLine(const std::vector<std::string>& given, CliContext& context) {
    CLI::App app("Veltra takes a Mac app from its Xcode project to a published, self-updating "
                 "release.",
                 "veltra");
    app.set_version_flag("--version", "veltra " VELTRA_VERSION);
    app.require_subcommand(0, 1);
    app.footer(exitStatuses);
    // Global options anywhere on the line: subcommands made after this pass them up.
    app.fallthrough();
    app.add_option("--profiles", context.profilesPath,
                   "Profile file to use (default ~/.veltra/profiles.json)")
        ->envname("VELTRA_PROFILES");
    app.add_flag("--no-color", context.noColour,
                 "Plain text on a terminal too (so does the variable NO_COLOR)");
    addProfileCommands(app, context);
    addDSStoreCommands(app, context);
    addSignCommand(app, context);
    addSparkleCommands(app, context);
    addAppcastCommands(app, context);
    addVersionCommands(app, context);
    addXcodeCommands(app, context);
    addSigningCommands(app, context);
    addDMGCommands(app, context);
    addPublishingCommands(app, context);
    addWebsiteCommands(app, context);
    addReleaseCommand(app, context);
    addDemoCommand(app, context);
    addDoctorCommand(app, context);
    addTelemetryCommands(app, context);
    app.add_subcommand("help", "Show the help of veltra or of a command (veltra help COMMAND…)")
        ->allow_extras();
    addCompletionCommand(app, context);
    addManualCommand(app, context, VELTRA_VERSION);
    namePlaceholders(app);

    // "veltra help release notes" is "veltra release notes --help".
    auto arguments = given;
    if (!arguments.empty() && arguments.front() == "help") {
        arguments.erase(arguments.begin());
        arguments.emplace_back("--help");
    }
    const bool json = wantsJSON(arguments);
    // CLI11 wants the arguments in reverse order, program name excluded.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    // Once a command has run, however it ended.
    struct Recorded {
        const CLI::App& app;
        bool ran = false;
        ~Recorded() {
            if (ran) {
                recordCommand(app);
            }
        }
    } recorded{app};
    try {
        app.parse(reversed);
        recorded.ran = true;
    } catch (const CLI::CallForHelp&) {
        // The help of the command named, or of veltra.
        context.out << app.help();
        return exitSuccess;
    } catch (const CLI::CallForAllHelp&) {
        context.out << app.help("", CLI::AppFormatMode::All);
        return exitSuccess;
    } catch (const CLI::CallForVersion& version) {
        context.out << version.what() << '\n';
        return exitSuccess;
    } catch (const CLI::ParseError& error) {
        std::string hint;
        if (const auto guess = suggestion(app, arguments)) {
            hint = *guess + '\n';
        }
        hint += "Run 'veltra --help' for usage.\n";
        return report(context, json, "Usage", exitUsage, inTypedOrder(error.what(), arguments),
                      exitUsage, hint);
    } catch (const CancellationError& cancelled) {
        recorded.ran = true;
        return report(context, json, "Veltra", exitCancelled, cancelled.what(), exitCancelled);
    } catch (const VeltraError& error) {
        recorded.ran = true;
        return report(context, json, error.domain(), error.code(), error.message(), exitFailure);
    } catch (const std::exception& error) {
        recorded.ran = true;
        return report(context, json, "Veltra", exitFailure, error.what(), exitFailure);
    }
    if (app.get_subcommands().empty()) {
        context.out << app.help();
    }
    return context.exitStatus;
}

} // namespace veltra::cli
