#include "Commands.h"
#include "LinePrinter.h"
#include "OpenStore.h"
#include "core/publishing/GitHubReleaseEngine.h"
#include "core/publishing/ReleaseNotesGenerator.h"

#include <memory>

namespace veltra::cli {
namespace {

void addNotes(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "notes", "Draft release notes from the last ten commits of a repository");
    auto repository = std::make_shared<std::string>();
    auto path = std::make_shared<std::string>();
    auto heading = std::make_shared<std::string>();
    command->add_option("REPO", *repository, "The app's source repository")->required();
    command->add_option("--path", *path, "Only commits that touch this path");
    command->add_option("--heading", *heading, "The app's name and version, e.g. \"Acme 1.2.3\"")
        ->required();
    command->callback([&context, repository, path, heading] {
        // Progress goes to standard error so that standard output is the notes alone.
        LinePrinter progress(context.err);
        context.out << ReleaseNotesGenerator().generate(expandTilde(*repository), *path, *heading,
                                                        std::ref(progress), context.stop)
                    << '\n';
    });
}

void addGitHub(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand("github", "Publish GitHub releases through gh");
    group->require_subcommand(1);
    auto* command =
        group->add_subcommand("release", "Create a GitHub release with the disk image attached");
    auto dmg = std::make_shared<std::string>();
    auto appName = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto notesFile = std::make_shared<std::string>();
    auto repo = std::make_shared<std::string>();
    auto draft = std::make_shared<bool>(false);
    command->add_option("--dmg", *dmg, "The disk image to attach")->required();
    command->add_option("--app", *appName, "The app's name, for the title")->required();
    command->add_option("--version", *version, "The marketing version, without \"v\"")->required();
    command->add_option("--notes", *notesFile, "A Markdown file with the release notes");
    command->add_option("--repo", *repo, "owner/name (default: gh's own choice)");
    command->add_flag("--draft", *draft, "Create the release as a draft");
    command->callback([&context, dmg, appName, version, notesFile, repo, draft] {
        GitHubReleaseConfig config;
        config.enabled = true;
        config.repoOwnerAndName = *repo;
        config.createDraft = *draft;
        const auto notes = notesFile->empty() ? std::string() : readFile(expandTilde(*notesFile));
        LinePrinter print(context.out);
        GitHubReleaseEngine().publish(config, expandTilde(*dmg), *appName, *version, notes,
                                      std::ref(print), context.stop);
    });
}

} // namespace

void addPublishingCommands(CLI::App& app, CliContext& context) {
    addNotes(app, context);
    addGitHub(app, context);
}

} // namespace veltra::cli
