#pragma once

#include "CliContext.h"
#include "OpenStore.h"
#include "core/pipeline/PipelineManager.h"
#include "core/pipeline/WebsitePublicationWatcher.h"

namespace veltra::cli {

// Runs `request` through `pipeline`, shown as a live table on a terminal, plain lines in a pipe,
// or JSON lines (ending with the manifest or the error) with `json`; with `quiet`, only the
// errors and warnings and the result. With `watcher`, it also
// follows the published release until the live site serves it or the watch gives up. Returns
// when all that has ended; throws CancellationError after Ctrl-C and sets the exit status of a
// failed run. `printed` are lines the caller already wrote; a terminal's table keeps them at the
// top of its log.
struct ReleaseOutput {
    bool json = false;
    bool quiet = false;
    // Each tool's command line and what it printed, among the log lines.
    bool verbose = false;
};

void showRelease(CliContext& context, OpenStore& store, PipelineManager& pipeline,
                 const ReleaseRequest& request, ReleaseOutput output,
                 WebsitePublicationWatcher* watcher = nullptr,
                 const std::vector<std::string>& printed = {});

} // namespace veltra::cli
