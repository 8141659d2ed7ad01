#include "Commands.h"
#include "FeedControlOptions.h"
#include "OpenStore.h"
#include "PipelineViews.h"
#include "core/pipeline/WebsitePublicationWatcher.h"

#include <chrono>
#include <memory>
#include <unistd.h>

namespace veltra::cli {

void addReleaseCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand("release", "Run the release pipeline for a profile");
    auto profile = std::make_shared<std::string>();
    auto appPath = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    auto notesFile = std::make_shared<std::string>();
    auto branch = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    auto dryRun = std::make_shared<bool>(false);
    auto resume = std::make_shared<bool>(false);
    auto quiet = std::make_shared<bool>(false);
    auto verbose = std::make_shared<bool>(false);
    auto wait = std::make_shared<std::string>();
    auto noWait = std::make_shared<bool>(false);
    auto controls = std::make_shared<FeedControlArguments>();
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_option("--app", *appPath, "Ship this already built app");
    command->add_option("--version", *version,
                        "The marketing version (default: the project's current one)");
    command->add_option("--build", *build, "The build number (default: the next one to use)");
    command->add_option("--notes", *notesFile, "A Markdown file with the release notes");
    command->add_option(
        "--branch", *branch,
        "Build this committed branch of the app's repository, not the working copy");
    controls->addTo(*command);
    auto* jsonFlag = command->add_flag("--json", *json,
                                       "One JSON object per line: steps, log lines, the result");
    command->add_flag("--quiet", *quiet, "Only errors, warnings and the result")
        ->excludes(jsonFlag);
    command->add_flag("--verbose", *verbose, "Also each tool's command line and what it printed")
        ->excludes("--quiet");
    auto* waitOption = command->add_option(
        "--wait", *wait,
        "After the push, follow the live site until it serves the release, at most this long "
        "(10m, 90s, 1h; default 10m on a terminal)");
    waitOption->type_name("DURATION");
    command->add_flag("--no-wait", *noWait, "Do not follow the live site after the push")
        ->excludes(waitOption);
    command->add_flag("--dry-run", *dryRun,
                      "Everything but publishing: the project untouched, nothing notarized or "
                      "pushed, no release recorded");
    command->add_flag("--resume", *resume,
                      "Continue the last stopped release from the first step that did not finish");
    command->callback([&context, profile, appPath, version, build, notesFile, branch, json, dryRun,
                       resume, quiet, verbose, wait, noWait, controls] {
        OpenStore store(context);
        ReleaseRequest request;
        request.profile = store.find(*profile);
        if (!appPath->empty()) {
            if (!version->empty() || !build->empty() || !branch->empty()) {
                throw failure("--version, --build and --branch set what is built from the "
                              "project; an app given with --app is shipped as it is.");
            }
            request.appPath = std::filesystem::absolute(expandTilde(standardizePath(*appPath)));
        }
        if (!notesFile->empty()) {
            request.notes = readFile(expandTilde(*notesFile));
        }
        if (!version->empty()) {
            request.version = *version;
        }
        if (!build->empty()) {
            request.build = releaseBuildArgument(*build);
        }
        if (!branch->empty()) {
            request.branch = *branch;
        }
        request.dryRun = *dryRun;
        request.feedControls = controls->controls();
        if (*resume && (!appPath->empty() || !version->empty() || !build->empty() ||
                        !branch->empty() || *dryRun || !request.feedControls.isDefault())) {
            throw failure("--resume continues the stopped release as it was; it takes no --app, "
                          "--version, --build, --branch, --dry-run or feed controls.");
        }
        request.resume = *resume;
        // A person at a terminal waits to see the release live; a script asks for it.
        const auto follow = followDuration(*wait, !*noWait && !*json && !request.dryRun);
        PipelineManager pipeline(store.loop(), store.notifications());
        std::optional<WebsitePublicationWatcher> watcher;
        if (follow) {
            watcher.emplace(store.loop(), store.store(), store.notifications(),
                            WebsitePublicationProbe::shared(),
                            WebsiteWatchTiming{std::chrono::seconds(20), *follow,
                                               std::chrono::milliseconds(500)});
        }
        showRelease(context, store, pipeline, request, {*json, *quiet, *verbose},
                    watcher ? &*watcher : nullptr);
    });
}

} // namespace veltra::cli
