#include "CommandLine.h"
#include "Commands.h"
#include "JsonOutput.h"
#include "OpenStore.h"
#include "core/pipeline/ReleaseDoctor.h"

#include <memory>

namespace veltra::cli {

void addDoctorCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "doctor", "Check what a release needs: Xcode, signing, notarization, Sparkle, website, "
                  "GitHub, disk");
    auto profile = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *profile,
                        "The profile's name or ID (without one: Xcode, identities and gh)");
    command->add_flag("--json", *json, "The findings as JSON");
    command->callback([&context, profile, json] {
        std::optional<OpenStore> store;
        const ProjectProfile* chosen = nullptr;
        if (!profile->empty()) {
            store.emplace(context);
            chosen = &store->find(*profile);
        }
        const auto findings = ReleaseDoctor().examine(chosen, context.stop);
        std::size_t problems = 0;
        for (const auto& finding : findings) {
            problems += finding.verdict == DoctorVerdict::problem ? 1 : 0;
        }
        if (*json) {
            Json list = Json::array();
            for (const auto& finding : findings) {
                list.push_back(finding.toJson());
            }
            context.out << jsonText({{"checks", list}, {"problems", problems}}) << '\n';
        } else {
            for (const auto& finding : findings) {
                context.out << fmt::format("{:<8} {:<14} {}\n", rawValue(finding.verdict),
                                           finding.check, finding.found);
                if (finding.verdict != DoctorVerdict::ok && !finding.advice.empty()) {
                    context.out << fmt::format("{:<8} {:<14} \xE2\x86\x92 {}\n", "", "",
                                               finding.advice);
                }
            }
            context.out << (problems == 0 ? std::string("No problems found.")
                                          : fmt::format("{} problem{} found.", problems,
                                                        problems == 1 ? "" : "s"))
                        << '\n';
        }
        if (problems > 0) {
            context.exitStatus = exitCheckFailed;
        }
    });
}

} // namespace veltra::cli
