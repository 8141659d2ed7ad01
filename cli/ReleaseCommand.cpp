#include "CommandLine.h"
#include "Commands.h"
#include "JsonOutput.h"
#include "OpenStore.h"
#include "core/pipeline/PipelineManager.h"

#include <cmath>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace veltra::cli {
namespace {

std::string_view symbol(StepStatus status) {
    switch (status) {
    case StepStatus::pending:
        return "\xC2\xB7"; // ·
    case StepStatus::running:
        return "\xE2\x96\xB6"; // ▶
    case StepStatus::succeeded:
        return "\xE2\x9C\x93"; // ✓
    case StepStatus::failed:
        return "\xE2\x9C\x97"; // ✗
    case StepStatus::skipped:
        return "\xE2\x86\xB7"; // ↷
    }
    return " ";
}

std::string durationText(const std::optional<double>& seconds) {
    return seconds ? fmt::format("{:.1f}s", *seconds) : std::string();
}

// Plain lines, for logs and pipes: each step change and each log line as it comes.
class PlainView : public PipelineObserver {
public:
    explicit PlainView(std::ostream& out) : out_(out) {}
    void stepsChanged(const PipelineManager& pipeline) override {
        for (const auto& step : pipeline.steps()) {
            auto& seen = shown_[step.id];
            if (seen.first != step.status || seen.second != step.message) {
                if (step.status != StepStatus::pending) {
                    out_ << fmt::format(
                        "{} {}: {}{}\n", symbol(step.status), step.title, step.message,
                        step.duration ? " (" + durationText(step.duration) + ")" : std::string());
                }
                seen = {step.status, step.message};
            }
        }
        out_ << std::flush;
    }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            out_ << entry.text << '\n';
        }
        out_ << std::flush;
    }

private:
    std::ostream& out_;
    std::map<std::string, std::pair<StepStatus, std::string>> shown_;
};

// One JSON object per line, for CI.
class JsonView : public PipelineObserver {
public:
    explicit JsonView(std::ostream& out) : out_(out) {}
    void stepsChanged(const PipelineManager& pipeline) override {
        for (const auto& step : pipeline.steps()) {
            auto& seen = shown_[step.id];
            if (seen.first != step.status || seen.second != step.message) {
                emit({{"type", "step"},
                      {"id", step.id},
                      {"title", step.title},
                      {"status", rawValue(step.status)},
                      {"message", step.message},
                      {"duration", step.duration ? Json(std::round(*step.duration * 1000) / 1000)
                                                 : Json(nullptr)}});
                seen = {step.status, step.message};
            }
        }
    }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            emit({{"type", "log"}, {"text", entry.text}, {"isError", entry.isError}});
        }
    }
    void emit(const Json& object) {
        out_ << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n' << std::flush;
    }

private:
    std::ostream& out_;
    std::map<std::string, std::pair<StepStatus, std::string>> shown_;
};

// A terminal: the step table redrawn in place at the top, the newest log lines below it.
class TableView : public PipelineObserver {
public:
    explicit TableView(std::ostream& out) : out_(out) {}
    void stepsChanged(const PipelineManager& pipeline) override { draw(pipeline); }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            // A header's leading blank line reads as a gap in the log pane.
            std::string_view text = entry.text;
            while (text.starts_with('\n')) {
                lines_.emplace_back();
                text.remove_prefix(1);
            }
            lines_.emplace_back(text);
        }
        if (pipeline_ != nullptr) {
            draw(*pipeline_);
        }
    }
    void draw(const PipelineManager& pipeline) {
        pipeline_ = &pipeline;
        winsize size{};
        const int rows =
            ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
        const int columns = size.ws_col > 0 ? size.ws_col : 80;
        std::string frame = "\x1b[H\x1b[J";
        frame += fmt::format("  {:<28} {:<10} {:<36} {:>7}\n", "STEP", "STATUS", "MESSAGE", "TIME");
        for (const auto& step : pipeline.steps()) {
            auto message = step.message;
            if (message.size() > 36) {
                message = message.substr(0, 35) + "\xE2\x80\xA6";
            }
            frame += fmt::format("{} {:<28} {:<10} {:<36} {:>7}\n", symbol(step.status), step.title,
                                 rawValue(step.status), message, durationText(step.duration));
        }
        frame += std::string(static_cast<std::size_t>(std::min(columns, 88)), '-') + "\n";
        const auto room = std::max(1, rows - static_cast<int>(pipeline.steps().size()) - 3);
        const auto first = lines_.size() > static_cast<std::size_t>(room)
                               ? lines_.size() - static_cast<std::size_t>(room)
                               : 0;
        for (auto i = first; i < lines_.size(); ++i) {
            frame += lines_[i].substr(0, static_cast<std::size_t>(columns)) + "\n";
        }
        out_ << frame << std::flush;
    }

private:
    std::ostream& out_;
    std::vector<std::string> lines_;
    const PipelineManager* pipeline_ = nullptr;
};

} // namespace

void addReleaseCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand("release", "Run the release pipeline for a profile");
    auto profile = std::make_shared<std::string>();
    auto appPath = std::make_shared<std::string>();
    auto notesFile = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("PROFILE", *profile, "The profile's name or ID")->required();
    command->add_option("--app", *appPath, "Ship this already built app");
    command->add_option("--notes", *notesFile, "A Markdown file with the release notes");
    command->add_flag("--json", *json, "One JSON object per line: steps, log lines, the result");
    command->callback([&context, profile, appPath, notesFile, json] {
        OpenStore store(context);
        const auto& chosen = store.find(*profile);
        ReleaseRequest request{chosen, std::nullopt, std::nullopt};
        if (!appPath->empty()) {
            request.appURL = std::filesystem::absolute(expandTilde(standardizePath(*appPath)));
        }
        if (!notesFile->empty()) {
            request.notes = readFile(expandTilde(*notesFile));
        }
        auto& loop = store.loop();
        PipelineManager pipeline(loop, store.notifications());
        PlainView plain(context.out);
        JsonView machine(context.out);
        TableView table(context.out);
        const bool terminal = &context.out == &std::cout && ::isatty(STDOUT_FILENO) == 1;
        PipelineObserver* view = *json      ? static_cast<PipelineObserver*>(&machine)
                                 : terminal ? static_cast<PipelineObserver*>(&table)
                                            : static_cast<PipelineObserver*>(&plain);
        struct Finished : PipelineObserver {
            PipelineObserver* inner;
            EventLoop* loop;
            void stepsChanged(const PipelineManager& p) override { inner->stepsChanged(p); }
            void logsPublished(const std::vector<ReleaseLogEntry>& b) override {
                inner->logsPublished(b);
            }
            void runFinished(const PipelineManager&) override { loop->quit(); }
        } relay;
        relay.inner = view;
        relay.loop = &loop;
        pipeline.setObserver(&relay);
        std::stop_callback cancel(
            context.stop, [&loop, &pipeline] { loop.post([&pipeline] { pipeline.cancel(); }); });
        loop.post([&] { pipeline.run(request); });
        loop.run();
        // The completion notification was posted before the run finished: deliver it so the
        // store records the release.
        loop.runPending();
        store.save();
        if (*json) {
            if (const auto& manifest = pipeline.completedManifest()) {
                machine.emit({{"type", "manifest"}, {"manifest", manifest->toJson()}});
            } else if (pipeline.isCancelled()) {
                machine.emit({{"type", "cancelled"}});
            } else {
                machine.emit({{"type", "error"},
                              {"message", pipeline.errorMessage().value_or("")},
                              {"step", pipeline.failedStepID().value_or("preflight")}});
            }
        }
        if (pipeline.isCancelled()) {
            throw CancellationError();
        }
        if (!pipeline.completedManifest()) {
            context.exitStatus = exitFailure;
        }
    });
}

} // namespace veltra::cli
