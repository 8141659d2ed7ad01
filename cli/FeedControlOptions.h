#pragma once

#include "OpenStore.h"
#include "core/records/FeedControls.h"

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace veltra::cli {

// The feed controls as a command takes them (release, appcast add).
struct FeedControlArguments : feedControls::Typed {
    void addTo(CLI::App& command) {
        command.add_option("--channel", channel,
                           "Offer the release only to apps that follow this channel (beta)");
        command.add_flag("--critical", critical, "Mark the release critical: installed at once");
        command
            .add_option("--critical-below", criticalBelow,
                        "Critical only for builds below this one (implies --critical)")
            ->type_name("BUILD");
        command
            .add_option("--phased-rollout", phasedRollout,
                        "Roll the release out in groups this far apart (1d, 36h, 3600)")
            ->type_name("DURATION");
        command
            .add_option("--minimum-autoupdate", minimumAutoupdate,
                        "Builds below this one are asked before updating, not updated "
                        "silently")
            ->type_name("BUILD");
    }

    // Checked where it enters: a name or build the feed could not carry is refused.
    FeedControls controls() const {
        auto controls = feedControls::fromTyped(*this);
        if (!controls) {
            throw failure(controls.error());
        }
        return *controls;
    }
};

} // namespace veltra::cli
