#include "Commands.h"
#include "JsonOutput.h"
#include "core/pipeline/TelemetryEvents.h"
#include "core/support/Telemetry.h"

#include <memory>

namespace veltra::cli {

void addTelemetryCommands(CLI::App& app, CliContext& context) {
    auto* group = app.add_subcommand(
        "telemetry", "Anonymous usage events: off until you turn them on (DO_NOT_TRACK=1 wins)");
    group->require_subcommand(1);
    const auto settings = [] { return TelemetrySettings(TelemetrySettings::defaultFolder()); };

    auto* status = group->add_subcommand("status", "Whether telemetry is on, and why");
    auto json = std::make_shared<bool>(false);
    status->add_flag("--json", *json, "Print the state as JSON");
    status->callback([&context, json, settings] {
        const auto current = settings();
        const auto queued = TelemetryQueue(current.queueFile()).events().size();
        if (*json) {
            context.out << jsonText(Json{{"enabled", current.enabledSetting()},
                                         {"active", current.active()},
                                         {"overriddenBy", orNull(current.overriddenBy())},
                                         {"installID", current.installID().empty()
                                                           ? Json(nullptr)
                                                           : Json(current.installID())},
                                         {"queued", queued}})
                        << '\n';
            return;
        }
        if (const auto by = current.overriddenBy()) {
            context.out << "Telemetry is off: " << *by << " turns it off whatever the setting ("
                        << (current.enabledSetting() ? "on" : "off") << ") says.\n";
        } else if (current.active()) {
            context.out << "Telemetry is on: anonymous usage events wait in "
                        << current.queueFile().string() << " (" << queued << " now; install ID "
                        << current.installID()
                        << "). 'veltra telemetry disable' turns it off and deletes them.\n";
        } else {
            context.out << "Telemetry is off (the default). 'veltra telemetry enable' turns it "
                           "on.\n";
        }
    });

    auto* show = group->add_subcommand("show", "Print exactly the batches that would be sent next");
    show->callback([&context, settings] {
        const auto current = settings();
        const TelemetryQueue queue(current.queueFile());
        const auto batches =
            TelemetryEvents::batches(queue.events(), current.installID(), "", queue.dropped());
        context.out << jsonText(Json(batches)) << '\n';
    });

    group->add_subcommand("enable", "Turn telemetry on")->callback([&context, settings] {
        auto current = settings();
        current.enable();
        context.out << "Telemetry is on (install ID " << current.installID() << ").";
        if (const auto by = current.overriddenBy()) {
            context.out << " " << *by << " keeps it off in this environment.";
        }
        context.out << '\n';
    });
    group->add_subcommand("disable", "Turn telemetry off and delete the queued events")
        ->callback([&context, settings] {
            settings().disable();
            context.out << "Telemetry is off; queued events deleted.\n";
        });
    group->add_subcommand("reset-id", "Replace the anonymous install ID")
        ->callback([&context, settings] {
            auto current = settings();
            current.resetID();
            context.out << "New install ID " << current.installID() << ".\n";
        });
}

} // namespace veltra::cli
