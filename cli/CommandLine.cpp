#include "CommandLine.h"

#include "Commands.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <exception>
#include <ranges>

#include <CLI/CLI.hpp>

#ifndef VELTRA_VERSION
#error "VELTRA_VERSION must be defined by the build"
#endif

namespace veltra::cli {

int runCommandLine(const std::vector<std::string>& arguments, CliContext& context) {
    CLI::App app("Veltra takes a Mac app from its Xcode project to a published, self-updating "
                 "release.",
                 "veltra");
    app.set_version_flag("--version", "veltra " VELTRA_VERSION);
    app.require_subcommand(0, 1);
    app.add_option("--profiles", context.profilesPath,
                   "Profile file to use (default ~/.veltra/profiles.json)")
        ->envname("VELTRA_PROFILES");
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

    // CLI11 wants the arguments in reverse order, program name excluded.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
        context.out << app.help();
        return exitSuccess;
    } catch (const CLI::CallForAllHelp&) {
        context.out << app.help("", CLI::AppFormatMode::All);
        return exitSuccess;
    } catch (const CLI::CallForVersion& version) {
        context.out << version.what() << '\n';
        return exitSuccess;
    } catch (const CLI::ParseError& error) {
        context.err << "Error: " << error.what() << "\nRun 'veltra --help' for usage.\n";
        return exitUsage;
    } catch (const CancellationError& cancelled) {
        context.err << "Error: " << cancelled.what() << '\n';
        return exitCancelled;
    } catch (const std::exception& error) {
        context.err << "Error: " << error.what() << '\n';
        return exitFailure;
    }
    if (app.get_subcommands().empty()) {
        context.out << app.help();
    }
    return context.exitStatus;
}

} // namespace veltra::cli
