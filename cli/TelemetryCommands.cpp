#include "Commands.h"
#include "JsonOutput.h"
#include "core/pipeline/TelemetryEvents.h"
#include "core/pipeline/TelemetrySender.h"
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

    auto* flush = group->add_subcommand("flush", "Send the queued events now, and say how it went");
    flush->callback([&context, settings] {
        const auto current = settings();
        if (!current.active()) {
            context.out << "Telemetry is off: nothing is sent.\n";
            return;
        }
        if (!current.endpoint()) {
            context.out << "No endpoint is set ('veltra telemetry endpoint URL --key KEY', or "
                           "VELTRA_TELEMETRY_URL): nothing is sent.\n";
            return;
        }
        const auto sent =
            TelemetrySender(current).send(std::chrono::seconds(30), true, context.stop);
        context.out << "Sent " << sent.sent << " event" << (sent.sent == 1 ? "" : "s") << " to "
                    << *current.endpoint();
        if (sent.refused > 0) {
            context.out << "; " << sent.refused << " refused by the server and dropped";
        }
        context.out << ".\n";
        if (sent.problem) {
            context.out << "Stopped: " << *sent.problem << "; the rest stays queued.\n";
            context.exitStatus = 1;
        }
    });
    auto* endpoint =
        group->add_subcommand("endpoint", "Where events go: an https:// address and its key");
    auto url = std::make_shared<std::string>();
    auto key = std::make_shared<std::string>();
    endpoint->add_option("URL", *url, "The batch endpoint (empty to unset)")->required();
    endpoint->add_option("--key", *key, "The project's API key the batches carry");
    endpoint->callback([&context, settings, url, key] {
        auto current = settings();
        current.setEndpoint(*url, *key);
        context.out << (url->empty() ? "No endpoint: nothing is sent.\n"
                                     : "Events go to " + *url + ".\n");
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
